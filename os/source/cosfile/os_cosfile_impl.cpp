// os_cosfile_impl.cpp: implements the file object. From top to bottom: opening, reading and writing, position and size,
// byte locks, library and buffer owned by the object.
#include "os_cosfile_impl.h"

#include "os_cosfile_system.h"
#include "os_cosmem.h"
#include "os_cosstring.h"

#include "plat_wait.h"

#include <algorithm>
#include <bit>
#include <cstring>

static constexpr char g_szSource[] = "os/source/os_cosfile";

namespace
{
constexpr int32_t g_i32LockStep = 100;       // ms between two tries
constexpr size_t g_sizetFormatRoom = 1024;   // extra bytes beyond the formatted length
constexpr int g_iDrainAttempts = 10;

// The platform layer's value for an open mode or an access, and the number that the failure message prints.
struct OpenRow
{
    PlatDisposition platdisposition;
    uint32_t u32Flags;
    uint32_t u32ShownFlags;
};
constexpr OpenRow g_aopenrow[] = {
    {PLAT_DISPOSITION_CREATEALWAYS, 0, 0x80},
    {PLAT_DISPOSITION_OPENEXISTING, 0, 0x80},
    {PLAT_DISPOSITION_OPENALWAYS, 0, 0x80},
    {PLAT_DISPOSITION_CREATEALWAYS, PLAT_OPEN_DELETEONCLOSE, 0x80 | 0x04000000},
    {PLAT_DISPOSITION_OPENEXISTING, PLAT_OPEN_FOLDER, 0x02000000},
    {PLAT_DISPOSITION_OPENALWAYS, PLAT_OPEN_OWNWRITE, 0x80},
};

struct AccessRow
{
    uint32_t u32Access;
    uint32_t u32ShownAccess;
};
constexpr AccessRow g_aaccessrow[] = {
    {PLAT_ACCESS_READ, 0x80000000},
    {PLAT_ACCESS_WRITE, 0x40000000},
    {PLAT_ACCESS_READ | PLAT_ACCESS_WRITE, 0xC0000000},
    {PLAT_ACCESS_NONE, 0},
};

constexpr uint32_t g_au32Share[] = {
    PLAT_SHARE_NONE,
    PLAT_SHARE_READ,
    PLAT_SHARE_WRITE,
    PLAT_SHARE_READ | PLAT_SHARE_WRITE,
};

constexpr uint32_t g_au32Guard[] = {0, PLAT_OPEN_NOLINK, PLAT_OPEN_NOLINKS, PLAT_OPEN_OWNFOLDER};

bool IsInTable(uint32_t a_u32Value, size_t a_sizetRows)
{
    return a_u32Value >= 1 && a_u32Value <= a_sizetRows;
}
}   // namespace

COsFileImpl::~COsFileImpl()
{
    MonitorStop();
    Close();
    ReleaseLibrary();
    ReleaseBuffer();
}

// The fault in the arguments of an open, or null.
static const char* OpenFault(const char* a_szFilename, EOSFILEOPEN a_eosfileopen, EOSFILEACCESS a_eosfileaccess,
                             EOSFILESHARE a_eosfileshare, EOSFILEGUARD a_eosfileguard)
{
    if (!a_szFilename)
        return "a_szFilename is null...";
    if (!IsInTable(a_eosfileopen, std::size(g_aopenrow)))
        return "a_eosfileopen is bad...";
    if (!IsInTable(a_eosfileaccess, std::size(g_aaccessrow)))
        return "a_eosfileaccess is bad...";
    if (!IsInTable(a_eosfileshare, std::size(g_au32Share)))
        return "a_eosfileshare is bad...";
    if (a_eosfileguard >= std::size(g_au32Guard))
        return "a_eosfileguard is bad...";
    return nullptr;
}

bool COsFileImpl::RememberName(const char* a_szFilename)
{
    m_wszFilename[0] = u'\0';
    SStrCpy(m_szFilename, sizeof m_szFilename, a_szFilename);
    const bool blWhole = m_szFilename[0] != '\0' || a_szFilename[0] == '\0';
    return blWhole && OsPathToSystem(m_wszFilename, std::size(m_wszFilename), a_szFilename);
}

EOSSTS COsFileImpl::Open(const char* a_szFilename, EOSFILEOPEN a_eosfileopen, EOSFILEACCESS a_eosfileaccess,
                         EOSFILESHARE a_eosfileshare, bool a_blRedirectionOff, EOSFILEGUARD a_eosfileguard)
{
    if (const char* const szFault =
            OpenFault(a_szFilename, a_eosfileopen, a_eosfileaccess, a_eosfileshare, a_eosfileguard))
    {
        OSLOG(OS_LOG_ERROR, "%s", szFault);
        return EOSSTS_NOTOPEN;
    }
    Close();
    if (!RememberName(a_szFilename))
        return EOSSTS_FAIL;

    const OpenRow& openrow = g_aopenrow[a_eosfileopen - 1];
    const AccessRow& accessrow = g_aaccessrow[a_eosfileaccess - 1];
    const uint32_t u32Share = g_au32Share[a_eosfileshare - 1];
    {
        const OsRedirectionGuard osredirectionguard(a_blRedirectionOff);
        m_plathandleFile = PlatFileOpen(m_wszFilename, accessrow.u32Access, u32Share, openrow.platdisposition,
                                        openrow.u32Flags | g_au32Guard[a_eosfileguard]);
    }
    if (IsOpen())
        return EOSSTS_SUCCESS;

    const EOSSTS eossts = OsFileStatus(PlatGetLastError());
    OSLOG(OS_LOG_NOTE, "CreateFileW failed...%d 0x%x 0x%x 0x%x 0x%x <%s>", static_cast<int>(eossts),
          accessrow.u32ShownAccess, u32Share, static_cast<unsigned>(openrow.platdisposition), openrow.u32ShownFlags,
          m_szFilename);
    PlatSetLastError(PLAT_ERROR_NONE);
    return eossts;
}

EOSSTS COsFileImpl::Close()
{
    if (IsOpen())
        PlatClose(m_plathandleFile);
    m_plathandleFile = PLAT_INVALID;
    for (LockSlot& lockslot : m_alockslot)
        lockslot.blHeld = false;
    return EOSSTS_SUCCESS;
}

bool COsFileImpl::CheckOpen(uint32_t a_u32Level) const
{
    if (!IsOpen())
        OSLOG(a_u32Level, "Need to open a file first...");
    return IsOpen();
}

EOSSTS COsFileImpl::Flush()
{
    if (!CheckOpen())
        return EOSSTS_NOTOPEN;
    return PlatFileFlush(m_plathandleFile) ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}

EOSSTS COsFileImpl::Read(void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetRead)
{
    if (a_psizetRead)
        *a_psizetRead = 0;
    if (!a_pvBuffer)
    {
        OSLOG(OS_LOG_ERROR, "a_pBuffer is NULL...");
        return EOSSTS_NOTOPEN;
    }
    if (!CheckOpen())
        return EOSSTS_NOTOPEN;

    size_t sizetRead = 0;
    if (!PlatFileRead(m_plathandleFile, a_pvBuffer, a_sizetBytes, &sizetRead))
        return EOSSTS_FAIL;
    if (a_psizetRead)
        *a_psizetRead = sizetRead;
    return EOSSTS_SUCCESS;
}

EOSSTS COsFileImpl::Write(const void* a_pvBuffer, size_t a_sizetBytes, bool a_blAppend, size_t* a_psizetWritten)
{
    if (a_psizetWritten)
        *a_psizetWritten = 0;
    if (!a_pvBuffer)
    {
        OSLOG(OS_LOG_ERROR, "a_pBuffer is NULL...");
        return EOSSTS_NOTOPEN;
    }
    if (!CheckOpen())
        return EOSSTS_NOTOPEN;
    const bool blWritten = a_blAppend ? PlatFileAppend(m_plathandleFile, a_pvBuffer, a_sizetBytes, a_psizetWritten)
                                      : PlatFileWrite(m_plathandleFile, a_pvBuffer, a_sizetBytes, a_psizetWritten);
    return blWritten ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}

int COsFileImpl::VPrintf(const char* a_szFormat, va_list a_valist)
{
    if (!a_szFormat || !a_szFormat[0])
    {
        OSLOG(OS_LOG_ERROR, "a_szFormat is null or empty...");
        return -1;
    }
    if (!a_valist)
    {
        OSLOG(OS_LOG_ERROR, "a_valist is null...");
        return -1;
    }
    if (!CheckOpen())
        return -1;

    va_list valistLength;
    va_copy(valistLength, a_valist);
    const int iLength = StrVcprintf(a_szFormat, valistLength);
    va_end(valistLength);
    if (iLength < 0)
        return -1;

    const size_t sizetText = static_cast<size_t>(iLength) + g_sizetFormatRoom;
    char* const szText = static_cast<char*>(OSMEMALLOC(sizetText, OS_MEMFLAG_BLOCK));
    if (!szText)
    {
        OSLOG(OS_LOG_ERROR, "OsMemAlloc failed...");
        return -1;
    }
    const int iWritten = WriteFormatted(szText, sizetText, a_szFormat, a_valist);
    OSMEMFREE(szText, OS_MEMFLAG_BLOCK);
    return iWritten;
}

int COsFileImpl::WriteFormatted(char* a_szText, size_t a_sizetText, const char* a_szFormat, va_list a_valist)
{
    if (SStrVprintf(a_szText, a_sizetText, a_szFormat, a_valist) < 0)
        return -1;
    // A "%c" of 0 can end the text before its formatted length.
    const size_t sizetLength = strlen(a_szText);
    if (sizetLength == 0 || Write(a_szText, sizetLength, false) != EOSSTS_SUCCESS)
        return -1;
    return static_cast<int>(sizetLength);
}

EOSSTS COsFileImpl::Seek(EOSFILESEEK a_eosfileseek, int64_t a_i64Offset)
{
    if (!CheckOpen())
        return EOSSTS_NOTOPEN;

    static_assert(static_cast<uint32_t>(PLAT_SEEK_START) == OS_FILESEEK_START &&
                  static_cast<uint32_t>(PLAT_SEEK_CURRENT) == OS_FILESEEK_CURRENT &&
                  static_cast<uint32_t>(PLAT_SEEK_END) == OS_FILESEEK_END);
    if (a_eosfileseek < OS_FILESEEK_START || a_eosfileseek > OS_FILESEEK_END)
        return EOSSTS_SUCCESS;
    uint64_t u64Position;
    const bool blMoved =
        PlatFileSeek(m_plathandleFile, static_cast<PlatSeek>(a_eosfileseek), a_i64Offset, &u64Position);
    return blMoved ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}

EOSSTS COsFileImpl::GetSize(uint64_t* a_pu64Size)
{
    if (!a_pu64Size)
    {
        OSLOG(OS_LOG_ERROR, "a_psizetBytes is null...");
        return EOSSTS_FAIL;
    }
    if (!CheckOpen())
        return EOSSTS_NOTOPEN;
    return PlatFileSize(m_plathandleFile, a_pu64Size) ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}

EOSSTS COsFileImpl::SetEndOfFile()
{
    if (!CheckOpen())
        return EOSSTS_NOTOPEN;
    return PlatFileSetEnd(m_plathandleFile) ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}

// The slot of the range; with length 0, a free slot. Null when there is none.
COsFileImpl::LockSlot* COsFileImpl::FindSlot(uint64_t a_u64Offset, uint64_t a_u64Length)
{
    LockSlot* const plockslot =
        std::find_if(std::begin(m_alockslot), std::end(m_alockslot), [&](const LockSlot& lockslot) {
            return lockslot.u64Length == a_u64Length && (a_u64Length == 0 || lockslot.u64Offset == a_u64Offset);
        });
    return plockslot == std::end(m_alockslot) ? nullptr : plockslot;
}

// True when this object already holds a part of the range: the system would not report that.
bool COsFileImpl::Overlaps(uint64_t a_u64Offset, uint64_t a_u64Length) const
{
    return std::any_of(std::begin(m_alockslot), std::end(m_alockslot), [&](const LockSlot& lockslot) {
        return lockslot.blHeld && lockslot.u64Offset < a_u64Offset + a_u64Length &&
               a_u64Offset < lockslot.u64Offset + lockslot.u64Length;
    });
}

// Tries at once, and again every 100 ms while more than 100 ms remain. Fails at once if this object holds a part of the
// range: only the caller could release it.
bool COsFileImpl::LockWithin(uint32_t a_u32Offset, uint32_t a_u32Length, int32_t a_i32Timeout) const
{
    if (Overlaps(a_u32Offset, a_u32Length))
        return false;
    int32_t i32Remaining = std::max(a_i32Timeout, g_i32LockStep);
    while (!PlatFileLock(m_plathandleFile, a_u32Offset, a_u32Length))
    {
        if (i32Remaining > g_i32LockStep)
            PlatSleep(g_i32LockStep);
        i32Remaining -= g_i32LockStep;
        if (i32Remaining <= 0)
            return false;
    }
    return true;
}

EOSSTS COsFileImpl::Lock(uint32_t a_u32Offset, uint32_t a_u32Length, int32_t a_i32Timeout, const char* a_szName,
                         bool a_blReport, bool a_blTestOnly)
{
    if (!CheckOpen())
        return EOSSTS_FAIL;
    if (a_u32Length == 0)
    {
        OSLOG(OS_LOG_ERROR, "a_sizetRegion must be greater than zero...");
        return EOSSTS_FAIL;
    }
    if (FindSlot(a_u32Offset, a_u32Length))
        return EOSSTS_SUCCESS;
    LockSlot* const plockslot = FindSlot(0, 0);
    if (!plockslot)
    {
        OSLOG(OS_LOG_ERROR, "lock slots are all full...");
        return EOSSTS_FAIL;
    }

    if (!LockWithin(a_u32Offset, a_u32Length, a_i32Timeout))
    {
        if (a_blReport)
            OSLOG(OS_LOG_NOTE, "File is already locked...<%s>", a_szName ? a_szName : "(not specified)");
        return EOSSTS_BUSY;
    }
    if (a_blTestOnly)
        PlatFileUnlock(m_plathandleFile, a_u32Offset, a_u32Length);
    *plockslot = a_blTestOnly ? LockSlot{} : LockSlot{a_u32Offset, a_u32Length, true};
    return EOSSTS_SUCCESS;
}

EOSSTS COsFileImpl::Unlock(uint32_t a_u32Offset, uint32_t a_u32Length)
{
    if (!CheckOpen(OS_LOG_NOTE))
        return EOSSTS_FAIL;
    if (a_u32Length == 0)
    {
        OSLOG(OS_LOG_ERROR, "a_sizetRegion must be greater than zero...");
        return EOSSTS_FAIL;
    }
    if (LockSlot* const plockslot = FindSlot(a_u32Offset, a_u32Length))
    {
        if (plockslot->blHeld)
            PlatFileUnlock(m_plathandleFile, a_u32Offset, a_u32Length);
        *plockslot = {};
    }
    return EOSSTS_SUCCESS;
}

const char* COsFileImpl::GetName() const
{
    if (IsOpen())
        return m_szFilename;
    OSLOG(OS_LOG_ERROR, "file must be open to get the name...");
    return nullptr;
}

bool COsFileImpl::HasName() const
{
    PlatFileIdentity platfileidentity;
    return CheckOpen() && PlatFileGetIdentity(m_plathandleFile, &platfileidentity) && platfileidentity.u32Links > 0;
}

bool COsFileImpl::IsNamed() const
{
    return IsOpen() && PlatFileIsNamed(m_plathandleFile, m_wszFilename);
}

bool COsFileImpl::GetIdentity(OsFileIdentity* a_posfileidentity) const
{
    PlatFileIdentity platfileidentity;
    if (!IsOpen() || !PlatFileGetIdentity(m_plathandleFile, &platfileidentity))
        return false;
    *a_posfileidentity = {platfileidentity.u64Volume, platfileidentity.u64Index};
    return true;
}

bool COsFileImpl::GetOwner(PlatFileOwned* a_pplatfileowned) const
{
    return IsOpen() && PlatFileOwner(m_plathandleFile, a_pplatfileowned);
}

void COsFileImpl::TakeLibrary(PlatHandle a_plathandle, bool a_blLoaded, bool a_blDrain)
{
    ReleaseLibrary();
    m_plathandleLibrary = a_plathandle;
    m_blLibraryLoaded = a_blLoaded;
    m_blLibraryDrain = a_blDrain;
}

void COsFileImpl::ReleaseLibrary()
{
    if (m_plathandleLibrary == PLAT_INVALID)
        return;
    OSLOG(OS_LOG_NOTE, "SharedLibrary: free %p (%d) (%d)", std::bit_cast<const void*>(m_plathandleLibrary),
          static_cast<int>(m_blLibraryLoaded), static_cast<int>(m_blLibraryDrain));
    if (m_blLibraryLoaded)
    {
        PlatModuleFree(m_plathandleLibrary);
        for (int iAttempt = 2; m_blLibraryDrain && iAttempt <= g_iDrainAttempts; ++iAttempt)
        {
            if (!PlatModuleIsLoaded(m_plathandleLibrary))
                break;
            OSLOG(OS_LOG_NOTE, "SharedLibrary: draining %d of 10 attempts", iAttempt);
            PlatModuleFree(m_plathandleLibrary);
        }
    }
    m_plathandleLibrary = PLAT_INVALID;
    m_blLibraryLoaded = false;
    m_blLibraryDrain = false;
}

void COsFileImpl::TakeBuffer(void* a_pvBuffer)
{
    ReleaseBuffer();
    m_pvBuffer = a_pvBuffer;
}

// Without the memory manager the block cannot be freed any more.
void COsFileImpl::ReleaseBuffer()
{
    if (m_pvBuffer && OsMemExists())
        OSMEMFREE(m_pvBuffer, OS_MEMFLAG_BLOCK);
    m_pvBuffer = nullptr;
}
