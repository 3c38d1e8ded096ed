// os_cosresource.cpp: resources of program files. In order: the public object, opening, the footer, the local module.
//
// Data is read, not mapped: it is small, and if another process truncates the file, a read fails instead of crashing.
#include "os_cosresource.h"

#include "os_cosarguments.h"
#include "os_coslocale.h"
#include "os_cosresource_footer.h"
#include "os_cosspinlock.h"
#include "os_cosstring.h"
#include "os_new.h"
#include "os_scope.h"

#include "plat_file.h"
#include "plat_process.h"

#include <cstring>
#include <memory>

static constexpr char g_szSource[] = "os/source/os_cosresource";

class COsResourceImpl
{
public:
    COsResourceImpl() = default;
    ~COsResourceImpl() { Release(); }
    COsResourceImpl(const COsResourceImpl&) = delete;
    COsResourceImpl& operator=(const COsResourceImpl&) = delete;

    EOSSTS Open(const char* a_szFilename, const char* a_szResourceName);
    bool IsIntact(const char* a_szFilename);
    bool IsAbsent() const { return m_blAbsent; }
    const char* Data() const { return m_szData.get(); }
    size_t Size() const { return m_sizetData; }

private:
    bool FindFile(const char* a_szFilename);
    bool OpenFile();
    bool LoadModule();
    bool ReadTrailer(OsResourceTrailer* a_posresourcetrailer) const;
    bool ReadEntry(const OsResourceTrailer& a_osresourcetrailer, uint32_t a_u32Entry,
                   OsResourceEntry* a_posresourceentry) const;
    bool LoadFooter(OsResourceTrailer* a_posresourcetrailer);
    bool FindResource(const OsResourceTrailer& a_osresourcetrailer, const char* a_szResourceName,
                      OsResourceEntry* a_posresourceentry);
    bool LoadResource(const OsResourceEntry& a_osresourceentry);
    bool ReadAt(uint64_t a_u64Offset, void* a_pvBuffer, size_t a_sizetBytes) const;
    void Release();

    bool m_blInUse = false;
    bool m_blAbsent = false;
    PlatHandle m_plathandle = PLAT_INVALID;   // the file, while it is being opened
    uint64_t m_u64FileSize = 0;
    char16_t m_wszFileUsed[PLAT_PATHMAX] = {};
    std::unique_ptr<char[]> m_szData;
    size_t m_sizetData = 0;
};

// ----------------------------------------------------------------------------------------------- the public object

static bool Usable(const COsResourceImpl* a_posresourceimpl)
{
    if (!a_posresourceimpl)
        OSLOG(OS_LOG_CHECK, "m_posresourceimpl is null...");
    return a_posresourceimpl != nullptr;
}

COsResource::COsResource() : m_posresourceimpl(OSMEMNEW(COsResourceImpl)) {}

COsResource::~COsResource()
{
    OSMEMDELETE(m_posresourceimpl);
}

EOSSTS COsResource::Open(const char* a_szFilename, const char* a_szResourceName)
{
    if (!Usable(m_posresourceimpl))
        return EOSSTS_FAIL;
    return m_posresourceimpl->Open(a_szFilename, a_szResourceName);
}

bool COsResource::IsAbsent() const
{
    return m_posresourceimpl && m_posresourceimpl->IsAbsent();
}

const char* COsResource::Data() const
{
    return Usable(m_posresourceimpl) ? m_posresourceimpl->Data() : nullptr;
}

size_t COsResource::Size() const
{
    return Usable(m_posresourceimpl) ? m_posresourceimpl->Size() : 0;
}

// ------------------------------------------------------------------------------------------------------- the open

EOSSTS COsResourceImpl::Open(const char* a_szFilename, const char* a_szResourceName)
{
    OSLOG(OS_LOG_NOTE, "Open>>> <%s> <%s> %d", a_szFilename ? a_szFilename : "(null)",
          a_szResourceName ? a_szResourceName : "(null)", static_cast<int>(m_blInUse));
    if (!a_szResourceName)
    {
        OSLOG(OS_LOG_CHECK, "a_szResourceName is NULL...");
        return EOSSTS_FAIL;
    }
    if (m_blInUse)
    {
        OSLOG(OS_LOG_CHECK, "this osresource is already in use...");
        return EOSSTS_FAIL;
    }

    m_blAbsent = false;
    ScopeGuard releaseOnFailure([this] { Release(); });
    if (!FindFile(a_szFilename) || !LoadModule())
    {
        OSLOG(OS_LOG_ERROR, "LoadLibrary failed: %s", a_szFilename ? a_szFilename : "(null)");
        PlatSetLastError(PLAT_ERROR_NONE);
        return EOSSTS_FAIL;
    }
    OSLOG(OS_LOG_NOTE, OsWideFormat("Open>>> actual file used <%S>"), m_wszFileUsed);

    OsResourceTrailer osresourcetrailer;
    OsResourceEntry osresourceentry;
    if (!LoadFooter(&osresourcetrailer) || !FindResource(osresourcetrailer, a_szResourceName, &osresourceentry))
    {
        OSLOG(OS_LOG_NOTE, "FindResource failed...<%s>", a_szResourceName);
        return EOSSTS_NOSPACE;
    }
    if (!LoadResource(osresourceentry))
    {
        OSLOG(OS_LOG_NOTE, "LoadResource failed...<%s>", a_szResourceName);
        return EOSSTS_NOSPACE;
    }

    releaseOnFailure.Dismiss();
    PlatClose(m_plathandle);
    m_plathandle = PLAT_INVALID;
    m_blInUse = true;
    return EOSSTS_SUCCESS;
}

// The local module is the one that contains this library. Only the program's own path can be too long for OS_PATHSIZE.
bool COsResourceImpl::FindFile(const char* a_szFilename)
{
    if (!a_szFilename)
        return false;
    char szModule[OS_PATHSIZE];
    if (!std::strcmp(a_szFilename, OS_RESOURCELOCAL))
    {
        OsArgumentsModulePath(szModule);
        if (!*szModule)
            return PlatProgramPath(m_wszFileUsed, PLAT_PATHMAX);
        a_szFilename = szModule;
    }
    return CopyStringFromUtf8(m_wszFileUsed, PLAT_PATHMAX, a_szFilename) != 0;
}

bool COsResourceImpl::OpenFile()
{
    m_plathandle = PlatFileOpen(m_wszFileUsed, PLAT_ACCESS_READ, PLAT_SHARE_READ | PLAT_SHARE_WRITE | PLAT_SHARE_DELETE,
                                PLAT_DISPOSITION_OPENEXISTING, 0);
    return m_plathandle != PLAT_INVALID && PlatFileSize(m_plathandle, &m_u64FileSize);
}

// Checks the signature at the start of the file.
bool COsResourceImpl::LoadModule()
{
    static constexpr char g_szModule[] = {0x7F, 'E', 'L', 'F'};
    char szBegin[sizeof g_szModule];
    return OpenFile() && ReadAt(0, szBegin, sizeof szBegin) && !std::memcmp(szBegin, g_szModule, sizeof szBegin);
}

bool COsResourceImpl::LoadResource(const OsResourceEntry& a_osresourceentry)
{
    const auto sizetData = static_cast<size_t>(a_osresourceentry.u64Size);
    m_szData.reset(new (std::nothrow) char[sizetData + 1]);
    if (!m_szData || !ReadAt(a_osresourceentry.u64Offset, m_szData.get(), sizetData))
        return false;
    m_szData[sizetData] = 0;
    m_sizetData = sizetData;
    return true;
}

void COsResourceImpl::Release()
{
    if (m_plathandle != PLAT_INVALID)
        PlatClose(m_plathandle);
    m_plathandle = PLAT_INVALID;
    m_szData.reset();
    m_sizetData = 0;
    m_blInUse = false;
}

// ----------------------------------------------------------------------------------------------------- the footer

// Reads all bytes; false if fewer are available.
bool COsResourceImpl::ReadAt(uint64_t a_u64Offset, void* a_pvBuffer, size_t a_sizetBytes) const
{
    size_t sizetTotal = 0;
    if (!PlatFileSeek(m_plathandle, PLAT_SEEK_START, static_cast<int64_t>(a_u64Offset), nullptr))
        return false;
    while (sizetTotal < a_sizetBytes)
    {
        size_t sizetRead = 0;
        if (!PlatFileRead(m_plathandle, static_cast<char*>(a_pvBuffer) + sizetTotal, a_sizetBytes - sizetTotal,
                          &sizetRead) ||
            sizetRead == 0)
            return false;
        sizetTotal += sizetRead;
    }
    return true;
}

bool COsResourceImpl::ReadTrailer(OsResourceTrailer* a_posresourcetrailer) const
{
    return m_u64FileSize >= sizeof *a_posresourcetrailer &&
           ReadAt(m_u64FileSize - sizeof *a_posresourcetrailer, a_posresourcetrailer, sizeof *a_posresourcetrailer);
}

// False also for an invalid entry.
bool COsResourceImpl::ReadEntry(const OsResourceTrailer& a_osresourcetrailer, uint32_t a_u32Entry,
                                OsResourceEntry* a_posresourceentry) const
{
    return ReadAt(a_osresourcetrailer.u64Table + a_u32Entry * sizeof *a_posresourceentry, a_posresourceentry,
                  sizeof *a_posresourceentry) &&
           OsResourceIsSound(*a_posresourceentry, a_osresourcetrailer);
}

bool COsResourceImpl::LoadFooter(OsResourceTrailer* a_posresourcetrailer)
{
    char szFile[OS_PATHSIZE * 3];
    CopyStringToUtf8(szFile, sizeof szFile, m_wszFileUsed, SIZE_MAX);
    OSLOG(OS_LOG_NOTE, "LoadFooter>>> Open...<%s> %p %016llX", szFile, static_cast<const void*>(this),
          static_cast<unsigned long long>(m_plathandle));
    if (!ReadTrailer(a_posresourcetrailer))
        return false;
    m_blAbsent = !OsResourceIsSound(*a_posresourcetrailer, m_u64FileSize);
    return !m_blAbsent;
}

bool COsResourceImpl::FindResource(const OsResourceTrailer& a_osresourcetrailer, const char* a_szResourceName,
                                   OsResourceEntry* a_posresourceentry)
{
    for (uint32_t u32 = 0; u32 < a_osresourcetrailer.u32Count; ++u32)
    {
        if (!ReadEntry(a_osresourcetrailer, u32, a_posresourceentry))
            return false;
        OSLOG(OS_LOG_NOTE, "searching...%02d <%s> <%s>", static_cast<int>(u32), a_posresourceentry->szName,
              a_szResourceName);
        if (!std::strcmp(a_posresourceentry->szName, a_szResourceName))
            return true;
    }
    m_blAbsent = true;
    return false;
}

bool COsResourceImpl::IsIntact(const char* a_szFilename)
{
    OsResourceTrailer osresourcetrailer;
    if (!FindFile(a_szFilename) || !OpenFile() || !ReadTrailer(&osresourcetrailer) ||
        std::memcmp(osresourcetrailer.szMagic, OS_RESOURCEMAGIC, sizeof OS_RESOURCEMAGIC) != 0)
        return true;
    if (!OsResourceIsSound(osresourcetrailer, m_u64FileSize))
        return false;
    OsResourceEntry osresourceentry;
    for (uint32_t u32 = 0; u32 < osresourcetrailer.u32Count; ++u32)
    {
        if (!ReadEntry(osresourcetrailer, u32, &osresourceentry))
            return false;
    }
    return true;
}

bool OsResourceIsIntact(const char* a_szFilename)
{
    return COsResourceImpl().IsIntact(a_szFilename);
}

// ----------------------------------------------------------------------------------------------- the local module

// Null when the object cannot be made. A missing resource is no failure here.
static COsResource* OpenLocal(const char* a_szResourceName)
{
    COsResource* posresource = OSMEMNEW(COsResource);
    if (!posresource || !posresource->IsUsable())
    {
        OSLOG(OS_LOG_ERROR, "alloc for COsResource failed...");
        OSMEMDELETE(posresource);
        return nullptr;
    }
    if (posresource->Open(OS_RESOURCELOCAL, a_szResourceName) != EOSSTS_SUCCESS)
        OSLOG(OS_LOG_NOTE, "Resource %s not found", a_szResourceName ? a_szResourceName : "(null)");
    return posresource;
}

COsResource* OsResourceGetLocal(const char* a_szResourceName)
{
    COsResource* posresource = OpenLocal(a_szResourceName);
    if (posresource && !posresource->Data())
        OSMEMDELETE(posresource);
    return posresource;
}

namespace
{
struct Text
{
    char szName[OS_RESOURCENAMESIZE];
    const char* szText;   // null if the module has no such text
};
}   // namespace

static uint64_t g_u64TextLock;
static Text g_atext[OS_RESOURCECOUNT];   // the texts are never freed: callers keep the pointers
static size_t g_sizetTexts;

static const Text* FindText(const char* a_szName)
{
    for (size_t sizet = 0; sizet < g_sizetTexts; ++sizet)
    {
        if (!std::strcmp(g_atext[sizet].szName, a_szName))
            return &g_atext[sizet];
    }
    return nullptr;
}

// Null when the module has no such text (*a_pblAbsent is true) or it cannot be read now.
static std::unique_ptr<char[]> LoadText(const char* a_szName, bool* a_pblAbsent)
{
    std::unique_ptr<char[]> szText;
    COsResource* posresource = OpenLocal(a_szName);
    *a_pblAbsent = posresource && posresource->IsAbsent();
    if (posresource && posresource->Data())
        szText.reset(new (std::nothrow) char[posresource->Size() + 1]);
    if (szText)
        std::memcpy(szText.get(), posresource->Data(), posresource->Size() + 1);
    OSMEMDELETE(posresource);
    return szText;
}

// No lock is held during loading, because it logs, and the logger calls this function. If two threads load the same
// text, the first one stored is kept.
const char* OsResourceText(const char* a_szName)
{
    if (!a_szName || std::strlen(a_szName) >= OS_RESOURCENAMESIZE)
        return nullptr;
    {
        const COsSpinGuard guard(&g_u64TextLock);
        if (const Text* const ptext = FindText(a_szName))
            return ptext->szText;
    }
    bool blAbsent = false;
    std::unique_ptr<char[]> szText = LoadText(a_szName, &blAbsent);
    if (!szText && !blAbsent)
        return nullptr;   // the next call retries

    const COsSpinGuard guard(&g_u64TextLock);
    if (const Text* const ptext = FindText(a_szName))
        return ptext->szText;
    if (g_sizetTexts == OS_RESOURCECOUNT)
        return nullptr;
    Text& text = g_atext[g_sizetTexts++];
    std::memcpy(text.szName, a_szName, std::strlen(a_szName) + 1);
    text.szText = szText.release();
    return text.szText;
}
