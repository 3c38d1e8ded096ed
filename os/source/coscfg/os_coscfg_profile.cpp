// os_coscfg_profile.cpp: the profile cache: any INI file by section and key. From top to bottom: log lines deferred
// until the lock is released, one cached file, the cache, the operations.
//
// os_coscfg_profiletext.cpp parses the text of a file, os_coscfg_profilefile.cpp reads and writes the file,
// os_coscfg_profilepath.cpp maps a request to a file.
#include "os_coscfg_impl.h"

#include "os_coscfg_profilefile.h"
#include "os_cosfile_system.h"
#include "os_cospath.h"
#include "os_cosstring.h"
#include "os_log.h"

#include "plat_system.h"

#include <array>
#include <cstring>
#include <mutex>

static constexpr char g_szSource[] = "os/source/os_coscfg";

namespace
{
// ------------------------------------------------------------------------------------------------------------- notes

// Nothing may log while the cache is locked, because the logger's header may read a profile. Log lines are collected
// here and written after the unlock.
class Notes
{
public:
    Notes() = default;
    ~Notes()
    {
        for (size_t sizet = 0; sizet < m_sizetNotes; ++sizet)
            OSLOG(m_anote[sizet].u32Level, m_anote[sizet].szFormat, m_anote[sizet].szPath);
    }
    Notes(const Notes&) = delete;
    Notes& operator=(const Notes&) = delete;

    // The format has one "%s".
    void Add(uint32_t a_u32Level, const char* a_szFormat, const char* a_szPath)
    {
        if (m_sizetNotes == m_anote.size())
            return;
        m_anote[m_sizetNotes] = {a_u32Level, a_szFormat, {}};
        SStrCpy(m_anote[m_sizetNotes++].szPath, OS_PATHSIZE, a_szPath);
    }

private:
    struct Note
    {
        uint32_t u32Level;
        const char* szFormat;
        char szPath[OS_PATHSIZE];
    };
    std::array<Note, 32> m_anote;   // some for each file, and those of the operation itself
    size_t m_sizetNotes = 0;
};

// ---------------------------------------------------------------------------------------------------------- one file

constexpr uint64_t g_u64Settled = 10'000'000;   // 100 ns units

class ProfileFile
{
public:
    const char* Path() const { return m_szPath; }
    bool IsDirty() const { return m_blDirty; }
    const OsCfgProfileText& Text() const { return m_oscfgprofiletext; }

    void Begin(const char* a_szPath);   // starts with an empty text; the file need not exist
    OsCfgProfileState Load(Notes* a_pnotes);
    OsCfgProfileState Look() const;   // stats the file without loading it

    EOSSTS Store(const char* a_szSection, const char* a_szKey, const char* a_szValue);

    // Writes the text to the file if it differs; *a_pblWritten tells whether a write was needed. EOSSTS_FAIL also when
    // the file has changed since it was loaded; the stored values are then dropped.
    EOSSTS WriteBack(Notes* a_pnotes, bool* a_pblWritten);

    // Logs that stored values were dropped because another process has changed the file.
    static void TellDropped(Notes* a_pnotes)
    {
        a_pnotes->Add(OS_LOG_CHECK, "we're reloading over a dirty profile...", "");
    }

private:
    void Forget();

    char m_szPath[OS_PATHSIZE] = {};
    bool m_blDirty = false;
    bool m_blSettled = false;
    PlatFileIdentity m_platfileidentity = {};
    uint64_t m_u64Digest = 0;   // of the file as it was loaded
    OsCfgProfileText m_oscfgprofiletext;
};

// Makes the next Look report a change.
void ProfileFile::Forget()
{
    m_blDirty = false;
    m_blSettled = false;
    m_platfileidentity = {};
}

void ProfileFile::Begin(const char* a_szPath)
{
    SStrCpy(m_szPath, sizeof m_szPath, a_szPath);
    Forget();
    m_u64Digest = OsCfgProfileDigest(nullptr, 0);
    m_oscfgprofiletext.Clear();
}

OsCfgProfileState ProfileFile::Load(Notes* a_pnotes)
{
    OsCfgProfileImage oscfgprofileimage;
    const OsCfgProfileState oscfgprofilestate = OsCfgProfileLoad(m_szPath, &oscfgprofileimage);
    if (oscfgprofilestate == OsCfgProfileState::Missing)
        return oscfgprofilestate;
    if (oscfgprofilestate != OsCfgProfileState::Current)
    {
        a_pnotes->Add(OS_LOG_ERROR, "ReadFile failed...<%s>", m_szPath);
        return oscfgprofilestate;
    }
    if (oscfgprofileimage.blReadOnly)
        a_pnotes->Add(OS_LOG_NOTE, "profile opened readonly...<%s>", m_szPath);
    // A recently written file can be written again within one tick of its time stamp, which would go unnoticed.
    m_platfileidentity = oscfgprofileimage.platfileidentity;
    m_blSettled = PlatClock() > m_platfileidentity.u64WriteTime + g_u64Settled;
    m_u64Digest = OsCfgProfileDigest(oscfgprofileimage.achFile, oscfgprofileimage.sizetFile);
    m_oscfgprofiletext.Take(oscfgprofileimage.achFile, oscfgprofileimage.sizetFile);
    return oscfgprofilestate;
}

OsCfgProfileState ProfileFile::Look() const
{
    PlatFileIdentity platfileidentity;
    const OsCfgProfileState oscfgprofilestate = OsCfgProfileIdentify(m_szPath, &platfileidentity);
    if (oscfgprofilestate != OsCfgProfileState::Current)
        return oscfgprofilestate;
    const bool blSame = platfileidentity.u64WriteTime == m_platfileidentity.u64WriteTime &&
                        platfileidentity.u64Size == m_platfileidentity.u64Size &&
                        platfileidentity.u64Index == m_platfileidentity.u64Index;
    return blSame && (m_blSettled || m_blDirty) ? OsCfgProfileState::Current : OsCfgProfileState::Changed;
}

EOSSTS ProfileFile::Store(const char* a_szSection, const char* a_szKey, const char* a_szValue)
{
    bool blChanged = false;
    const EOSSTS eossts = m_oscfgprofiletext.Store(a_szSection, a_szKey, a_szValue, &blChanged);
    m_blDirty = m_blDirty || blChanged;
    return eossts;
}

EOSSTS ProfileFile::WriteBack(Notes* a_pnotes, bool* a_pblWritten)
{
    *a_pblWritten = false;
    if (!m_blDirty)
        return EOSSTS_SUCCESS;
    const auto fail = [this, a_pnotes](const char* a_szFormat) {
        a_pnotes->Add(OS_LOG_NOTE, a_szFormat, m_szPath);
        return EOSSTS_FAIL;
    };
    char achText[OS_PROFILESIZE];
    const size_t sizetText = m_oscfgprofiletext.ToFile(achText);
    if (sizetText == SIZE_MAX)
        return fail("fail: read failed...<%s>");

    switch (OsCfgProfileStore(m_szPath, m_u64Digest, achText, sizetText))
    {
    case OsCfgProfileWritten::Written:
        *a_pblWritten = true;
        a_pnotes->Add(OS_LOG_NOTE, "profile successfully written...<%s>", m_szPath);
        break;
    case OsCfgProfileWritten::Same:
        break;
    case OsCfgProfileWritten::Changed:
        TellDropped(a_pnotes);
        Forget();
        return EOSSTS_FAIL;
    case OsCfgProfileWritten::CannotOpen:
        return fail("fail: open failed...<%s>");
    case OsCfgProfileWritten::CannotRead:
        return fail("fail: read failed...<%s>");
    case OsCfgProfileWritten::CannotWrite:
        return fail("fail: write failed...<%s>");
    }
    Forget();
    return EOSSTS_SUCCESS;
}

// --------------------------------------------------------------------------------------------------------- the cache

std::mutex g_mutexProfiles;   // guards the cached files and their count, also during file input and output
std::array<ProfileFile, 16> g_aprofilefile;
size_t g_sizetProfileFiles;   // in use, at the beginning of the array

// The locked cache; unlocks when destroyed.
class ProfileCache
{
public:
    ProfileCache() : m_guard(g_mutexProfiles) {}

    // The up-to-date file, null when it cannot be read. With a_blWrite the file need not exist.
    ProfileFile* Obtain(const char* a_szPath, bool a_blWrite);

    ProfileFile* Find(const char* a_szPath) const;
    EOSSTS WriteBack(ProfileFile* a_pprofilefile);
    void WriteBackAll();
    void Note(uint32_t a_u32Level, const char* a_szFormat, const char* a_szPath)
    {
        m_notes.Add(a_u32Level, a_szFormat, a_szPath);
    }

private:
    ProfileFile* Add(const char* a_szPath);
    static void Remove(ProfileFile* a_pprofilefile);
    ProfileFile* LoadOrRemove(ProfileFile* a_pprofilefile, bool a_blWrite);
    void WriteBackCompanion(const char* a_szPath);

    Notes m_notes;   // declared before the guard, so that they are logged after the unlock
    std::lock_guard<std::mutex> m_guard;
};

// Paths that differ only in case name the same file if the file system says so.
bool IsSameFile(const char* a_szLeft, const char* a_szRight)
{
    if (std::strcmp(a_szLeft, a_szRight) == 0)
        return true;
    PlatFileIdentity platfileidentityLeft;
    PlatFileIdentity platfileidentityRight;
    return StrICmp(a_szLeft, a_szRight) == 0 &&
           OsCfgProfileIdentify(a_szLeft, &platfileidentityLeft) == OsCfgProfileState::Current &&
           OsCfgProfileIdentify(a_szRight, &platfileidentityRight) == OsCfgProfileState::Current &&
           platfileidentityLeft.u64Volume == platfileidentityRight.u64Volume &&
           platfileidentityLeft.u64Index == platfileidentityRight.u64Index;
}

ProfileFile* ProfileCache::Find(const char* a_szPath) const
{
    for (size_t sizet = 0; sizet < g_sizetProfileFiles; ++sizet)
    {
        if (IsSameFile(g_aprofilefile[sizet].Path(), a_szPath))
            return &g_aprofilefile[sizet];
    }
    return nullptr;
}

ProfileFile* ProfileCache::Add(const char* a_szPath)
{
    if (g_sizetProfileFiles == g_aprofilefile.size())
    {
        WriteBackAll();
        g_sizetProfileFiles = 0;
    }
    ProfileFile* const pprofilefile = &g_aprofilefile[g_sizetProfileFiles++];
    pprofilefile->Begin(a_szPath);
    return pprofilefile;
}

void ProfileCache::Remove(ProfileFile* a_pprofilefile)
{
    ProfileFile* const pprofilefileLast = &g_aprofilefile[--g_sizetProfileFiles];
    if (a_pprofilefile != pprofilefileLast)
        *a_pprofilefile = *pprofilefileLast;
}

ProfileFile* ProfileCache::LoadOrRemove(ProfileFile* a_pprofilefile, bool a_blWrite)
{
    const OsCfgProfileState oscfgprofilestate = a_pprofilefile->Load(&m_notes);
    if (oscfgprofilestate == OsCfgProfileState::Current ||
        (a_blWrite && oscfgprofilestate == OsCfgProfileState::Missing))
        return a_pprofilefile;
    Remove(a_pprofilefile);
    return nullptr;
}

ProfileFile* ProfileCache::Obtain(const char* a_szPath, bool a_blWrite)
{
    ProfileFile* const pprofilefile = Find(a_szPath);
    if (!pprofilefile)
        return LoadOrRemove(Add(a_szPath), a_blWrite);

    switch (pprofilefile->Look())
    {
    case OsCfgProfileState::Changed:
        if (pprofilefile->IsDirty())
            ProfileFile::TellDropped(&m_notes);
        pprofilefile->Begin(a_szPath);
        return LoadOrRemove(pprofilefile, a_blWrite);
    case OsCfgProfileState::Missing:
        if (!pprofilefile->IsDirty())
            pprofilefile->Begin(a_szPath);
        return a_blWrite ? pprofilefile : nullptr;
    case OsCfgProfileState::Unreadable:
        return nullptr;
    case OsCfgProfileState::Current:
        break;
    }
    return pprofilefile;
}

EOSSTS ProfileCache::WriteBack(ProfileFile* a_pprofilefile)
{
    bool blWritten = false;
    const EOSSTS eossts = a_pprofilefile->WriteBack(&m_notes, &blWritten);
    if (blWritten && eossts == EOSSTS_SUCCESS)
        WriteBackCompanion(a_pprofilefile->Path());
    return eossts;
}

// Also writes the "_debug.ini" companion of a protected "_const.ini", in whichever folder it is.
void ProfileCache::WriteBackCompanion(const char* a_szPath)
{
    static constexpr char g_szConst[] = "_const.ini";
    if (!StrEndsWith(a_szPath, g_szConst, true))
        return;
    char szName[OS_PATHSIZE];
    const char* const szFileName = StrFileName(a_szPath);
    SStrCpy(szName, sizeof szName, szFileName == a_szPath ? a_szPath : szFileName - 1);
    SStrCpy(szName + std::strlen(szName) - (sizeof g_szConst - 1), sizeof g_szConst, "_debug.ini");
    for (size_t sizet = 0; sizet < g_sizetProfileFiles; ++sizet)
    {
        if (StrEndsWith(g_aprofilefile[sizet].Path(), szName, true))
            WriteBack(&g_aprofilefile[sizet]);
    }
}

void ProfileCache::WriteBackAll()
{
    for (size_t sizet = 0; sizet < g_sizetProfileFiles; ++sizet)
        WriteBack(&g_aprofilefile[sizet]);
}

// ----------------------------------------------------------------------------------------------------- the operations

bool CheckName(const char* a_szFile)
{
    if (std::strlen(a_szFile) < OS_PATHSIZE)
        return true;
    OSLOG(OS_LOG_CHECK, "buffer overflow...%u <%s>", static_cast<unsigned>(OS_PATHSIZE), a_szFile);
    return false;
}

EOSSTS ReadCached(const char* a_szPath, const char* a_szSection, const char* a_szKey, char* a_szValue,
                  size_t a_sizetValue)
{
    ProfileCache profilecache;
    const ProfileFile* const pprofilefile = profilecache.Obtain(a_szPath, false);
    const char* const szValue = pprofilefile ? pprofilefile->Text().Find(a_szSection, a_szKey) : nullptr;
    if (!szValue)
        return EOSSTS_FAIL;
    if (std::strlen(szValue) >= a_sizetValue)
        return EOSSTS_NOMEMORY;
    std::memcpy(a_szValue, szValue, std::strlen(szValue) + 1);
    return EOSSTS_SUCCESS;
}

bool IsOneLine(const char* a_szText)
{
    return a_szText && a_szText[std::strcspn(a_szText, "\r\n")] == 0;
}

// Refuses what could not be found again.
bool IsStorable(const char* a_szSection, const char* a_szKey, const char* a_szValue)
{
    const bool blKey = IsOneLine(a_szKey) && std::strlen(a_szKey) >= 2 && !std::strchr("[;@", *a_szKey);
    return blKey && !std::strchr(a_szKey, '=') && IsOneLine(a_szSection) && IsOneLine(a_szValue);
}
}   // namespace

EOSSTS OsCfgProfileRead(const char* a_szFile, const char* a_szSection, const char* a_szKey, char* a_szValue,
                        size_t a_sizetValue)
{
    if (a_szValue && a_sizetValue)
        *a_szValue = 0;
    if (!a_szFile || !a_szSection || !a_szKey || !a_szValue || !a_sizetValue)
    {
        OSLOG(OS_LOG_CHECK, "null argument...%p %d", static_cast<const void*>(a_szFile),
              static_cast<int>(a_sizetValue));
        return EOSSTS_FAIL;
    }
    char szPath[OS_PATHSIZE];
    if (!CheckName(a_szFile) ||
        OsCfgProfileResolve(a_szFile, a_szSection, a_szKey, szPath, sizeof szPath) != EOSSTS_SUCCESS)
        return EOSSTS_FAIL;
    if (!OsFileExists(szPath, true))
        return EOSSTS_NOTFOUND;

    const EOSSTS eossts = ReadCached(szPath, a_szSection, a_szKey, a_szValue, a_sizetValue);
    if (eossts == EOSSTS_NOMEMORY)
        OSLOG(OS_LOG_CHECK, "buffer overflow...%u <%s>", static_cast<unsigned>(a_sizetValue), a_szKey);
    return eossts;
}

EOSSTS OsCfgProfileWrite(const char* a_szFile, const char* a_szSection, const char* a_szKey, const char* a_szValue)
{
    if (!a_szFile || !*a_szFile || !IsStorable(a_szSection, a_szKey, a_szValue))
    {
        OSLOG(OS_LOG_CHECK, "bad argument...");
        return EOSSTS_NOTOPEN;
    }
    char szPath[OS_PATHSIZE];
    char16_t wszPath[OS_WIDEPATHSIZE];
    if (!CheckName(a_szFile) ||
        OsCfgProfileResolve(a_szFile, a_szSection, a_szKey, szPath, sizeof szPath) != EOSSTS_SUCCESS ||
        !OsPathToSystem(wszPath, OS_WIDEPATHSIZE, szPath))
        return EOSSTS_FAIL;

    ProfileCache profilecache;
    ProfileFile* const pprofilefile = profilecache.Obtain(szPath, true);
    return pprofilefile ? pprofilefile->Store(a_szSection, a_szKey, a_szValue) : EOSSTS_FAIL;
}

EOSSTS OsCfgProfileWriteBack(const char* a_szFile)
{
    const bool blAll = !a_szFile || !*a_szFile;
    OSLOG(OS_LOG_NOTE, "trying to write profile...<%s>", blAll ? "(all)" : a_szFile);
    if (blAll)
    {
        ProfileCache().WriteBackAll();
        return EOSSTS_SUCCESS;
    }
    char szPath[OS_PATHSIZE];
    char szMapped[OS_PATHSIZE];
    if (!CheckName(a_szFile) || OsCfgProfileMap(a_szFile, false, szMapped, sizeof szMapped) != EOSSTS_SUCCESS)
        return EOSSTS_FAIL;
    OsPathNormalize(szMapped);
    OsPathCopy(szPath, sizeof szPath, a_szFile);

    // A file is cached under the path that served its request: the mapped path, or the given one.
    ProfileCache profilecache;
    ProfileFile* const pprofilefileMapped = profilecache.Find(szMapped);
    ProfileFile* const pprofilefile = pprofilefileMapped ? pprofilefileMapped : profilecache.Find(szPath);
    if (pprofilefile)
        return profilecache.WriteBack(pprofilefile);
    profilecache.Note(OS_LOG_NOTE, "fail: file not found in our ini profile cache...<%s>", szPath);
    return EOSSTS_FAIL;
}
