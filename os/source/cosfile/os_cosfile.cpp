// os_cosfile.cpp: the public file object, which checks and forwards, and the mapping of system errors to statuses.
//
// os_cosfile_impl.cpp implements the object; os_cosfile_monitor.cpp watches files; os_cosfile_whole.cpp reads and
// writes whole files; os_cospath.cpp handles the text of paths; os_cosfile_system.cpp, _create, _delete and _name
// operate on files and folders by path.
#include "os_cosfile.h"

#include "os_cosfile_impl.h"
#include "os_new.h"

static constexpr char g_szSource[] = "os/source/os_cosfile";

EOSSTS OsFileStatus(uint32_t a_u32Error)
{
    switch (a_u32Error)
    {
    case PLAT_ERROR_FILENOTFOUND:
    case PLAT_ERROR_PATHNOTFOUND:
        return EOSSTS_NOTFOUND;
    case PLAT_ERROR_ACCESSDENIED:
        return EOSSTS_ACCESSDENIED;
    case PLAT_ERROR_SHARING:
        return EOSSTS_SHARING;
    case PLAT_ERROR_CANNOTMAKE:
        return EOSSTS_CANNOTCREATE;
    default:
        return EOSSTS_FAIL;
    }
}

static bool Usable(const COsFileImpl* a_posfileimpl)
{
    if (!a_posfileimpl)
        OSLOG(OS_LOG_ERROR, "m_posfileimpl is null...");
    return a_posfileimpl != nullptr;
}

COsFile::COsFile() : m_posfileimpl(OSMEMNEW(COsFileImpl))
{
    if (!m_posfileimpl)
        OSLOG(OS_LOG_CHECK, "Nope nope nope...");
}

COsFile::~COsFile()
{
    OSMEMDELETE(m_posfileimpl);
}

EOSSTS COsFile::Open(const char* a_szFilename, EOSFILEOPEN a_eosfileopen, EOSFILEACCESS a_eosfileaccess,
                     EOSFILESHARE a_eosfileshare, bool a_blRedirectionOff, EOSFILEGUARD a_eosfileguard)
{
    if (!Usable(m_posfileimpl))
        return EOSSTS_FAIL;
    return m_posfileimpl->Open(a_szFilename, a_eosfileopen, a_eosfileaccess, a_eosfileshare, a_blRedirectionOff,
                               a_eosfileguard);
}

EOSSTS COsFile::Close()
{
    return Usable(m_posfileimpl) ? m_posfileimpl->Close() : EOSSTS_FAIL;
}

EOSSTS COsFile::Flush()
{
    return Usable(m_posfileimpl) ? m_posfileimpl->Flush() : EOSSTS_FAIL;
}

EOSSTS COsFile::Read(void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetRead)
{
    return Usable(m_posfileimpl) ? m_posfileimpl->Read(a_pvBuffer, a_sizetBytes, a_psizetRead) : EOSSTS_FAIL;
}

EOSSTS COsFile::Write(const void* a_pvBuffer, size_t a_sizetBytes)
{
    return Usable(m_posfileimpl) ? m_posfileimpl->Write(a_pvBuffer, a_sizetBytes, false) : EOSSTS_FAIL;
}

EOSSTS COsFile::Append(const void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetWritten)
{
    return Usable(m_posfileimpl) ? m_posfileimpl->Write(a_pvBuffer, a_sizetBytes, true, a_psizetWritten) : EOSSTS_FAIL;
}

int COsFile::Printf(const char* a_szFormat, ...)
{
    va_list valist;
    va_start(valist, a_szFormat);
    const int iWritten = VPrintf(a_szFormat, valist);
    va_end(valist);
    return iWritten;
}

int COsFile::VPrintf(const char* a_szFormat, va_list a_valist)
{
    return Usable(m_posfileimpl) ? m_posfileimpl->VPrintf(a_szFormat, a_valist) : -1;
}

EOSSTS COsFile::Seek(EOSFILESEEK a_eosfileseek, int64_t a_i64Offset)
{
    return Usable(m_posfileimpl) ? m_posfileimpl->Seek(a_eosfileseek, a_i64Offset) : EOSSTS_FAIL;
}

EOSSTS COsFile::GetSize(uint64_t* a_pu64Size)
{
    return Usable(m_posfileimpl) ? m_posfileimpl->GetSize(a_pu64Size) : EOSSTS_FAIL;
}

EOSSTS COsFile::SetEndOfFile()
{
    return Usable(m_posfileimpl) ? m_posfileimpl->SetEndOfFile() : EOSSTS_FAIL;
}

EOSSTS COsFile::Lock(uint32_t a_u32Offset, uint32_t a_u32Length, int32_t a_i32Timeout, const char* a_szName,
                     bool a_blReport, bool a_blTestOnly)
{
    if (!Usable(m_posfileimpl))
        return EOSSTS_FAIL;
    return m_posfileimpl->Lock(a_u32Offset, a_u32Length, a_i32Timeout, a_szName, a_blReport, a_blTestOnly);
}

EOSSTS COsFile::Unlock(uint32_t a_u32Offset, uint32_t a_u32Length)
{
    return Usable(m_posfileimpl) ? m_posfileimpl->Unlock(a_u32Offset, a_u32Length) : EOSSTS_FAIL;
}

EOSSTS COsFile::LockByte(uint32_t a_u32Offset, int32_t a_i32Timeout, const char* a_szName, bool a_blReport)
{
    return Lock(a_u32Offset, 1, a_i32Timeout, a_szName, a_blReport, false);
}

EOSSTS COsFile::UnlockByte(uint32_t a_u32Offset)
{
    return Unlock(a_u32Offset, 1);
}

const char* COsFile::GetName() const
{
    return Usable(m_posfileimpl) ? m_posfileimpl->GetName() : nullptr;
}

bool COsFile::HasName() const
{
    return Usable(m_posfileimpl) && m_posfileimpl->HasName();
}

bool COsFile::IsNamed() const
{
    return Usable(m_posfileimpl) && m_posfileimpl->IsNamed();
}

bool COsFile::GetIdentity(OsFileIdentity* a_posfileidentity) const
{
    return Usable(m_posfileimpl) && m_posfileimpl->GetIdentity(a_posfileidentity);
}

bool COsFile::GetOwner(PlatFileOwned* a_pplatfileowned) const
{
    return Usable(m_posfileimpl) && m_posfileimpl->GetOwner(a_pplatfileowned);
}

void COsFile::TakeLibrary(PlatHandle a_plathandle, bool a_blLoaded, bool a_blDrain)
{
    if (Usable(m_posfileimpl))
        m_posfileimpl->TakeLibrary(a_plathandle, a_blLoaded, a_blDrain);
}

void COsFile::TakeBuffer(void* a_pvBuffer)
{
    if (Usable(m_posfileimpl))
        m_posfileimpl->TakeBuffer(a_pvBuffer);
}

EOSSTS COsFile::MonitorStart(const char* a_szPath, const char* a_szName, uint32_t a_u32Mask,
                             OsFileMonitorProc a_osfilemonitorproc, void* a_pvContext)
{
    if (!Usable(m_posfileimpl))
        return EOSSTS_FAIL;
    return m_posfileimpl->MonitorStart(this, a_szPath, a_szName, a_u32Mask, a_osfilemonitorproc, a_pvContext);
}

void COsFile::MonitorStop()
{
    if (Usable(m_posfileimpl))
        m_posfileimpl->MonitorStop();
}

const OsFileMonitorState& COsFile::MonitorState() const
{
    return Usable(m_posfileimpl) ? m_posfileimpl->MonitorState() : OS_FILEMONITORSTATE_NONE;
}
