// os_cosmem_map.cpp: maps and releases views of shared memory.
//
// Shared memory is named by a file. The file is the memory itself, or, in the page-file modes, contains a link text
// with the creator's process id and its handle of the memory. An opener follows what it finds in the file, whatever its
// own mode is.
//
// In order: file lengths, the link text, releasing, the mapper that builds a view step by step.
#include "os_cosmem_impl.h"

#include "os_coslocale.h"
#include "os_cosstring.h"
#include "os_cosxml.h"
#include "os_log.h"

#include "plat_file.h"
#include "plat_memory.h"
#include "plat_process.h"

#include <charconv>
#include <cstring>
#include <iterator>

static constexpr char g_szSource[] = "os/source/os_cosmem";

// ------------------------------------------------------------------------------------------------- lengths of files

// The file length for so many bytes: rounded up to the system's granularity; 0 when there is no such length.
static uint64_t FileLengthFor(uint64_t a_u64Bytes)
{
    const uint64_t u64Step = PlatMemoryGranularity();
    if (a_u64Bytes > INT64_MAX - u64Step)
        return 0;
    return (a_u64Bytes + u64Step - 1) / u64Step * u64Step;
}

static bool SetFileLength(PlatHandle a_plathandle, uint64_t a_u64Length)
{
    if (a_u64Length > INT64_MAX ||
        !PlatFileSeek(a_plathandle, PLAT_SEEK_START, static_cast<int64_t>(a_u64Length), nullptr))
    {
        OSLOG(OS_LOG_CHECK, "mem>>> SetFilePointerEx failed...%llu", static_cast<unsigned long long>(a_u64Length));
        return false;
    }
    if (!PlatFileSetEnd(a_plathandle))
    {
        OSLOG(OS_LOG_CHECK, "mem>>> SetEndOfFile failed...");
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------------------------------- the link text

static constexpr char g_szLinkBegin[] = "<osmem>";
static constexpr char g_szLinkFormat[] =
    "<osmem>\n\t<pid>%llx</pid>\t<maphandle>%p</maphandle>\n<maxsize>%llu</maxsize></osmem>\n";
static constexpr size_t g_sizetLink = 512;
static constexpr size_t g_sizetLinkValue = 64;

// One value of the link, as text and as a number.
struct OsMemLinkValue
{
    const char* szName;
    const char* szOpenTag;
    const char* szCloseTag;
    int iBase;
    char szText[g_sizetLinkValue];
    uint64_t u64Value;
};

struct OsMemLink
{
    OsMemLinkValue pid = {"pid", "<pid>", "</pid>", 16, "", 0};
    OsMemLinkValue maphandle = {"maphandle", "<maphandle>", "</maphandle>", 16, "", 0};
    OsMemLinkValue maxsize = {"maxsize", "<maxsize>", "</maxsize>", 10, "", 0};
};

// The whole text must be a number: any process may have written the file.
static bool ParseLinkValue(OsMemLinkValue* a_posmemlinkvalue, const char* a_szName, const char* a_szLink)
{
    if (!OsXmlExtract(a_szLink, a_posmemlinkvalue->szOpenTag, a_posmemlinkvalue->szCloseTag, a_posmemlinkvalue->szText,
                      sizeof a_posmemlinkvalue->szText, false))
    {
        OSLOG(OS_LOG_CHECK, "mem>>> failed to find the %s...<%s> <%s>", a_posmemlinkvalue->szName, a_szName, a_szLink);
        return false;
    }
    const char* const szText = a_posmemlinkvalue->szText;
    const char* const szEnd = szText + std::strlen(szText);
    const auto [szStopped, errc] =
        std::from_chars(szText, szEnd, a_posmemlinkvalue->u64Value, a_posmemlinkvalue->iBase);
    if (errc != std::errc{} || szStopped != szEnd || szStopped == szText)
    {
        OSLOG(OS_LOG_CHECK, "mem>>> failed to convert %s...<%s> <%s>", a_posmemlinkvalue->szName, a_szName, szText);
        return false;
    }
    return true;
}

// -------------------------------------------------------------------------------------------------------- releasing

static void ReleaseFile(const OsMemRecord& a_osmemrecord)
{
    // If another process has extended the file meanwhile, its length must not be changed.
    uint64_t u64Length = 0;
    const PlatHandle plathandle = a_osmemrecord.plathandleFile;
    const bool blCut = (a_osmemrecord.u32Traits & OS_MEMTRAIT_GROWN) && PlatFileSize(plathandle, &u64Length) &&
                       u64Length == FileLengthFor(a_osmemrecord.u64Size);
    if (blCut)
        SetFileLength(plathandle, a_osmemrecord.u64Size);
    if (!(a_osmemrecord.u32Traits & (OS_MEMTRAIT_READONLY | OS_MEMTRAIT_TEMPORARY)))
        PlatFileFlush(plathandle);
    PlatClose(plathandle);
}

void OsMemReleaseMapping(const OsMemRecord& a_osmemrecord)
{
    void* const pvView = a_osmemrecord.pvAddress;
    const size_t sizetView = static_cast<size_t>(a_osmemrecord.u64View);
    const bool blFlush = !(a_osmemrecord.u32Traits & (OS_MEMTRAIT_READONLY | OS_MEMTRAIT_TEMPORARY));
    if (pvView && blFlush && !PlatMappingFlush(pvView, sizetView))
        OSLOG(OS_LOG_CHECK, "mem>>> FlushViewOfFile failed...<%s>", a_osmemrecord.szName);
    if (pvView && !PlatMappingRelease(pvView, sizetView))
        OSLOG(OS_LOG_CHECK, "mem>>> UnmapViewOfFile failed...");
    if (a_osmemrecord.plathandleMapping)
        PlatClose(a_osmemrecord.plathandleMapping);
    if (a_osmemrecord.plathandleFile)
        ReleaseFile(a_osmemrecord);
}

// ------------------------------------------------------------------------------------------------------- the mapper

static constexpr uint32_t g_u32ReadWrite = PLAT_ACCESS_READ | PLAT_ACCESS_WRITE;

// Builds the record of a view. Its destructor releases what it has acquired, unless the record was handed over.
class OsMemMapper
{
public:
    explicit OsMemMapper(const OsMemSharedRequest& a_osmemsharedrequest);
    ~OsMemMapper();
    OsMemMapper(const OsMemMapper&) = delete;
    OsMemMapper& operator=(const OsMemMapper&) = delete;

    bool Map(bool a_blFileBacked);
    void HandOver(OsMemRecord* a_posmemrecord);

private:
    bool TakeName();
    bool ClearFile();
    bool OpenFile();
    bool LockFile();
    bool SizeFile();
    bool MakeLink();
    bool LookIntoFile();
    bool FollowLink(const char* a_szLink);
    bool MeasureFile();
    bool MapView();

    const OsMemSharedRequest& m_osmemsharedrequest;
    const bool m_blCreate;
    const bool m_blReadOnly;
    bool m_blExisted = true;
    uint64_t m_u64FileLength = 0;   // as found
    uint64_t m_u64Available = 0;    // bytes that can be mapped
    char16_t m_wszName[OS_PATHSIZE] = {};
    OsMemRecord m_osmemrecord = {};
};

OsMemMapper::OsMemMapper(const OsMemSharedRequest& a_osmemsharedrequest)
    : m_osmemsharedrequest(a_osmemsharedrequest),
      m_blCreate(a_osmemsharedrequest.eossharedalloc != OS_SHAREDALLOC_OPEN),
      m_blReadOnly(!m_blCreate && (a_osmemsharedrequest.u32Flags & OS_SHAREDFLAG_READONLY))
{
    m_osmemrecord.u32Method = OS_MEMTYPE_MEMORYMAP;
    m_osmemrecord.u32Traits = (m_blReadOnly ? OS_MEMTRAIT_READONLY : 0) | (m_blCreate ? OS_MEMTRAIT_TEMPORARY : 0);
}

// A file that was extended for a view that failed gets its old length back.
OsMemMapper::~OsMemMapper()
{
    if (m_osmemrecord.u32Traits & OS_MEMTRAIT_GROWN)
    {
        m_osmemrecord.u32Traits &= ~OS_MEMTRAIT_GROWN;
        SetFileLength(m_osmemrecord.plathandleFile, m_u64FileLength);
    }
    OsMemReleaseMapping(m_osmemrecord);
}

bool OsMemMapper::Map(bool a_blFileBacked)
{
    if (!TakeName() || !OpenFile() || !LockFile())
        return false;
    if (m_blCreate)
    {
        const int64_t i64View = m_osmemsharedrequest.i64View;
        m_osmemrecord.u64Size =
            m_osmemsharedrequest.u64Bytes ? m_osmemsharedrequest.u64Bytes : static_cast<uint64_t>(i64View);
        if (!(a_blFileBacked ? SizeFile() : MakeLink()))
            return false;
    }
    else if (!LookIntoFile())
        return false;
    return MapView();
}

void OsMemMapper::HandOver(OsMemRecord* a_posmemrecord)
{
    *a_posmemrecord = m_osmemrecord;
    m_osmemrecord = {};
}

bool OsMemMapper::TakeName()
{
    const EOSSHAREDLOCK eossharedlock = m_osmemsharedrequest.eossharedlock;
    if (eossharedlock > OS_SHAREDLOCK_LOCKIFNEW)
    {
        OSLOG(OS_LOG_CHECK, "mem>>> Unrecognized a_eossharedlock...<%d>", static_cast<int>(eossharedlock));
        return false;
    }
    SStrCpy(m_osmemrecord.szName, sizeof m_osmemrecord.szName, m_osmemsharedrequest.szName);
    const bool blWhole = m_osmemrecord.szName[0] != '\0' || m_osmemsharedrequest.szName[0] == '\0';
    return blWhole && CopyStringFromUtf8(m_wszName, std::size(m_wszName), m_osmemrecord.szName) != 0;
}

// Truncates the file, but not while it is in use: truncating a file that another process has mapped would crash that
// process. Only an exclusive open may truncate, and links are not followed.
bool OsMemMapper::ClearFile()
{
    PlatFileInfo platfileinfo;
    m_blExisted = PlatFileGetInfo(m_wszName, &platfileinfo);
    const PlatHandle plathandle = PlatFileOpen(m_wszName, g_u32ReadWrite, PLAT_SHARE_NONE,
                                               PLAT_DISPOSITION_CREATEALWAYS, PLAT_OPEN_DELETEONCLOSE);
    return plathandle != PLAT_INVALID && PlatClose(plathandle);
}

bool OsMemMapper::OpenFile()
{
    const uint32_t u32Share = (m_osmemsharedrequest.u32Flags & OS_SHAREDFLAG_EXCLUSIVE)
                                  ? PLAT_SHARE_NONE
                                  : PLAT_SHARE_READ | PLAT_SHARE_WRITE | PLAT_SHARE_DELETE;
    const uint32_t u32Flags = m_blCreate ? PLAT_OPEN_DELETEONCLOSE : 0;
    const PlatDisposition platdisposition = m_blCreate ? PLAT_DISPOSITION_OPENALWAYS : PLAT_DISPOSITION_OPENEXISTING;
    const auto open = [&](uint32_t a_u32Access) {
        return PlatFileOpen(m_wszName, a_u32Access, u32Share, platdisposition, u32Flags);
    };
    PlatHandle plathandle = PLAT_INVALID;
    if (!m_blCreate || ClearFile())
        plathandle = open(m_blReadOnly ? PLAT_ACCESS_READ : g_u32ReadWrite);
    if (plathandle == PLAT_INVALID && m_blReadOnly && PlatGetLastError() == PLAT_ERROR_SHARING)
        plathandle = open(g_u32ReadWrite);
    if (plathandle == PLAT_INVALID)
    {
        OSLOG(OS_LOG_ERROR, "mem>>> CreateFile failed...<%s> %d", m_osmemrecord.szName,
              static_cast<int>(m_blCreate ? PLAT_DISPOSITION_CREATEALWAYS : PLAT_DISPOSITION_OPENEXISTING));
        return false;
    }
    m_osmemrecord.plathandleFile = plathandle;
    return true;
}

bool OsMemMapper::LockFile()
{
    const EOSSHAREDLOCK eossharedlock = m_osmemsharedrequest.eossharedlock;
    if (eossharedlock == OS_SHAREDLOCK_NONE || (eossharedlock == OS_SHAREDLOCK_LOCKIFNEW && m_blExisted))
        return true;
    if (!PlatFileLock(m_osmemrecord.plathandleFile, 0, 1))
    {
        OSLOG(OS_LOG_ERROR, "mem>>> LockFile failed...<%s>", m_osmemrecord.szName);
        return false;
    }
    m_osmemrecord.u32Lock = OS_MEMLOCK_HELD;
    return true;
}

bool OsMemMapper::SizeFile()
{
    const uint64_t u64Length = FileLengthFor(m_osmemrecord.u64Size);
    m_u64Available = u64Length;
    return SetFileLength(m_osmemrecord.plathandleFile, u64Length ? u64Length : UINT64_MAX);
}

// The text is written in one call, so that an opener finds all of it or an empty file.
bool OsMemMapper::MakeLink()
{
    const unsigned long long ullSize = m_osmemrecord.u64Size;
    const PlatHandle plathandle = PlatMemoryFileCreate(m_osmemrecord.u64Size);
    if (plathandle == PLAT_INVALID)
    {
        OSLOG(OS_LOG_CHECK, "mem>>> CreateFileMapping (pagefile) failed (size = %llu)...<%s>", ullSize,
              m_osmemrecord.szName);
        return false;
    }
    m_osmemrecord.plathandleMapping = plathandle;
    m_u64Available = m_osmemrecord.u64Size;

    char szLink[g_sizetLink];
    const int iLength = SStrPrintf(szLink, sizeof szLink, g_szLinkFormat,
                                   static_cast<unsigned long long>(PlatProcessId()), OsMemPointer(plathandle), ullSize);
    if (iLength < 0)
    {
        OSLOG(OS_LOG_CHECK, "mem>>> requested XML link is too large...<%s> %llu %d", m_osmemrecord.szName, ullSize,
              static_cast<int>(sizeof szLink));
        return false;
    }
    if (!PlatFileWrite(m_osmemrecord.plathandleFile, szLink, static_cast<size_t>(iLength), nullptr))
    {
        OSLOG(OS_LOG_ERROR, "mem>>> WriteFile failed...<%s>", m_osmemrecord.szName);
        return false;
    }
    return true;
}

// Determines whether an existing file is a link or the memory itself.
bool OsMemMapper::LookIntoFile()
{
    const PlatHandle plathandle = m_osmemrecord.plathandleFile;
    if (!PlatFileSize(plathandle, &m_u64FileLength) || m_u64FileLength == 0)
    {
        OSLOG(OS_LOG_CHECK, "mem>>> attempt to open a 0-length shared memory file...<%s>", m_osmemrecord.szName);
        return false;
    }
    char szLink[g_sizetLink] = "";
    size_t sizetRead = 0;
    if (!PlatFileRead(plathandle, szLink, sizeof szLink - 1, &sizetRead) || !StrStartsWith(szLink, g_szLinkBegin))
        return MeasureFile();
    if (m_u64FileLength >= sizeof szLink)
    {
        OSLOG(OS_LOG_CHECK, "XML link overflow...(got %llu, but only have %d)",
              static_cast<unsigned long long>(m_u64FileLength), static_cast<int>(sizeof szLink));
        return false;
    }
    return FollowLink(szLink);
}

bool OsMemMapper::FollowLink(const char* a_szLink)
{
    const char* const szName = m_osmemrecord.szName;
    OsMemLink osmemlink;
    if (!ParseLinkValue(&osmemlink.pid, szName, a_szLink) || !ParseLinkValue(&osmemlink.maphandle, szName, a_szLink) ||
        !ParseLinkValue(&osmemlink.maxsize, szName, a_szLink))
        return false;

    const PlatHandle plathandleProcess = PlatProcessOpen(osmemlink.pid.u64Value);
    if (plathandleProcess == PLAT_INVALID)
    {
        OSLOG(OS_LOG_CHECK, "mem>>> OpenProcess failed...<%s> <%s>", szName, osmemlink.pid.szText);
        return false;
    }
    const PlatHandle plathandle = PlatMemoryFileOpen(osmemlink.pid.u64Value, osmemlink.maphandle.u64Value);
    PlatClose(plathandleProcess);
    if (plathandle == PLAT_INVALID)
    {
        OSLOG(OS_LOG_CHECK, "mem>>> DuplicateHandle failed...<%s> <%s>", szName, osmemlink.maphandle.szText);
        return false;
    }
    m_osmemrecord.plathandleMapping = plathandle;
    m_osmemrecord.u64Size = m_osmemsharedrequest.u64Bytes ? m_osmemsharedrequest.u64Bytes : osmemlink.maxsize.u64Value;
    PlatFileSize(plathandle, &m_u64Available);   // the link may claim more than there is
    return true;
}

// The file is the memory. If it is shorter than requested it is extended, if it is writeable.
bool OsMemMapper::MeasureFile()
{
    const uint64_t u64Bytes = m_osmemsharedrequest.u64Bytes;
    m_osmemrecord.u64Size = u64Bytes ? u64Bytes : m_u64FileLength;
    m_u64Available = m_u64FileLength;
    if (u64Bytes <= m_u64FileLength)
        return true;
    const uint64_t u64Length = FileLengthFor(u64Bytes);
    if (m_blReadOnly || u64Length == 0 || !SetFileLength(m_osmemrecord.plathandleFile, u64Length))
    {
        OSLOG(OS_LOG_CHECK, "mem>>> CreateFileMapping failed...<%s>", m_osmemrecord.szName);
        return false;
    }
    m_osmemrecord.u32Traits |= OS_MEMTRAIT_GROWN;
    m_u64Available = u64Length;
    return true;
}

// Never maps beyond the end of the file: touching such a page would end the process.
bool OsMemMapper::MapView()
{
    const int64_t i64View = m_osmemsharedrequest.i64View;
    const uint64_t u64View = i64View > 0 ? static_cast<uint64_t>(i64View) : m_osmemrecord.u64Size;
    const PlatHandle plathandle =
        m_osmemrecord.plathandleMapping ? m_osmemrecord.plathandleMapping : m_osmemrecord.plathandleFile;
    size_t sizetView = static_cast<size_t>(u64View);
    void* const pvView =
        u64View != 0 && u64View <= m_u64Available ? PlatMappingView(plathandle, 0, !m_blReadOnly, &sizetView) : nullptr;
    if (!pvView)
    {
        OSLOG(OS_LOG_CHECK, "mem>>> MapViewOfFile failed...<%s> %llu %d", m_osmemrecord.szName,
              static_cast<unsigned long long>(m_osmemrecord.u64Size), static_cast<int>(i64View));
        return false;
    }
    m_osmemrecord.pvAddress = pvView;
    m_osmemrecord.u64View = sizetView;
    m_osmemrecord.u32View = static_cast<uint32_t>(sizetView);
    return true;
}

bool OsMemMap(const OsMemSharedRequest& a_osmemsharedrequest, bool a_blFileBacked, OsMemRecord* a_posmemrecord)
{
    OsMemMapper osmemmapper(a_osmemsharedrequest);
    if (!osmemmapper.Map(a_blFileBacked))
        return false;
    osmemmapper.HandOver(a_posmemrecord);
    return true;
}
