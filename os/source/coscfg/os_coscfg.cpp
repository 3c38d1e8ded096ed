// os_coscfg.cpp: the public object, then the construction of the implementation. The sources of the class are listed
// in os_coscfg_impl.h.
#include "os_coscfg.h"

#include "os_coscfg_impl.h"

#include "os_cosstring.h"
#include "os_costhread.h"
#include "os_log.h"
#include "os_new.h"

#include "plat_process.h"

static constexpr char g_szSource[] = "os/source/os_coscfg";

// ------------------------------------------------------------------------------------------------ the public object

static std::atomic<COsCfg*> g_poscfg{nullptr};

COsCfg* OsCfgGet()
{
    return g_poscfg.load(std::memory_order_acquire);
}

static bool Usable(const COsCfgImpl* a_poscfgimpl)
{
    if (!a_poscfgimpl)
        OSLOG(OS_LOG_CHECK, "null impl...");
    return a_poscfgimpl != nullptr;
}

COsCfg::COsCfg(const CreateArgs& a_createargs) : m_poscfgimpl(nullptr)
{
    g_poscfg.store(this, std::memory_order_release);
    g_poscfgsource.store(this, std::memory_order_release);
    g_poscfgservice.store(this, std::memory_order_release);

    m_poscfgimpl = OSMEMNEW(COsCfgImpl, a_createargs);
    if (!m_poscfgimpl)
    {
        OSLOG(OS_LOG_CHECK, "allocation failed...");
        return;
    }
    try
    {
        m_poscfgimpl->Load();
        if (!a_createargs.blManageLater)
            m_poscfgimpl->StartManagement();
    }
    catch (const std::bad_alloc&)
    {
        OSLOG(OS_LOG_CHECK, "allocation failed...");
        m_poscfgimpl->StopManagement();
        OSMEMDELETE(m_poscfgimpl);
    }
}

// Stops the management thread first, because it reads the configuration; then unpublishes the configuration before its
// texts are freed.
COsCfg::~COsCfg()
{
    if (m_poscfgimpl)
        m_poscfgimpl->StopManagement();

    COsCfgSource* poscfgsource = this;
    g_poscfgsource.compare_exchange_strong(poscfgsource, nullptr);
    COsCfgService* poscfgservice = this;
    g_poscfgservice.compare_exchange_strong(poscfgservice, nullptr);
    COsCfg* poscfg = this;
    g_poscfg.compare_exchange_strong(poscfg, nullptr);

    OSMEMDELETE(m_poscfgimpl);
}

const char* COsCfg::GetString(EOSCFGSECTION a_eoscfgsection, EOSCFGTAG a_eoscfgtag)
{
    return Usable(m_poscfgimpl) ? m_poscfgimpl->m_oscfgtable.Get(a_eoscfgsection, a_eoscfgtag) : "";
}

const char* COsCfg::InfoGetString(EOSCFGINFO a_eoscfginfo)
{
    return OsCfgInfoString(a_eoscfginfo);
}

int64_t COsCfg::InfoGetLong(EOSCFGINFO a_eoscfginfo)
{
    return OsCfgInfoLong(a_eoscfginfo);
}

EOSSTS COsCfg::GetPath(EOSPATH a_eospath, char* a_szPath, size_t a_sizetPath)
{
    if (Usable(m_poscfgimpl))
        return OsCfgResolvePath(a_eospath, a_szPath, a_sizetPath);
    if (a_szPath && a_sizetPath)
        *a_szPath = 0;
    return EOSSTS_FAIL;
}

void COsCfg::ManageLogDirectories(const char* a_szLogFolder, const COsThread* a_posthread)
{
    if (Usable(m_poscfgimpl))
        m_poscfgimpl->ManageLogDirectories(a_szLogFolder, a_posthread);
}

EOSSTS COsCfg::SetString(EOSCFGSECTION, EOSCFGTAG a_eoscfgtag, const char* a_szValue)
{
    if (!Usable(m_poscfgimpl))
        return EOSSTS_FAIL;
    return m_poscfgimpl->m_oscfgtable.Set(OS_CFGSECTION_DSIDENTITY, a_eoscfgtag, a_szValue);
}

void COsCfg::StartManagement()
{
    if (Usable(m_poscfgimpl))
        m_poscfgimpl->StartManagement();
}

bool COsCfg::HasLogDirectory() const
{
    return Usable(m_poscfgimpl) && m_poscfgimpl->m_blLogDirectory;
}

EOSSTS COsCfg::WriteReport()
{
    return Usable(m_poscfgimpl) ? m_poscfgimpl->WriteReport() : EOSSTS_FAIL;
}

// --------------------------------------------------------------------------------- construction of the implementation

COsCfgImpl::COsCfgImpl(const COsCfg::CreateArgs& a_createargs)
    : m_eoscfgentity(a_createargs.eoscfgentity), m_blForceSetAccess(a_createargs.blForceSetAccess)
{
    SStrCpy(m_szFudge, sizeof m_szFudge, a_createargs.szUniqueName);
    for (size_t sizet = 0; sizet < OS_CFGVERSIONS; ++sizet)
        SStrCpy(m_aszVersion[sizet], sizeof m_aszVersion[sizet], a_createargs.aszVersion[sizet]);
    SStrCpy(m_szApplication, sizeof m_szApplication, a_createargs.szProgram);
    OsCfgResolvePath(OS_PATH_READABLE_FILE_MAINPROGRAM, m_szMainProgram, sizeof m_szMainProgram);

    // Time-outs must not expire while the program is stepped through in a debugger.
    const bool blDebugged = PlatProcessIsDebugged();
    SStrCpy(m_szLogDebug, sizeof m_szLogDebug, "0");
    SStrCpy(m_szDebugDisplayLength, sizeof m_szDebugDisplayLength, "512");
    SStrCpy(m_szForceUsbMonitorTimeout, sizeof m_szForceUsbMonitorTimeout, blDebugged ? "99999" : "10");
    SStrCpy(m_szUiTimeout, sizeof m_szUiTimeout, blDebugged ? "99999" : "0");

    if (m_oscfgtable.Register(a_createargs.aoscfgextensionSection, a_createargs.aoscfgextensionTag) != EOSSTS_SUCCESS)
        OSLOG(OS_LOG_CHECK, "extension tables refused...");
}

COsCfgImpl::~COsCfgImpl()
{
    StopManagement();
}

void COsCfgImpl::StopManagement()
{
    OSMEMDELETE(m_posthreadManage);
}
