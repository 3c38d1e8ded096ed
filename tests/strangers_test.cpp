// strangers_test.cpp: what another user of the machine may not do to a collector and to the files of its user.
//
//   the attempts   the files that a stranger asks for
//   files          what came of it, with a collector of an ordinary user and with one of root
//   the end        a stranger ends no collector and holds none up
//   elsewhere      a network of its own; a machine that does not tell who is who
#include "strangers_support.h"

namespace
{
using Texts = std::vector<std::string>;

constexpr char g_szForged[] = "forged\r\n";

// ------------------------------------------------------------------------------------------------- the attempts

// What a stranger asks a collector for: a file, and what he sends for it; only "" has an effect on an empty one.
struct Attempt
{
    std::string strPath;
    std::string strText = g_szForged;
};

bool Make(const User& a_user, uint16_t a_u16Port, const Attempt& a_attempt)
{
    return AsUser(a_user, [&] { return RawStream(a_u16Port).Send(Header(a_attempt.strPath) + a_attempt.strText); });
}

// All at once, from a process that stays until the collector has ended them. The paths of those that it did not end.
Texts MakeAndStay(const User& a_user, uint16_t a_u16Port, const std::vector<Attempt>& a_vecattempt)
{
    UserProcess userprocess(a_user, [&](const UserProcess& a_userprocess) {
        std::vector<RawStream> vecrawstream;
        for (const Attempt& attempt : a_vecattempt)
        {
            vecrawstream.emplace_back(a_u16Port);
            vecrawstream.back().Send(Header(attempt.strPath) + attempt.strText);
        }
        const uint64_t u64End = PlatTicks() + 10000;
        for (size_t sizet = 0; sizet < vecrawstream.size(); ++sizet)
            a_userprocess.Say(vecrawstream[sizet].IsEnded(u64End) ? "ended" : "goes on");
        return 0;
    });
    Texts vecstr;
    for (const Attempt& attempt : a_vecattempt)
    {
        if (userprocess.Hear() != "ended")
            vecstr.push_back(attempt.strPath);
    }
    return vecstr;
}

class StrangersFiles : public Strangers
{
protected:
    // A folder of the collector's user with everything that a stranger may have an eye on, and what he plants himself.
    // "log.1/app.log" is a running log.
    void Begin(const User& a_user, const std::string& a_strFolder)
    {
        ASSERT_NO_FATAL_FAILURE(BeginCollector(a_user));
        m_strFolder = a_strFolder;
        const std::string str = a_strFolder + "/";
        for (const char* szFolder : {"log.1", "log.2", "log.2/empty", "log.3"})
            MakeFolder(str + szFolder, a_user);
        MakeFolder(str + "ssh", a_user, 0700);
        MakeFolder(str + "open", a_user, 0777);
        for (const char* szFile : {"bashrc", "bashrc.linked", "bashrc.planted", "bashrc.hard"})
            MakeFile(str + szFile, a_user, "echo ours\n");
        for (const char* szFile : {"empty", "log.1/empty.log", "log.3/log.lock"})
            MakeFile(str + szFile, a_user);
        fs::create_symlink("../bashrc.linked", PathOf(str + "log.1/linked.log"));
        fs::create_directory_symlink("log.1", PathOf(str + "door"));
        EXPECT_EQ(mkfifo(PathOf(str + "log.1/pipe.log").c_str(), 0666), 0);
        Give(str + "log.1/pipe.log", a_user, 0644);

        MakeFolder("stranger/log.4", g_userStranger);
        fs::create_symlink(PathOf(str + "bashrc.planted"), PathOf("stranger/log.4/planted.log"));
        fs::create_directory_symlink(PathOf(str + "log.1"), PathOf("stranger/door"));
        fs::create_hard_link(PathOf(str + "bashrc.hard"), PathOf("stranger/log.4/hard.log"));

        m_uniqueRunning = StreamOfOurs(PathOf(str + "log.1/app.log"), "ours\r\n");
        ASSERT_TRUE(FileBecomes(str + "log.1/app.log", "ours\r\n"));
        m_iPipe = open(PathOf(str + "log.1/pipe.log").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        m_mapstrBefore = Snapshot(m_path / m_strFolder);
        m_mapstrBefore.erase("log.1/log.lock");   // of the running log
    }

    // What nobody but the collector's user may bring about.
    std::vector<Attempt> Forbidden() const
    {
        const std::string str = PathOf(m_strFolder) + "/";
        const std::string strCollector = "/proc/" + std::to_string(m_pidCollector);
        std::vector<Attempt> vecattempt = {
            {str + "bashrc"},
            {str + "ssh/authorized_keys"},
            {str + "new/folder/authorized_keys"},
            {str + "log.1/suffix.txt"},
            // have an empty file removed
            {str + "empty", ""},
            {str + "log.1/empty.log", ""},
            // links of the user, and of the stranger
            {str + "log.1/linked.log"},
            {str + "door/door.log"},
            {PathOf("stranger/log.4/planted.log")},
            {PathOf("stranger/door/planteddoor.log")},
            {PathOf("stranger/log.4/hard.log")},
            // what is no file
            {str + "log.1/pipe.log"},
            {str + "log.1/.log/"},
            // paths that lead elsewhere
            {str + "log.1/../dots.log"},
            {Backslashed(str) + "log.1\\..\\backdots.log"},
            {"relative.log"},
            {"log.1/relative.log"},
            {"/proc/self/root" + str + "log.1/root.log"},
            {strCollector + "/root" + str + "log.1/root2.log"},
            {strCollector + "/cwd/log.1/cwd.log"},
            {str + "log.1/control\x01.log"},
            {str + "log.1/control\n.log"},
        };
        if (const std::string strDescriptor = DescriptorOf("log.1/app.log"); !strDescriptor.empty())
            vecattempt.push_back({"/proc/self/fd/" + strDescriptor});
        return vecattempt;
    }

    std::string DescriptorOf(const std::string& a_strName) const
    {
        for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(m_pidCollector) + "/fd"))
        {
            std::error_code error;
            if (fs::read_symlink(entry.path(), error) == m_path / m_strFolder / a_strName)
                return entry.path().filename();
        }
        return "";
    }

    // The collector finds each when it has ended already, and the system does not know any more whose it was.
    void MakeAndLeave(const std::vector<Attempt>& a_vecattempt) const
    {
        for (const Attempt& attempt : a_vecattempt)
        {
            const Stopped stopped = StopCollector();
            EXPECT_TRUE(Make(g_userStranger, m_u16Port, attempt)) << attempt.strPath;
        }
    }

    // What is another, below the folder, when the collector has ended.
    Texts ChangedAtTheEnd()
    {
        m_uniqueRunning.reset();
        EXPECT_TRUE(CollectorEnds());
        char ch = 0;
        EXPECT_NE(read(m_iPipe, &ch, 1), 1) << "a pipe is no log file";
        close(m_iPipe);
        return Changed(m_mapstrBefore, Snapshot(m_path / m_strFolder));
    }

    std::string m_strFolder;
    std::unique_ptr<UserProcess> m_uniqueRunning;
    int m_iPipe = -1;
    std::map<std::string, std::string> m_mapstrBefore;
};
}   // namespace

// -------------------------------------------------------------------------------------------------------- files

TEST_F(StrangersFiles, OurCollectorTakesNothingFromAStranger)
{
    ASSERT_NO_FATAL_FAILURE(Begin(g_userOurs, "ours"));
    std::vector<Attempt> vecattempt = Forbidden();
    for (const char* szProper : {"ours/log.1/app.log", "ours/log.1/new.log", "ours/open/a.log", "stranger/a.log"})
        vecattempt.push_back({PathOf(szProper)});
    EXPECT_EQ(MakeAndStay(g_userStranger, m_u16Port, vecattempt), Texts{}) << "not refused";
    EXPECT_EQ(ChangedAtTheEnd(), Texts{});
    EXPECT_FALSE(fs::exists(PathOf("stranger/a.log")));
}

TEST_F(StrangersFiles, WhoLeavesAtOnceAddsToProperLogsOfOurs)
{
    ASSERT_NO_FATAL_FAILURE(Begin(g_userOurs, "ours"));
    std::vector<Attempt> vecattempt = Forbidden();
    for (const char* szPath :
         {"ours/open/a.log", "stranger/a.log", "root/a.log", "ours/log.1/app.log", "ours/log.1/new.log"})
        vecattempt.push_back({PathOf(szPath)});
    MakeAndLeave(vecattempt);
    EXPECT_EQ(ChangedAtTheEnd(), (Texts{"log.1/app.log", "log.1/new.log"}));
    EXPECT_EQ(ReadWhole(PathOf("ours/log.1/app.log")), std::string("ours\r\n") + g_szForged);
    EXPECT_FALSE(fs::exists(PathOf("stranger/a.log")));
}

// He may do what he may do without it: "open" is left out, which he may write.
TEST_F(StrangersFiles, RootsCollectorGivesAStrangerNoOtherRights)
{
    if (unshare(CLONE_NEWUTS) != 0)
        GTEST_SKIP() << "no names of its own on this machine";
    EXPECT_EQ(setdomainname("ours", 4), 0);
    MakeFolder("root/group", {0, g_gidOfRoot}, 0770);
    MakeFolder("root/rootsgroup", g_userRoot, 0770);
    ASSERT_NO_FATAL_FAILURE(Begin(g_userRoot, "root"));
    std::vector<Attempt> vecattempt = Forbidden();
    for (const char* szPath : {"root/log.1/app.log", "root/log.1/new.log", "root/group/a.log", "root/rootsgroup/a.log"})
        vecattempt.push_back({PathOf(szPath)});
    vecattempt.push_back({"/proc/sys/kernel/domainname"});
    EXPECT_EQ(MakeAndStay(g_userStranger, m_u16Port, vecattempt), Texts{}) << "not refused";
    EXPECT_EQ(ChangedAtTheEnd(), Texts{});
    char szDomain[64] = "";
    EXPECT_EQ(getdomainname(szDomain, sizeof szDomain), 0);
    EXPECT_STREQ(szDomain, "ours");
}

TEST_F(StrangersFiles, WhoLeavesAtOnceAddsToLogsInLogFoldersOfRoot)
{
    ASSERT_NO_FATAL_FAILURE(Begin(g_userRoot, "root"));
    std::vector<Attempt> vecattempt = Forbidden();
    for (const char* szPath : {"root/open/a.log", "root/a.log", "root/ssh/a.log", "stranger/log.4/a.log",
                               "root/log.1/app.log", "root/log.1/new.log"})
        vecattempt.push_back({PathOf(szPath)});
    MakeAndLeave(vecattempt);
    EXPECT_EQ(ChangedAtTheEnd(), (Texts{"log.1/app.log", "log.1/new.log"}));
    EXPECT_FALSE(fs::exists(PathOf("stranger/log.4/a.log")));
}

// The log folder of a collector's first stream is pruned at the end.
TEST_F(StrangersFiles, AStrangerWhoIsFirstHasNoFolderPruned)
{
    for (const auto& [user, strFolder] : {std::pair(g_userOurs, "ours"), std::pair(g_userRoot, "root")})
    {
        for (const bool blLeave : {false, true})
        {
            const std::string str = std::string(strFolder) + "/";
            ASSERT_NO_FATAL_FAILURE(BeginCollector(user));
            MakeFolder(str + "log.2", user);
            MakeFolder(str + "log.2/empty", user);
            MakeFolder(str + "log.3", user);
            MakeFile(str + "log.3/log.lock", user);
            const auto mapstrBefore = Snapshot(m_path / strFolder);
            const std::vector<Attempt> vecattempt = {{PathOf(str + "log.2/a.log"), ""}, {PathOf(str + "log.3/x"), ""}};
            const auto uniqueOurs = StreamOfOurs(PathOf("result/ours.txt"), "ours\r\n");
            ASSERT_TRUE(FileBecomes("result/ours.txt", "ours\r\n"));
            if (blLeave)
                MakeAndLeave(vecattempt);
            else
                EXPECT_EQ(MakeAndStay(g_userStranger, m_u16Port, vecattempt), Texts{}) << strFolder;
            uniqueOurs->Say("end");
            EXPECT_TRUE(CollectorEnds());
            EXPECT_EQ(Changed(mapstrBefore, Snapshot(m_path / strFolder)), Texts{}) << strFolder << blLeave;
            fs::remove(PathOf("result/ours.txt"));
        }
    }
}

// Folders and file are his. A file that he takes away is made again, and an empty one removed, with his rights too.
TEST_F(Strangers, RootsCollectorWritesAStrangersLogAsHis)
{
    ASSERT_NO_FATAL_FAILURE(BeginCollector(g_userRoot));
    const auto uniqueRunning = StreamOfOurs(PathOf("root/a.log"), "ours\r\n");
    const std::string strLog = "stranger/log.1/sub/a.log";
    const UserProcess userprocess(g_userStranger, [&](const UserProcess& a_userprocess) {
        const RawStream rawstream(m_u16Port);
        std::string strText = Header(PathOf(strLog)) + "one\r\n";
        for (; !strText.empty() && rawstream.Send(strText); strText = a_userprocess.Hear(-1))
            a_userprocess.Say("sent");
        return 0;
    });
    ASSERT_TRUE(FileBecomes(strLog, "one\r\n"));
    for (const char* szName : {"stranger/log.1", "stranger/log.1/sub", "stranger/log.1/sub/a.log"})
        EXPECT_EQ(OwnerOf(szName), "61235:61245") << szName;

    EXPECT_TRUE(AsUser(g_userStranger, [&] { return fs::remove_all(PathOf("stranger/log.1")) != 0; }));
    EXPECT_TRUE(WaitFor([&] {
        userprocess.Say("again\r\n");
        userprocess.Hear();
        return fs::exists(PathOf(strLog));
    }));
    EXPECT_EQ(OwnerOf("stranger/log.1/sub"), "61235:61245");
    EXPECT_EQ(OwnerOf(strLog), "61235:61245");

    const std::string strEmpty = PathOf("stranger/empty/a.log");
    EXPECT_TRUE(AsUser(g_userStranger, [&] {
        const RawStream rawstream(m_u16Port);
        return rawstream.Send(Header(strEmpty)) && WaitFor([&] { return fs::exists(strEmpty); });
    }));
    EXPECT_TRUE(WaitFor([&] { return !fs::exists(strEmpty); }));
}

// Whoever has no account has no group of root either.
TEST_F(Strangers, RootsCollectorLendsNoGroupToAUserWithoutAccount)
{
    MakeFolder("root/rootsgroup", g_userRoot, 0770);
    MakeFolder("stranger/public", g_userStranger, 0777);
    ASSERT_NO_FATAL_FAILURE(BeginCollector(g_userRoot));
    const auto uniqueRunning = StreamOfOurs(PathOf("root/a.log"), "ours\r\n");
    ASSERT_TRUE(FileBecomes("root/a.log", "ours\r\n"));
    EXPECT_EQ(MakeAndStay(g_userUnlisted, m_u16Port, {{PathOf("root/rootsgroup/a.log")}}), Texts{});
    EXPECT_EQ(OwnerOf("root/rootsgroup/a.log"), "missing");
    Make(g_userUnlisted, m_u16Port, {PathOf("stranger/public/a.log")});
    uniqueRunning->Say("end");
    EXPECT_TRUE(CollectorEnds());
    EXPECT_FALSE(OwnerOf("stranger/public/a.log").ends_with(":0"));
}

// A stream is open while its folder becomes a link to one of root's: neither the file that is made again, nor the
// removal of an empty one, nor the lock gets there.
TEST_F(Strangers, RootsCollectorFollowsNoFolderThatAStrangerSwaps)
{
    MakeFolder("root/log.1", g_userRoot);
    for (const char* szFile : {"root/log.1/empty.log", "root/log.1/text.log", "root/log.1/log.lock"})
        MakeFile(szFile, g_userRoot);
    MakeFolder("stranger/log.9", g_userStranger);
    fs::create_symlink(PathOf("root/lock"), PathOf("stranger/log.9/log.lock"));
    const auto mapstrBefore = Snapshot(m_path / "root");
    ASSERT_NO_FATAL_FAILURE(BeginCollector(g_userRoot));
    const auto uniqueRunning = StreamOfOurs(PathOf("result/a.txt"), "ours\r\n");
    EXPECT_TRUE(AsUser(g_userStranger, [&] {
        const auto there = [&](const char* szName) {
            return WaitFor([&] { return fs::exists(PathOf("stranger/log.") + szName); });
        };
        const RawStream rawstreamLock(m_u16Port);
        const RawStream rawstreamText(m_u16Port);
        const RawStream rawstreamEmpty(m_u16Port);
        rawstreamLock.Send(Header(PathOf("stranger/log.9/a.log")) + g_szForged);
        rawstreamText.Send(Header(PathOf("stranger/log.1/text.log")) + g_szForged);
        rawstreamEmpty.Send(Header(PathOf("stranger/log.1/empty.log")));
        if (!there("9/a.log") || !there("1/text.log") || !there("1/empty.log"))
            return false;
        fs::rename(PathOf("stranger/log.1"), PathOf("stranger/gone"));
        fs::create_directory_symlink(PathOf("root/log.1"), PathOf("stranger/log.1"));
        for (int i = 0; i < 30; ++i, PlatSleep(50))
            rawstreamText.Send(g_szForged);   // the path is looked at once a second
        return true;
    }));
    uniqueRunning->Say("end");
    EXPECT_TRUE(CollectorEnds());
    EXPECT_EQ(Changed(mapstrBefore, Snapshot(m_path / "root")), Texts{});
}

// ------------------------------------------------------------------------------------------------------ the end

namespace
{
// After what a stranger did our stream is taken, and its end is what ends the collector.
#define EXPECT_SERVES_OURS(a_szWhat)                                                                                   \
    {                                                                                                                  \
        const auto uniqueOurs = StreamOfOurs(PathOf("result/a.log"), "ours\r\n");                                      \
        EXPECT_TRUE(FileBecomes("result/a.log", "ours\r\n")) << a_szWhat;                                              \
        uniqueOurs->Say("end");                                                                                        \
        EXPECT_TRUE(CollectorEnds()) << a_szWhat;                                                                      \
        fs::remove(PathOf("result/a.log"));                                                                            \
    }

// Opens that many connections, and sends the text on each; waits until the collector has ended them all.
bool AreAllEnded(uint16_t a_u16Port, size_t a_sizetConnections, const std::string& a_strText)
{
    const rlimit rlimitMost{10000, 10000};
    setrlimit(RLIMIT_NOFILE, &rlimitMost);
    std::vector<RawStream> vecrawstream;
    for (size_t sizet = 0; sizet < a_sizetConnections; ++sizet)
    {
        vecrawstream.emplace_back(a_u16Port);
        if (!a_strText.empty())
            vecrawstream.back().Send(a_strText);
    }
    const uint64_t u64End = PlatTicks() + 20000;
    return std::all_of(vecrawstream.begin(), vecrawstream.end(),
                       [&](const RawStream& a_rawstream) { return a_rawstream.IsEnded(u64End); });
}
}   // namespace

TEST_F(Strangers, AStrangerWhoIsFirstEndsNoCollector)
{
    static constexpr size_t sizetMany = 200;   // each batch of 32 waits for the one before
    const std::string strHeader = Header(PathOf("stranger/a.log"));
    const struct
    {
        User user;
        size_t sizetConnections;
        std::string strText;
    } arow[] = {
        {g_userOurs, 1, ""},
        {g_userOurs, 1, strHeader},
        {g_userOurs, 1, "|||EEXXIITT|||"},
        {g_userOurs, 1, "<log>"},
        {g_userOurs, 1, strHeader + "text"},
        {g_userOurs, sizetMany, ""},
        {g_userOurs, sizetMany, "rubbish"},
        {g_userRoot, 1, "|||EEXXIITT|||"},
    };
    for (const auto& row : arow)
    {
        const std::string strWhat = std::to_string(row.sizetConnections) + " with <" + row.strText + ">";
        ASSERT_NO_FATAL_FAILURE(BeginCollector(row.user));
        EXPECT_TRUE(AsUser(g_userStranger, [&] { return AreAllEnded(m_u16Port, row.sizetConnections, row.strText); }))
            << strWhat;
        EXPECT_TRUE(CollectorLivesOn()) << strWhat;
        EXPECT_SERVES_OURS(strWhat);
    }
}

// Nobody knows whose a connection was that has gone; it ends the collector only if none of ours comes soon.
TEST_F(Strangers, WhoLeavesAtOnceEndsNoCollectorThatOursComeTo)
{
    for (const User& user : {g_userOurs, g_userRoot})
    {
        ASSERT_NO_FATAL_FAILURE(BeginCollector(user));
        std::unique_ptr<UserProcess> uniqueOurs;
        {
            const Stopped stopped = StopCollector();
            EXPECT_TRUE(AsUser(g_userStranger, [&] { return RawStream(m_u16Port).IsConnected(); }));
            uniqueOurs = StreamOfOurs(PathOf("result/a.log"), "ours\r\n");
            EXPECT_EQ(uniqueOurs->Hear(), "sent");
        }
        EXPECT_TRUE(FileBecomes("result/a.log", "ours\r\n"));
        EXPECT_TRUE(CollectorLivesOn());
        uniqueOurs->Say("end");
        EXPECT_TRUE(CollectorEnds());
        fs::remove(PathOf("result/a.log"));
    }
}

TEST_F(Strangers, SilentConnectionsOfAStrangerHoldUpNobody)
{
    ASSERT_NO_FATAL_FAILURE(BeginCollector(g_userOurs));
    const UserProcess userprocess(g_userStranger, [&](const UserProcess& a_userprocess) {
        std::vector<RawStream> vecrawstream;
        for (int i = 0; i < 500; ++i)
            vecrawstream.emplace_back(m_u16Port);
        a_userprocess.Say("connected");
        a_userprocess.Hear(-1);
        return 0;
    });
    EXPECT_EQ(userprocess.Hear(), "connected");
    EXPECT_SERVES_OURS("a stranger is silent");
}

// Everybody may write into the program data: whoever makes the command file there commands himself alone.
TEST_F(Strangers, CommandsCountFromRootAndOursAlone)
{
    const struct
    {
        User userFile;
        mode_t mode;
        bool blFollowed;
    } arow[] = {
        {g_userStranger, 0644, false}, {g_userOurs, 0666, false}, {g_userOurs, 0620, false},
        {g_userRoot, 0666, false},     {g_userOurs, 0644, true},  {g_userRoot, 0644, true},
    };
    const std::string strFolder = "system/PROGRAMDATA/mvr_orvane/common/logcollector";
    const std::string strOurFolder = "system/LOCALAPPDATA/mvr_orvane/common/logcollector";
    WorkAs(g_userOurs);
    MakeFolder(strOurFolder, g_userOurs);
    for (const char* szFolder : {"system/LOCALAPPDATA/mvr_orvane", "system/LOCALAPPDATA/mvr_orvane/common"})
        MakeFolder(szFolder, g_userOurs);
    for (const auto& row : arow)
    {
        const std::string strWhat = std::to_string(row.userFile.uid) + " " + std::to_string(row.mode);
        fs::remove_all(PathOf("system/PROGRAMDATA/mvr_orvane"));
        for (const char* szFolder : {"system/PROGRAMDATA/mvr_orvane", "system/PROGRAMDATA/mvr_orvane/common"})
            MakeFolder(szFolder, g_userRoot, 0777);
        MakeFolder(strFolder, g_userRoot, 0777);
        MakeFile(strFolder + "/flush", {row.userFile.uid, row.userFile.gid}, "", row.mode);
        ASSERT_NO_FATAL_FAILURE(BeginCollector(g_userOurs));
        const auto uniqueOurs = StreamOfOurs(PathOf("result/a.log"), "ours\r\n");
        EXPECT_TRUE(FileBecomes("result/a.log", "ours\r\n")) << strWhat;
        // What it holds while a collector begins to watch it is no command.
        std::string strCommand = "<cmd>exitall</cmd>";
        const auto endsOn = [&](const std::string& a_strFile, int a_iTries) {
            bool blEnded = false;
            for (int i = 0; i < a_iTries && !blEnded; ++i)
            {
                WriteWhole(PathOf(a_strFile), strCommand += ' ');
                blEnded = CollectorEnds(300);
            }
            return blEnded;
        };
        EXPECT_EQ(endsOn(strFolder + "/flush", row.blFollowed ? 60 : 5), row.blFollowed) << strWhat;
        EXPECT_TRUE(row.blFollowed || endsOn(strOurFolder + "/flush", 60)) << "our own command file, " << strWhat;
        fs::remove(PathOf(strOurFolder + "/flush"));
        fs::remove(PathOf("result/a.log"));
    }
}

// ---------------------------------------------------------------------------------------------------- elsewhere

TEST_F(StrangersFiles, InANetworkOfItsOwnAStrangerIsToldApart)
{
    if (!HaveOwnNetwork())
        GTEST_SKIP() << "no network of its own on this machine";
    ASSERT_NO_FATAL_FAILURE(Begin(g_userOurs, "ours"));
    EXPECT_EQ(MakeAndStay(g_userStranger, m_u16Port, {{PathOf("ours/log.1/a.log")}, {PathOf("ours/bashrc")}}), Texts{});
    EXPECT_EQ(ChangedAtTheEnd(), Texts{});
}

// Everybody is taken there, with the collector's rights.
TEST_F(Strangers, WhereTheSystemDoesNotTellEverybodyIsTaken)
{
    for (const int iError : {EPERM, EAFNOSUPPORT})
    {
        ASSERT_NO_FATAL_FAILURE(BeginCollector(g_userOurs, [=] { return TakeAwayDiagnosis(iError); }));
        const auto uniqueOurs = StreamOfOurs(PathOf("ours/ours.txt"), "ours\r\n");
        EXPECT_TRUE(FileBecomes("ours/ours.txt", "ours\r\n"));
        EXPECT_TRUE(Make(g_userStranger, m_u16Port, {PathOf("ours/log.1/a.log")}));
        EXPECT_TRUE(FileBecomes("ours/log.1/a.log", g_szForged));
        uniqueOurs->Say("end");
        EXPECT_TRUE(CollectorEnds());
        fs::remove_all(PathOf("ours/log.1"));
        fs::remove(PathOf("ours/ours.txt"));
    }
}
