// os_coscfg_profile_test.cpp: the profile cache: reading, storing and writing back, files that are no INI files, which
// file serves a request.
#include "allocation_support.h"
#include "coscfg_support.h"
#include "os_coscfg_profilefile.h"
#include "plat_child.h"

#include "plat_file.h"
#include "plat_watch.h"

#include <regex>

namespace fs = std::filesystem;

class Profile : public ConfigurationTest
{
protected:
    std::string Read(const std::string& a_strFile, const char* a_szSection, const char* a_szKey,
                     EOSSTS a_eosstsExpected = EOSSTS_SUCCESS) const
    {
        char szValue[9000] = "not cleared";
        EXPECT_EQ(OsCfgProfileRead(PathOf(a_strFile).c_str(), a_szSection, a_szKey, szValue, sizeof szValue),
                  a_eosstsExpected)
            << a_strFile << " " << a_szSection << " " << a_szKey;
        return szValue;
    }
    EOSSTS Store(const std::string& a_strFile, const char* a_szSection, const char* a_szKey, const char* a_szValue)
    {
        return OsCfgProfileWrite(PathOf(a_strFile).c_str(), a_szSection, a_szKey, a_szValue);
    }
    EOSSTS WriteBack(const std::string& a_strFile) { return OsCfgProfileWriteBack(PathOf(a_strFile).c_str()); }

    // As messages show it.
    std::string Shown(const std::string& a_strFile) const { return Backslashed(PathOf(a_strFile)); }
    LogCapture m_logcapture;
};

// ------------------------------------------------------------------------------------------------------------ reading

TEST_F(Profile, AValueIsFoundBySectionAndKey)
{
    WriteWhole(PathOf("setup.txt"), "\xEF\xBB\xBF[versions]\r\n;note\nCD=1.2\r\n\r\n\r\nplain\r\nWith Blank = x \r\n"
                                    "a=b\r\n[other]\r\nempty=\r\nCD=2\r\n[versions]\r\nlate=1");
    static constexpr struct
    {
        const char* szSection;
        const char* szKey;
        const char* szValue;   // null: not found
    } g_arow[] = {
        {"versions", "CD", "1.2"},
        {"VERSIONS", "cd", "1.2"},
        {"other", "CD", "2"},
        {"versions", "@4", "b"},
        {"versions", "@5", nullptr},
        {"other", "@0", ""},
        {"other", "empty", ""},
        {"versions", "With Blank ", " x "},
        {"versions", "With Blank", nullptr},
        {"versions", "late", nullptr},
        {"none", "CD", nullptr},
        {"versions", "", nullptr},
        {"versions", "@99999999999", nullptr},
    };
    for (const auto& row : g_arow)
    {
        EXPECT_EQ(Read("setup.txt", row.szSection, row.szKey, row.szValue ? EOSSTS_SUCCESS : EOSSTS_FAIL),
                  row.szValue ? row.szValue : "");
    }
    Read("absent.txt", "versions", "CD", EOSSTS_NOTFOUND);

    char szSmall[3] = "";
    EXPECT_EQ(OsCfgProfileRead(PathOf("setup.txt").c_str(), "versions", "CD", szSmall, sizeof szSmall),
              EOSSTS_NOMEMORY);
    EXPECT_STREQ(szSmall, "");
    const std::string strLong(512, 'x');
    EXPECT_EQ(OsCfgProfileRead(strLong.c_str(), "versions", "CD", szSmall, sizeof szSmall), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(64, "buffer overflow...512 <" + strLong + ">"));
}

// Also when both versions have one size and lie within one tick of the file's time stamp; it wins over what was stored.
TEST_F(Profile, AFileThatChangedIsReadAgain)
{
    for (const char* szValue : {"1", "2", "3", "4", "5"})
    {
        WriteWhole(PathOf("a.ini"), std::string("[s]\r\nkey=") + szValue + "\r\n");
        EXPECT_EQ(Read("a.ini", "s", "key"), szValue);
        EXPECT_EQ(Store("a.ini", "s", "key", "stored"), EOSSTS_SUCCESS);
    }
    EXPECT_EQ(m_logcapture.Count("we're reloading over a dirty profile..."), 4u);
    std::filesystem::remove(PathOf("a.ini"));
    Read("a.ini", "s", "key", EOSSTS_NOTFOUND);
}

TEST_F(Profile, RubbishIsReadWithoutHarm)
{
    std::string strBytes;
    for (int i = 0; i < 40000; ++i)
        strBytes += static_cast<char>(i * 7 + i / 256);
    const std::string strLong = "[s]\nkey=" + std::string(70000, 'v');
    for (const std::string& strText :
         {strBytes, std::string("[s\n[s\nkey=1\n[\n]\n=\n[]"), std::string(8192, '\n'), std::string(), strLong})
    {
        WriteWhole(PathOf("r.ini"), strText);
        char szValue[OS_PATHSIZE];
        for (const char* szKey : {"key", "@0", "@7", ""})
            OsCfgProfileRead(PathOf("r.ini").c_str(), "s", szKey, szValue, sizeof szValue);
    }
    EXPECT_EQ(Read("r.ini", "s", "key").size(), 8192u - std::string("[s]\nkey=").size());
    EXPECT_EQ(Store("r.ini", "s", "other", "1"), EOSSTS_NOMEMORY);   // the rest of the file would be lost
}

// ---------------------------------------------------------------------------------------- storing and writing back

TEST_F(Profile, WhatIsStoredReachesTheFileWithTheWriteBack)
{
    const std::string strBefore = "[one]\nkey=1\n;off=1\n; why\n[two]\nkey=2\n";
    WriteWhole(PathOf("a.ini"), strBefore);
    EXPECT_EQ(Store("a.ini", "ONE", "KEY", "new"), EOSSTS_SUCCESS);
    EXPECT_EQ(Store("a.ini", "one", "more", ""), EOSSTS_SUCCESS);
    EXPECT_EQ(Store("a.ini", "three", "key", "3"), EOSSTS_SUCCESS);
    EXPECT_EQ(Read("a.ini", "one", "key"), "new");
    EXPECT_EQ(ReadWhole(PathOf("a.ini")), strBefore);

    EXPECT_EQ(WriteBack("a.ini"), EOSSTS_SUCCESS);
    EXPECT_EQ(ReadWhole(PathOf("a.ini")), "[one]\r\nKEY=new\r\nmore=\r\n;off=1\r\n\r\n; why\r\n[two]\r\nkey=2\r\n\r\n"
                                          "[three]\r\nkey=3\r\n");
    EXPECT_EQ(m_logcapture.Count("profile successfully written...<" + Shown("a.ini") + ">"), 1u);
    EXPECT_EQ(WriteBack("a.ini"), EOSSTS_SUCCESS);   // nothing to do
    EXPECT_EQ(m_logcapture.Count("profile successfully written...<" + Shown("a.ini") + ">"), 1u);

    EXPECT_EQ(Store("new.ini", "s", "k1", "1"), EOSSTS_SUCCESS);
    EXPECT_EQ(OsCfgProfileWriteBack(nullptr), EOSSTS_SUCCESS);
    EXPECT_TRUE(m_logcapture.HasAt(4, "trying to write profile...<(all)>"));
    EXPECT_EQ(ReadWhole(PathOf("new.ini")), "[s]\r\nk1=1\r\n");
    EXPECT_EQ(WriteBack("never.ini"), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(4, "fail: file not found in our ini profile cache...<" + Shown("never.ini") + ">"));

    for (const auto& [szKey, szValue] :
         {std::pair{"k", "1"}, {"k=1", "1"}, {"[key", "1"}, {"key", "1\n2"}, {"@0", "1"}})
        EXPECT_EQ(Store("new.ini", "s", szKey, szValue), EOSSTS_NOTOPEN) << szKey;
}

TEST_F(Profile, AFileDoesNotGrowBeyondWhatIsReadAgain)
{
    const std::string strValue(8192 - std::string("[s]\r\nkey=\r\n").size(), 'v');
    EXPECT_EQ(Store("a.ini", "s", "key", (strValue + "v").c_str()), EOSSTS_NOMEMORY);
    EXPECT_EQ(Store("a.ini", "s", "key", strValue.c_str()), EOSSTS_SUCCESS);
    EXPECT_EQ(Store("a.ini", "s", "other", ""), EOSSTS_NOMEMORY);
    EXPECT_EQ(Store("a.ini", "t", "key", ""), EOSSTS_NOMEMORY);
    EXPECT_EQ(WriteBack("a.ini"), EOSSTS_SUCCESS);
    EXPECT_EQ(SizeOf("a.ini"), 8192u);
    EXPECT_EQ(Read("a.ini", "s", "key"), strValue);
}

TEST_F(Profile, AFileThatOthersKeepFromWritingIsServedReadOnly)
{
    WriteWhole(PathOf("a.ini"), "[s]\nkey=1\n");
    const std::u16string wstrPath = Wide(PathOf("a.ini"));
    const PlatHandle plathandle =
        PlatFileOpen(wstrPath.c_str(), PLAT_ACCESS_READ, PLAT_SHARE_READ, PLAT_DISPOSITION_OPENEXISTING, 0);
    EXPECT_EQ(Read("a.ini", "s", "key"), "1");
    EXPECT_TRUE(m_logcapture.HasAt(4, "profile opened readonly...<" + Shown("a.ini") + ">"));
    EXPECT_EQ(Store("a.ini", "s", "key", "2"), EOSSTS_SUCCESS);
    EXPECT_EQ(WriteBack("a.ini"), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(4, "fail: open failed...<" + Shown("a.ini") + ">"));
    PlatClose(plathandle);

    const PlatHandle plathandleWriter =
        PlatFileOpen(wstrPath.c_str(), PLAT_ACCESS_READ, PLAT_SHARE_READ | PLAT_SHARE_WRITE | PLAT_SHARE_DELETE,
                     PLAT_DISPOSITION_OPENEXISTING, 0);
    EXPECT_TRUE(PlatFileLock(plathandleWriter, OS_PROFILELOCK, 1));   // another writer is not waited for for ever
    EXPECT_EQ(WriteBack("a.ini"), EOSSTS_FAIL);
    PlatClose(plathandleWriter);
    EXPECT_EQ(WriteBack("a.ini"), EOSSTS_SUCCESS);
    EXPECT_EQ(ReadWhole(PathOf("a.ini")), "[s]\r\nkey=2\r\n");
}

TEST_F(Profile, TheSeventeenthFileEmptiesTheCacheAndLosesNothing)
{
    const auto name = [](int i) { return "f" + std::to_string(i) + ".ini"; };
    for (int i = 0; i < 17; ++i)
        WriteWhole(PathOf(name(i)), "[s]\nkey=1\n");
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(Store(name(i), "s", "key", "2"), EOSSTS_SUCCESS);
    EXPECT_EQ(ReadWhole(PathOf("f0.ini")), "[s]\nkey=1\n");
    EXPECT_EQ(Read("f16.ini", "s", "key"), "1");
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(ReadWhole(PathOf(name(i))), "[s]\r\nkey=2\r\n") << i;
    EXPECT_EQ(WriteBack("f0.ini"), EOSSTS_FAIL);   // no longer there

    for (const char* szFile : {"m_const.ini", "m_debug.ini", "other_debug.ini"})
        EXPECT_EQ(Store(szFile, "s", "key", "1"), EOSSTS_SUCCESS);
    EXPECT_EQ(WriteBack("m_const.ini"), EOSSTS_SUCCESS);   // and its companion
    EXPECT_EQ(ReadWhole(PathOf("m_debug.ini")), "[s]\r\nkey=1\r\n");
    EXPECT_EQ(SizeOf("other_debug.ini"), 0u);
}

// The logger reads a profile for the header of its file, on the thread whose line is the first.
TEST_F(Profile, ALogLineOfTheCacheMayLeadBackToIt)
{
    WriteWhole(PathOf("a.ini"), "[s]\nkey=1\n");
    int iFound = 0;
    const CallingSink callingsink([&] {
        char szValue[16];
        iFound += OsCfgProfileRead(PathOf("a.ini").c_str(), "s", "key", szValue, sizeof szValue) == EOSSTS_SUCCESS;
    });
    Store("a.ini", "s", "key", "2");
    WriteBack("a.ini");
    OsCfgProfileWriteBack(nullptr);
    EXPECT_GE(iFound, 3);
}

TEST_F(Profile, ThreadsShareTheCache)
{
    static constexpr int g_iThreads = 6;
    static constexpr int g_iRounds = 150;
    WriteWhole(PathOf("t.ini"), "[s]\r\n");
    InThreads(g_iThreads, [this](int a_iThread) {
        const std::string strKey = "key" + std::to_string(a_iThread);
        for (int iRound = 1; iRound <= g_iRounds; ++iRound)
        {
            const std::string strValue = std::string(static_cast<size_t>(iRound), static_cast<char>('a' + a_iThread));
            EXPECT_EQ(Store("t.ini", "s", strKey.c_str(), strValue.c_str()), EOSSTS_SUCCESS);
            EXPECT_EQ(Read("t.ini", "s", strKey.c_str()), strValue);
            EXPECT_EQ(WriteBack("t.ini"), EOSSTS_SUCCESS);
        }
    });
    for (int iThread = 0; iThread < g_iThreads; ++iThread)
    {
        EXPECT_EQ(Read("t.ini", "s", ("key" + std::to_string(iThread)).c_str()),
                  std::string(g_iRounds, static_cast<char>('a' + iThread)));
    }
}

// --------------------------------------------------------------------------------------------------- other hands

TEST_F(Profile, AFileOfThisMomentIsReplacedAtOnceAndStaysWhatItWas)
{
    WriteWhole(PathOf("real.ini"), "[s]\nkey=" + std::string(100, 'x') + "\n");
    fs::create_symlink("real.ini", PathOf("link.ini"));
    fs::permissions(PathOf("real.ini"), fs::perms{0640});
    const PlatHandle plathandle = PlatWatchCreate(Wide(m_path).c_str());
    std::ifstream streamOld(PathOf("real.ini"));   // who has it open keeps the old text
    EXPECT_EQ(Store("link.ini", "s", "key", "1"), EOSSTS_SUCCESS);
    EXPECT_EQ(WriteBack("link.ini"), EOSSTS_SUCCESS);

    // A file that was opened for writing counts as modified when it is closed.
    std::vector<PlatWatchAction> vecplatwatchaction;
    PlatWatchChange platwatchchange;
    while (PlatWatchRead(plathandle, &platwatchchange))
    {
        if (platwatchchange.wszName == std::u16string(u"real.ini") &&
            platwatchchange.platwatchaction != PLAT_WATCH_MODIFIED)
            vecplatwatchaction.push_back(platwatchchange.platwatchaction);
    }
    PlatClose(plathandle);
    EXPECT_EQ(vecplatwatchaction, std::vector{PLAT_WATCH_NEWNAME});
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(streamOld), {}).size(), 109u);
    EXPECT_EQ(ReadWhole(PathOf("real.ini")), "[s]\r\nkey=1\r\n");
    EXPECT_TRUE(fs::is_symlink(PathOf("link.ini")));
    EXPECT_EQ(fs::status(PathOf("real.ini")).permissions(), fs::perms{0640});
    EXPECT_EQ(std::distance(fs::directory_iterator(m_path), {}), 2) << "nothing is left behind";
}

// A second name, or a handle that does not share deletion: nothing can take the file's place.
TEST_F(Profile, AFileThatCannotBeReplacedIsWrittenInPlace)
{
    for (const char* szFile : {"a.ini", "b.ini"})
        WriteWhole(PathOf(szFile), "[s]\r\nkey=" + std::string(100, 'x') + "\r\n");
    fs::create_hard_link(PathOf("a.ini"), PathOf("second.ini"));
    const PlatHandle plathandle = PlatFileOpen(Wide(PathOf("b.ini")).c_str(), PLAT_ACCESS_READ,
                                               PLAT_SHARE_READ | PLAT_SHARE_WRITE, PLAT_DISPOSITION_OPENEXISTING, 0);
    std::ifstream streamOld(PathOf("b.ini"));
    for (const char* szFile : {"a.ini", "b.ini"})
    {
        EXPECT_EQ(Store(szFile, "s", "key", "1"), EOSSTS_SUCCESS);
        EXPECT_EQ(WriteBack(szFile), EOSSTS_SUCCESS);
    }
    PlatClose(plathandle);
    EXPECT_EQ(ReadWhole(PathOf("second.ini")), "[s]\r\nkey=1\r\n");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(streamOld), {}), "[s]\r\nkey=1\r\n");
}

// Also when size and time of the file tell nothing.
TEST_F(Profile, WhatAnotherProgramWroteMeanwhileStays)
{
    WriteWhole(PathOf("a.ini"), "[s]\nkey=1\n");
    const auto filetime = fs::last_write_time(PathOf("a.ini"));
    EXPECT_EQ(Store("a.ini", "s", "key", "2"), EOSSTS_SUCCESS);
    Overwrite(PathOf("a.ini"), 8, "3");
    fs::last_write_time(PathOf("a.ini"), filetime);
    EXPECT_EQ(WriteBack("a.ini"), EOSSTS_FAIL);
    EXPECT_TRUE(m_logcapture.HasAt(64, "we're reloading over a dirty profile..."));
    EXPECT_EQ(ReadWhole(PathOf("a.ini")), "[s]\nkey=3\n");
    EXPECT_EQ(Read("a.ini", "s", "key"), "3");

    Store("new.ini", "s", "key", "1");
    WriteWhole(PathOf("new.ini"), "theirs");
    EXPECT_EQ(WriteBack("new.ini"), EOSSTS_FAIL);
    EXPECT_EQ(ReadWhole(PathOf("new.ini")), "theirs");
}

// Whichever allocation fails, the file is the old one or the new one, and the next write-back succeeds.
TEST_F(Profile, WithoutMemoryAFileStaysWhole)
{
    WriteWhole(PathOf("a.ini"), "[s]\r\nkey=0\r\n");
    Read("a.ini", "s", "key");
    g_poslogsink.store(nullptr);
    bool blEnough = false;
    for (int iFailing = 1; !blEnough && iFailing < 1000; ++iFailing)
    {
        const std::string strFile = PathOf("a.ini");
        const std::string strBefore = ReadWhole(strFile);
        const std::string strValue = std::to_string(iFailing);
        g_iAllocationsLeft = iFailing;
        const bool blStored = OsCfgProfileWrite(strFile.c_str(), "s", "key", strValue.c_str()) == EOSSTS_SUCCESS;
        const bool blWritten = OsCfgProfileWriteBack(strFile.c_str()) == EOSSTS_SUCCESS;
        blEnough = g_iAllocationsLeft > 0;
        g_iAllocationsLeft = 0;
        const std::string strAfter = "[s]\r\nkey=" + strValue + "\r\n";
        EXPECT_EQ(ReadWhole(strFile), blStored && blWritten ? strAfter : strBefore) << iFailing;
        EXPECT_TRUE(blWritten || !blEnough);
        EXPECT_EQ(Store("a.ini", "s", "key", strValue.c_str()), EOSSTS_SUCCESS);
        EXPECT_EQ(WriteBack("a.ini"), EOSSTS_SUCCESS);
    }
    EXPECT_TRUE(blEnough);
    EXPECT_EQ(std::distance(fs::directory_iterator(m_path), {}), 1) << "nothing is left behind";
}

TEST_F(Profile, NamesThatDifferInCaseAreTwoFilesHere)
{
    WriteWhole(PathOf("Model.ini"), "[s]\nkey=1\n");
    WriteWhole(PathOf("model.ini"), "[s]\nkey=2\n");
    EXPECT_EQ(Read("Model.ini", "s", "key"), "1");
    EXPECT_EQ(Read("model.ini", "s", "key"), "2");
    fs::create_hard_link(PathOf("model.ini"), PathOf("MODEL.ini"));
    EXPECT_EQ(Store("model.ini", "s", "key", "3"), EOSSTS_SUCCESS);
    EXPECT_EQ(Read("MODEL.ini", "s", "key"), "3");
}

// ------------------------------------------------------------------------------------------------ other processes

namespace
{
// The value tells how long it is: "7:xxxxxxx".
std::string Numbered(unsigned long a_ulNumber)
{
    return std::to_string(a_ulNumber) + ":" + std::string(a_ulNumber * 37 % 3001, 'x');
}

// The number of a value; a failure of the test for one that is not whole.
unsigned long NumberOf(const std::string& a_strValue)
{
    const unsigned long ulNumber = strtoul(a_strValue.c_str(), nullptr, 10);
    EXPECT_EQ(a_strValue, Numbered(ulNumber));
    return ulNumber;
}

// What a look at the whole file shows: the number of each key. Nothing else is in it.
struct Numbers
{
    explicit Numbers(const std::string& a_strPath)
    {
        static const std::regex g_regex("\\[s\\]\r\nkeya=(.*)\r\nkeyb=(.*)\r\n");
        std::smatch smatch;
        const std::string strText = ReadWhole(a_strPath);
        EXPECT_TRUE(std::regex_match(strText, smatch, g_regex)) << strText;
        ulA = smatch.empty() ? 0 : NumberOf(smatch[1]);
        ulB = smatch.empty() ? 0 : NumberOf(smatch[2]);
    }
    unsigned long ulA;
    unsigned long ulB;
};

// The last number that a writer said it has written, or what was known of it before.
unsigned long LastSaid(const Part& a_part, unsigned long a_ulKnown)
{
    std::string strSaid;
    char achBuffer[4096];
    size_t sizetRead = 0;
    while (PlatWaitAny(&a_part.m_plathandleOutput, 1, 0) == 0 &&
           PlatPipeRead(a_part.m_plathandleOutput, achBuffer, sizeof achBuffer, &sizetRead))
        strSaid.append(achBuffer, sizetRead);
    const size_t sizetEnd = strSaid.rfind('\n');
    if (sizetEnd == std::string::npos || sizetEnd == 0)
        return a_ulKnown;
    const size_t sizetBegin = strSaid.rfind('\n', sizetEnd - 1);
    return strtoul(strSaid.c_str() + (sizetBegin == std::string::npos ? 0 : sizetBegin + 1), nullptr, 10);
}
}   // namespace

// Counts a key up for ever; each number that is in the file is said.
int PlayPart(const std::vector<std::string>& a_vecstrArguments)
{
    const char* const szFile = a_vecstrArguments[0].c_str();
    const char* const szKey = a_vecstrArguments[1].c_str();
    char szValue[4096];
    OsCfgProfileRead(szFile, "s", szKey, szValue, sizeof szValue);
    for (unsigned long ulNumber = strtoul(szValue, nullptr, 10) + 1;; ++ulNumber)
    {
        while (OsCfgProfileWrite(szFile, "s", szKey, Numbered(ulNumber).c_str()) != EOSSTS_SUCCESS ||
               OsCfgProfileWriteBack(szFile) != EOSSTS_SUCCESS)
            std::this_thread::yield();
        if (!Say(std::to_string(ulNumber) + "\n"))
            return 0;
    }
}

TEST_F(Profile, AKilledWriterTearsNothingAndTakesNothingAlong)
{
    const std::string strFile = PathOf("p.ini");
    WriteWhole(strFile, "[s]\r\nkeya=0:\r\nkeyb=0:\r\n");
    const Part partOther(strFile + " keyb");
    const std::jthread reader([&](const std::stop_token& a_stoptoken) {
        for (Numbers numbersLast(strFile); !a_stoptoken.stop_requested() && !HasFailure();)
        {
            const Numbers numbers(strFile);
            EXPECT_GE(numbers.ulA, numbersLast.ulA);
            EXPECT_GE(numbers.ulB, numbersLast.ulB);
            numbersLast = numbers;
        }
    });
    unsigned long ulOther = 0;
    unsigned long ulKilled = 0;
    const char* const szRounds = getenv("TEST_ROUNDS");
    const int iRounds = szRounds ? atoi(szRounds) : 10;
    for (int iRound = 0; iRound < iRounds && !HasFailure(); ++iRound)
    {
        const Part part(strFile + " keya");
        const unsigned long ulFirst = strtoul(part.OutputUpTo("\n").c_str(), nullptr, 10);
        EXPECT_TRUE(WaitFor([&] { return Numbers(strFile).ulA > ulFirst; }));
        PlatSleep(static_cast<uint32_t>(iRound) % 3);   // wherever it is now
        part.Kill();
        ulKilled = LastSaid(part, ulKilled);
        ulOther = LastSaid(partOther, ulOther);
        const Numbers numbers(strFile);
        EXPECT_GE(numbers.ulA, ulKilled);
        EXPECT_GE(numbers.ulB, ulOther);
    }
    EXPECT_TRUE(WaitFor([&] { return Numbers(strFile).ulB > ulOther; })) << "the other one goes on";
    EXPECT_GT(ulOther, 0u);
}

// A file with two names is written in place; those who read it through the library find it whole all the same.
TEST_F(Profile, AReaderFindsAFileWholeThatIsWrittenInPlace)
{
    const std::string strFile = PathOf("p.ini");
    WriteWhole(strFile, "[s]\r\nkeya=0:\r\nkeyb=0:\r\n");
    fs::create_hard_link(strFile, PathOf("second.ini"));
    const Part partA(strFile + " keya");
    const Part partB(strFile + " keyb");
    unsigned long ulA = 0;
    unsigned long ulB = 0;
    EXPECT_TRUE(WaitFor([&] {
        EXPECT_GE(NumberOf(Read("p.ini", "s", "keya")), ulA);
        EXPECT_GE(NumberOf(Read("p.ini", "s", "keyb")), ulB);
        ulA = LastSaid(partA, ulA);
        ulB = LastSaid(partB, ulB);
        return (ulA > 500 && ulB > 500) || HasFailure();
    }));
}

// --------------------------------------------------------------------------------------------- which file serves it

class ProfilePath : public Profile
{
protected:
    static std::string Serving(const std::string& a_strFile, const char* a_szSection, const char* a_szKey)
    {
        char szPath[OS_PATHSIZE];
        EXPECT_EQ(OsCfgProfileResolve(a_strFile.c_str(), a_szSection, a_szKey, szPath, sizeof szPath), EOSSTS_SUCCESS);
        return szPath;
    }
    static std::string Mapped(const std::string& a_strFile, bool a_blDebug)
    {
        char szPath[OS_PATHSIZE];
        OsCfgProfileMap(a_strFile.c_str(), a_blDebug, szPath, sizeof szPath);
        return szPath;
    }
};

TEST_F(ProfilePath, DiagnosticsAreServedFromTheUnprotectedFolder)
{
    OsArgumentsSet(OS_ARGUMENT_UNIQUENAME, "prog");
    const std::string strDebug = Resolve(OS_PATH_WRITEABLE_FOLDER_BRAND_LOCALORROAMING) + "\\common\\debug\\";
    const std::string strLegacy = Resolve(OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY) + "\\common\\debug\\";
    const std::string strConst = Resolve(OS_PATH_READABLE_FOLDER_BRAND) + "\\common\\const\\";
    EXPECT_EQ(Serving("/x//m_const.ini", "plain", "Debug"), "\\x\\m_const.ini");
    EXPECT_FALSE(OsFileExists(strDebug.c_str()));
    EXPECT_EQ(Serving("/x/m_const.ini", "m.Simulation.1", "key"), strDebug + "m_debug.ini");
    EXPECT_TRUE(OsFileExists(strDebug.c_str()));
    const std::tuple<const char*, const char*, const char*, std::string> atuple[] = {
        {"/x/m.ini", "a.dsIdentity", "debugfilter", strDebug + "m.ini"},
        {"/x/m.ini", "a.dsIdentity", "nodebug", "\\x\\m.ini"},
        {"/x/m_const.ini.txt", "wia.images", "key", strLegacy + "m_debug.ini.txt"},
        {"/x/const.ini", "dsidentity", "key", strConst + "prog_const.ini"},
        {"const.ini", "hvcfgmgr.x.dsidentity", "debug", strDebug + "hvcfgmgr_debug.ini"}};
    for (const auto& [szFile, szSection, szKey, strServing] : atuple)
        EXPECT_EQ(Serving(szFile, szSection, szKey), strServing);
}

TEST_F(ProfilePath, ARedirectIsToldAndServesOnlyTheMakersMachines)
{
    WriteWhole(PathOf("mine.ini"), "");
    setenv("MVR_CONSTINI", PathOf("mine.ini").c_str(), 1);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(Serving("/x/m_const.ini", "s", "key"), "\\x\\m_const.ini");
    EXPECT_EQ(m_logcapture.Count("const redirect=<" + Shown("mine.ini") + ">"), 1u);
    EXPECT_FALSE(m_logcapture.HasPart("debug redirect"));
}

TEST_F(ProfilePath, AProfileBelowABrandFolderHasAProtectedName)
{
    std::string strConst = Resolve(OS_PATH_READABLE_FILE_COMMON_CONSTINI);
    strConst.resize(strConst.size() - 4);
    for (const EOSPATH eospath : {OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY, OS_PATH_WRITEABLE_FOLDER_BRAND_USER})
        EXPECT_EQ(Mapped(Resolve(eospath) + "\\model\\deep\\a.ini", false), strConst + "\\model_const.ini");
    const std::string strBrand = Resolve(OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY);
    EXPECT_TRUE(StrEndsWith(Mapped(strBrand + "\\model\\a.ini", true).c_str(), "\\model_debug.ini", false));
    for (const std::string& strSame : {strBrand + "\\m_const.ini", strBrand + "\\log.2020\\a.ini", PathOf("a.ini")})
        EXPECT_EQ(Mapped(strSame, false), strSame);
    EXPECT_EQ(Mapped(strBrand, false), "");
    EXPECT_TRUE(m_logcapture.HasAt(1, "tokenizing failed..."));

    // Whatever its name in the protected layout, what was stored for a file is written to that file.
    const std::string strFile = strBrand + "\\model\\a.ini";
    OsFileCreateDirectory((strBrand + "\\model").c_str());
    char szValue[16] = "";
    EXPECT_EQ(OsCfgProfileWrite(strFile.c_str(), "s", "key", "1"), EOSSTS_SUCCESS);
    EXPECT_EQ(OsCfgProfileWriteBack(strFile.c_str()), EOSSTS_SUCCESS);
    EXPECT_EQ(OsCfgProfileRead(strFile.c_str(), "s", "key", szValue, sizeof szValue), EOSSTS_SUCCESS);
    EXPECT_STREQ(szValue, "1");
}
