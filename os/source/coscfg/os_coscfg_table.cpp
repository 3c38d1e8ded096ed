// os_coscfg_table.cpp: sections, tags and their cells: the built-in tags, then the table.
#include "os_coscfg_impl.h"

#include "os_cosstring.h"

#include <algorithm>
#include <iterator>
#include <new>

// --------------------------------------------------------------------------------------------- the built-in tags

namespace
{
struct OsCfgTagRow
{
    const char* szName;
    uint32_t u32Section;
    const char* szDefault;
};

// The index of a row is the number of its tag.
constexpr OsCfgTagRow g_aoscfgtagrow[] = {{"", OS_CFGSECTION_DSIDENTITY, nullptr},
#define OS_CFGTAG_ROW(tag_, name_, section_, default_) {name_, OS_CFGSECTION_##section_, default_},
                                          OS_CFGTAG_LIST(OS_CFGTAG_ROW)
#undef OS_CFGTAG_ROW
};
static_assert(std::size(g_aoscfgtagrow) == OS_CFGTAG_LAST);

constexpr const char* g_aszSection[] = {"", "dsIdentity", "Brand", "SupportedSizes", "MVR_ALL.DS"};
static_assert(std::size(g_aszSection) == OS_CFGSECTION_MVRALLDS + 1);

// An extension with more sections or tags than this is taken for a mistake.
constexpr uint32_t g_u32ExtensionMost = 4096;

const OsCfgTagRow& RowOf(uint32_t a_u32Tag)
{
    return g_aoscfgtagrow[a_u32Tag < OS_CFGTAG_LAST ? a_u32Tag : 0];
}

// The range of numbers of a list, from 1000; 0 if a number is below 1000.
uint32_t SpanOf(const OsCfgExtension* a_poscfgextension)
{
    uint32_t u32Highest = OS_CFGEXTENSION;
    for (; a_poscfgextension->u32Number != OS_CFGEXTENSION; ++a_poscfgextension)
    {
        if (a_poscfgextension->u32Number < OS_CFGEXTENSION)
            return 0;
        u32Highest = std::max(u32Highest, a_poscfgextension->u32Number);
    }
    return u32Highest - OS_CFGEXTENSION + 1;
}

uint32_t FindIn(const OsCfgExtension* a_poscfgextension, const char* a_szName)
{
    for (; a_poscfgextension && a_poscfgextension->u32Number != OS_CFGEXTENSION; ++a_poscfgextension)
    {
        if (StrICmp(a_poscfgextension->szName, a_szName) == 0)
            return a_poscfgextension->u32Number;
    }
    return 0;
}
}   // namespace

const char* OsCfgTagName(uint32_t a_u32Tag)
{
    return RowOf(a_u32Tag).szName;
}

uint32_t OsCfgTagSection(uint32_t a_u32Tag)
{
    return RowOf(a_u32Tag).u32Section;
}

const char* OsCfgTagDefault(uint32_t a_u32Tag)
{
    return RowOf(a_u32Tag).szDefault;
}

// ----------------------------------------------------------------------------------------------------- the table

OsCfgTable::~OsCfgTable()
{
    Clear();
}

void OsCfgTable::Store(Cell* a_pcell, const char* a_szValue, bool a_blOwned)
{
    const char* const szOwned = a_pcell->blOwned ? a_pcell->szValue.load(std::memory_order_relaxed) : nullptr;
    a_pcell->szValue.store(a_szValue, std::memory_order_release);
    a_pcell->blOwned = a_blOwned;
    delete[] szOwned;
}

void OsCfgTable::Clear()
{
    for (auto& acell : m_aacell)
    {
        for (Cell& cell : acell)
            Store(&cell, nullptr, false);
    }
    for (size_t sizet = 0; sizet < size_t{m_u32ExtensionSections} * m_u32ExtensionTags; ++sizet)
        Store(&m_acellExtension[sizet], nullptr, false);
}

const OsCfgTable::Cell* OsCfgTable::Find(uint32_t a_u32Section, uint32_t a_u32Tag) const
{
    if (a_u32Section >= OS_CFGEXTENSION && a_u32Tag >= OS_CFGEXTENSION)
    {
        const uint32_t u32Row = a_u32Section - OS_CFGEXTENSION;
        const uint32_t u32Column = a_u32Tag - OS_CFGEXTENSION;
        if (u32Row >= m_u32ExtensionSections || u32Column >= m_u32ExtensionTags)
            return nullptr;
        return &m_acellExtension[size_t{u32Row} * m_u32ExtensionTags + u32Column];
    }
    const bool blSection = a_u32Section >= OS_CFGSECTION_DSIDENTITY && a_u32Section <= OS_CFGSECTION_MVRALLDS;
    const bool blTag = a_u32Tag > OS_CFGTAG_UNDEFINED && a_u32Tag < OS_CFGTAG_LAST;
    return blSection && blTag ? &m_aacell[a_u32Section][a_u32Tag] : nullptr;
}

const char* OsCfgTable::Get(uint32_t a_u32Section, uint32_t a_u32Tag) const
{
    const Cell* const pcell = Find(a_u32Section, a_u32Tag);
    const char* const szValue = pcell ? pcell->szValue.load(std::memory_order_acquire) : nullptr;
    return szValue ? szValue : "";
}

EOSSTS OsCfgTable::Set(uint32_t a_u32Section, uint32_t a_u32Tag, const char* a_szValue)
{
    Cell* const pcell = const_cast<Cell*>(Find(a_u32Section, a_u32Tag));
    if (!pcell)
        return EOSSTS_NOTOPEN;
    Store(pcell, a_szValue, false);
    return EOSSTS_SUCCESS;
}

EOSSTS OsCfgTable::Adopt(uint32_t a_u32Section, uint32_t a_u32Tag, char* a_szValue)
{
    Cell* const pcell = const_cast<Cell*>(Find(a_u32Section, a_u32Tag));
    if (!pcell)
    {
        delete[] a_szValue;
        return EOSSTS_NOTOPEN;
    }
    Store(pcell, a_szValue, true);
    return EOSSTS_SUCCESS;
}

void OsCfgTable::FreeExtension()
{
    for (size_t sizet = 0; sizet < size_t{m_u32ExtensionSections} * m_u32ExtensionTags; ++sizet)
        Store(&m_acellExtension[sizet], nullptr, false);
    m_acellExtension.reset();
    m_u32ExtensionSections = 0;
    m_u32ExtensionTags = 0;
    m_aoscfgextensionSection = nullptr;
    m_aoscfgextensionTag = nullptr;
}

EOSSTS OsCfgTable::Register(const OsCfgExtension* a_aoscfgextensionSection, const OsCfgExtension* a_aoscfgextensionTag)
{
    FreeExtension();
    if (!a_aoscfgextensionSection || !a_aoscfgextensionTag)
        return EOSSTS_SUCCESS;

    const uint32_t u32Sections = SpanOf(a_aoscfgextensionSection);
    const uint32_t u32Tags = SpanOf(a_aoscfgextensionTag);
    if (!u32Sections || !u32Tags)
        return EOSSTS_NOTOPEN;
    if (u32Sections > g_u32ExtensionMost || u32Tags > g_u32ExtensionMost)
        return EOSSTS_NOMEMORY;
    m_acellExtension.reset(new (std::nothrow) Cell[size_t{u32Sections} * u32Tags]);
    if (!m_acellExtension)
        return EOSSTS_NOMEMORY;
    m_u32ExtensionSections = u32Sections;
    m_u32ExtensionTags = u32Tags;
    m_aoscfgextensionSection = a_aoscfgextensionSection;
    m_aoscfgextensionTag = a_aoscfgextensionTag;
    return EOSSTS_SUCCESS;
}

uint32_t OsCfgTable::FindSection(const char* a_szName) const
{
    for (uint32_t u32Section = OS_CFGSECTION_DSIDENTITY; u32Section < std::size(g_aszSection); ++u32Section)
    {
        if (StrICmp(g_aszSection[u32Section], a_szName) == 0)
            return u32Section;
    }
    return FindIn(m_aoscfgextensionSection, a_szName);
}

uint32_t OsCfgTable::FindTag(uint32_t a_u32Section, const char* a_szName) const
{
    if (a_u32Section >= OS_CFGEXTENSION)
        return FindIn(m_aoscfgextensionTag, a_szName);
    if (!*a_szName)
        return 0;
    for (uint32_t u32Tag = OS_CFGTAG_HOMEDIRECTORY; u32Tag < OS_CFGTAG_LAST; ++u32Tag)
    {
        if (StrICmp(g_aoscfgtagrow[u32Tag].szName, a_szName) == 0)
            return u32Tag;
    }
    return 0;
}
