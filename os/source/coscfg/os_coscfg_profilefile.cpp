// os_coscfg_profilefile.cpp: the file of a profile: opening and locking, reading, writing.
//
// Calls the platform layer directly, because that does not log. Callers have checked that the path converts.
#include "os_coscfg_profilefile.h"

#include "os_cosfile_system.h"
#include "os_cospath.h"

#include "plat_system.h"
#include "plat_wait.h"

#include <cstring>
#include <new>
#include <optional>

namespace
{
// ---------------------------------------------------------------------------------------------- opening and locking

constexpr uint32_t g_u32LockPatience = 2000;   // milliseconds
constexpr uint32_t g_u32ReadWrite = PLAT_ACCESS_READ | PLAT_ACCESS_WRITE;

// A path in the system's form, used with the redirection off.
class SystemPath
{
public:
    explicit SystemPath(const char* a_szPath) : m_osredirectionguard(true)
    {
        if (!OsPathToSystem(m_wszPath, OS_WIDEPATHSIZE, a_szPath))
            m_wszPath[0] = 0;
    }
    const char16_t* Get() const { return m_wszPath; }

private:
    char16_t m_wszPath[OS_WIDEPATHSIZE];
    const OsRedirectionGuard m_osredirectionguard;
};

// An open file, closed with the object.
class ProfileHandle
{
public:
    ProfileHandle() = default;
    ~ProfileHandle() { Close(); }
    ProfileHandle(const ProfileHandle&) = delete;
    ProfileHandle& operator=(const ProfileHandle&) = delete;

    // False with the last error.
    bool Open(const char* a_szPath, uint32_t a_u32Access, PlatDisposition a_platdisposition);

    // Waits up to 2 s for the lock. True also on a file system without locks.
    bool Lock();

    PlatHandle Get() const { return m_plathandle; }

private:
    void Close();

    PlatHandle m_plathandle = PLAT_INVALID;
    bool m_blLocked = false;
};

bool ProfileHandle::Open(const char* a_szPath, uint32_t a_u32Access, PlatDisposition a_platdisposition)
{
    m_plathandle = PlatFileOpen(SystemPath(a_szPath).Get(), a_u32Access,
                                PLAT_SHARE_READ | PLAT_SHARE_WRITE | PLAT_SHARE_DELETE, a_platdisposition, 0);
    return m_plathandle != PLAT_INVALID;
}

bool ProfileHandle::Lock()
{
    const uint64_t u64End = PlatTicks() + g_u32LockPatience;
    while (!m_blLocked)
    {
        m_blLocked = PlatFileLock(m_plathandle, OS_PROFILELOCK, 1);
        if (m_blLocked || PlatGetLastError() != PLAT_ERROR_LOCK)
            return true;
        if (PlatTicks() >= u64End)
            return false;
        PlatSleep(1);
    }
    return true;
}

// Unlocks before closing: a child process that is just being started still has copies of all handles.
void ProfileHandle::Close()
{
    if (m_plathandle == PLAT_INVALID)
        return;
    if (m_blLocked)
        PlatFileUnlock(m_plathandle, OS_PROFILELOCK, 1);
    PlatClose(m_plathandle);
}

OsCfgProfileState StateOfFailedOpen()
{
    const uint32_t u32Error = PlatGetLastError();
    PlatSetLastError(PLAT_ERROR_NONE);
    const bool blMissing = u32Error == PLAT_ERROR_FILENOTFOUND || u32Error == PLAT_ERROR_PATHNOTFOUND;
    return blMissing ? OsCfgProfileState::Missing : OsCfgProfileState::Unreadable;
}

// Catches std::bad_alloc: the platform layer allocates for paths.
template <class Result, class Operation>
Result WithoutThrowing(Result a_resultFailed, Operation a_operation)
{
    try
    {
        return a_operation();
    }
    catch (const std::bad_alloc&)
    {
        PlatSetLastError(PLAT_ERROR_NONE);
        return a_resultFailed;
    }
}

// ----------------------------------------------------------------------------------------------------------- reading

bool Read(PlatHandle a_plathandle, OsCfgProfileImage* a_poscfgprofileimage)
{
    char(&achFile)[OS_PROFILESIZE + 1] = a_poscfgprofileimage->achFile;
    size_t sizetFile = 0;
    for (size_t sizetRead = 1; sizetRead != 0 && sizetFile < sizeof achFile; sizetFile += sizetRead)
    {
        if (!PlatFileRead(a_plathandle, achFile + sizetFile, sizeof achFile - sizetFile, &sizetRead))
            return false;
    }
    a_poscfgprofileimage->sizetFile = sizetFile;
    return PlatFileGetIdentity(a_plathandle, &a_poscfgprofileimage->platfileidentity);
}
OsCfgProfileState Load(const char* a_szPath, OsCfgProfileImage* a_poscfgprofileimage)
{
    ProfileHandle profilehandle;
    a_poscfgprofileimage->blReadOnly = !profilehandle.Open(a_szPath, g_u32ReadWrite, PLAT_DISPOSITION_OPENEXISTING);
    if (a_poscfgprofileimage->blReadOnly &&
        !profilehandle.Open(a_szPath, PLAT_ACCESS_READ, PLAT_DISPOSITION_OPENEXISTING))
        return StateOfFailedOpen();
    PlatSetLastError(PLAT_ERROR_NONE);
    const bool blRead = profilehandle.Lock() && Read(profilehandle.Get(), a_poscfgprofileimage);
    return blRead ? OsCfgProfileState::Current : OsCfgProfileState::Unreadable;
}

OsCfgProfileState Identify(const char* a_szPath, PlatFileIdentity* a_pplatfileidentity)
{
    ProfileHandle profilehandle;
    if (!profilehandle.Open(a_szPath, PLAT_ACCESS_READ, PLAT_DISPOSITION_OPENEXISTING))
        return StateOfFailedOpen();
    return PlatFileGetIdentity(profilehandle.Get(), a_pplatfileidentity) ? OsCfgProfileState::Current
                                                                         : OsCfgProfileState::Unreadable;
}
}   // namespace

OsCfgProfileState OsCfgProfileLoad(const char* a_szPath, OsCfgProfileImage* a_poscfgprofileimage)
{
    return WithoutThrowing(OsCfgProfileState::Unreadable, [=] { return Load(a_szPath, a_poscfgprofileimage); });
}

OsCfgProfileState OsCfgProfileIdentify(const char* a_szPath, PlatFileIdentity* a_pplatfileidentity)
{
    return WithoutThrowing(OsCfgProfileState::Unreadable, [=] { return Identify(a_szPath, a_pplatfileidentity); });
}

// FNV-1a.
uint64_t OsCfgProfileDigest(const char* a_achFile, size_t a_sizetFile)
{
    uint64_t u64Digest = 14695981039346656037u;
    for (size_t sizet = 0; sizet < a_sizetFile; ++sizet)
        u64Digest = (u64Digest ^ static_cast<unsigned char>(a_achFile[sizet])) * 1099511628211u;
    return u64Digest;
}

// ----------------------------------------------------------------------------------------------------------- writing

namespace
{
struct ProfileText
{
    const char* szPath;
    const char* achText;
    size_t sizetText;
};

// Writes the new text before truncating, so that a full disk does not leave an empty file.
bool WriteInPlace(PlatHandle a_plathandle, const ProfileText& a_profiletext)
{
    return PlatFileSeek(a_plathandle, PLAT_SEEK_START, 0, nullptr) &&
           PlatFileWrite(a_plathandle, a_profiletext.achText, a_profiletext.sizetText, nullptr) &&
           PlatFileSetEnd(a_plathandle);
}

// Empty result when the path no longer names the open file; the caller retries.
std::optional<OsCfgProfileWritten> Write(PlatHandle a_plathandle, const ProfileText& a_profiletext)
{
    const SystemPath systempath(a_profiletext.szPath);
    if (PlatFileReplace(a_plathandle, systempath.Get(), a_profiletext.achText, a_profiletext.sizetText))
        return OsCfgProfileWritten::Written;
    const uint32_t u32Error = PlatGetLastError();
    PlatSetLastError(PLAT_ERROR_NONE);
    if (u32Error == PLAT_ERROR_FILENOTFOUND)
        return std::nullopt;
    const bool blInPlace = u32Error == PLAT_ERROR_ACCESSDENIED || u32Error == PLAT_ERROR_SHARING;
    return blInPlace && WriteInPlace(a_plathandle, a_profiletext) ? OsCfgProfileWritten::Written
                                                                  : OsCfgProfileWritten::CannotWrite;
}

// Reads the file again and writes only if its content is unchanged. Empty result when the path no longer names the open
// file.
std::optional<OsCfgProfileWritten> WriteIfUnchanged(ProfileHandle& a_profilehandle, const ProfileText& a_profiletext,
                                                    uint64_t a_u64Digest)
{
    OsCfgProfileImage oscfgprofileimage;
    if (!a_profilehandle.Lock())
        return OsCfgProfileWritten::CannotOpen;
    if (!Read(a_profilehandle.Get(), &oscfgprofileimage))
        return OsCfgProfileWritten::CannotRead;
    if (oscfgprofileimage.platfileidentity.u32Links == 0)
        return std::nullopt;
    const size_t sizetFile = oscfgprofileimage.sizetFile;
    if (sizetFile == a_profiletext.sizetText &&
        std::memcmp(oscfgprofileimage.achFile, a_profiletext.achText, sizetFile) == 0)
        return OsCfgProfileWritten::Same;
    if (OsCfgProfileDigest(oscfgprofileimage.achFile, sizetFile) != a_u64Digest)
        return OsCfgProfileWritten::Changed;
    return Write(a_profilehandle.Get(), a_profiletext);
}

// Creates a missing file with its content in one step, where the system supports that.
bool CreateWhole(const ProfileText& a_profiletext)
{
    const SystemPath systempath(a_profiletext.szPath);
    return PlatFileCreateWhole(systempath.Get(), a_profiletext.achText, a_profiletext.sizetText);
}

std::optional<OsCfgProfileWritten> StoreOnce(const ProfileText& a_profiletext, uint64_t a_u64Digest)
{
    ProfileHandle profilehandle;
    if (profilehandle.Open(a_profiletext.szPath, g_u32ReadWrite, PLAT_DISPOSITION_OPENEXISTING))
        return WriteIfUnchanged(profilehandle, a_profiletext, a_u64Digest);
    if (StateOfFailedOpen() != OsCfgProfileState::Missing)
        return OsCfgProfileWritten::CannotOpen;
    if (CreateWhole(a_profiletext))
        return OsCfgProfileWritten::Written;
    if (!profilehandle.Open(a_profiletext.szPath, g_u32ReadWrite, PLAT_DISPOSITION_OPENALWAYS))
        return OsCfgProfileWritten::CannotOpen;
    return WriteIfUnchanged(profilehandle, a_profiletext, OsCfgProfileDigest(nullptr, 0));
}

OsCfgProfileWritten Store(const ProfileText& a_profiletext, uint64_t a_u64Digest)
{
    static constexpr int g_iTries = 100;   // each retry means that another writer came first
    for (int iTry = 0; iTry < g_iTries; ++iTry)
    {
        if (const auto oscfgprofilewritten = StoreOnce(a_profiletext, a_u64Digest))
        {
            PlatSetLastError(PLAT_ERROR_NONE);
            return *oscfgprofilewritten;
        }
    }
    return OsCfgProfileWritten::CannotOpen;
}
}   // namespace

OsCfgProfileWritten OsCfgProfileStore(const char* a_szPath, uint64_t a_u64Digest, const char* a_achText,
                                      size_t a_sizetText)
{
    return WithoutThrowing(OsCfgProfileWritten::CannotWrite, [=] {
        return Store({a_szPath, a_achText, a_sizetText}, a_u64Digest);
    });
}
