// collector_file_test.cpp: what becomes of lines where a log file has several streams, where the disk takes nothing,
// and where somebody removes the file.
#include "collector_support.h"

#include "os_coslogfolder.h"

#include "plat_file.h"

#include <charconv>
#include <functional>
#include <random>
#include <sched.h>
#include <sys/mount.h>

namespace fs = std::filesystem;

// Numbered lines of one letter: "00012 aaaa\r\n".
static std::string Line(char a_chLetter, int a_iNumber, size_t a_sizetLetters)
{
    char szNumber[16];
    snprintf(szNumber, sizeof szNumber, "%05d ", a_iNumber);
    return szNumber + std::string(a_sizetLetters, a_chLetter) + "\r\n";
}

// The lines of a text, each with its end; the last one may have none.
static std::vector<std::string> Lines(const std::string& a_strText)
{
    std::vector<std::string> vecstr;
    for (size_t sizetBegin = 0; sizetBegin < a_strText.size();)
    {
        const size_t sizetEnd = std::min(a_strText.find("\r\n", sizetBegin), a_strText.size() - 2) + 2;
        vecstr.push_back(a_strText.substr(sizetBegin, sizetEnd - sizetBegin));
        sizetBegin = sizetEnd;
    }
    return vecstr;
}

static bool SendInPieces(StreamClient& a_streamclient, const std::string& a_strText, uint32_t a_u32Seed,
                         size_t a_sizetMost)
{
    std::mt19937 random(a_u32Seed);
    for (size_t sizetSent = 0; sizetSent < a_strText.size();)
    {
        const size_t sizetPiece = 1 + random() % a_sizetMost;
        if (!a_streamclient.Send(a_strText.substr(sizetSent, sizetPiece)))
            return false;
        sizetSent += sizetPiece;
    }
    return true;
}

// ---------------------------------------------------------------------------------------- several streams of one file

using SharedFile = CollectorTest;

// Two streams whose pieces end anywhere, and another process's lines beside them.
TEST_F(SharedFile, LinesNeverMix)
{
    constexpr int iLines = 8000;
    const std::string strPath = PathOf("x.log");
    const auto lengthOf = [](int a_iWriter, int a_iLine) {
        return 1 + static_cast<size_t>(a_iLine * (7 + a_iWriter) % 300);
    };
    std::vector<std::unique_ptr<StreamClient>> vecclient;   // the third one stays, so that none is ever alone
    std::string strFirst;
    for (int i = 0; i < 3; ++i)
    {
        vecclient.push_back(StreamTo("x.log", "is there\r\n"));
        strFirst += "is there\r\n";
        ASSERT_TRUE(FileBecomes("x.log", strFirst));
    }
    // The lines of the other process go on until the streams have ended.
    int aiLines[3] = {iLines, iLines, 0};
    std::atomic<int> iStreams{2};
    InThreads(3, [&](int a_iWriter) {
        const auto line = [&](int a_iLine) {
            return Line(static_cast<char>('a' + a_iWriter), a_iLine, lengthOf(a_iWriter, a_iLine));
        };
        if (a_iWriter < 2)
        {
            std::string strText;
            for (int i = 0; i < iLines; ++i)
                strText += line(i);
            EXPECT_TRUE(SendInPieces(*vecclient[static_cast<size_t>(a_iWriter)], strText, 1, 700));
            --iStreams;
            return;
        }
        const PlatHandle plathandle = PlatAppendOpen(Wide(strPath).c_str());
        for (int& i = aiLines[2]; iStreams != 0 && i < 9999; ++i)
        {
            const std::string strLine = line(i);
            EXPECT_TRUE(PlatAppendWrite(plathandle, strLine.data(), strLine.size(), nullptr));
        }
        PlatClose(plathandle);
    });

    size_t sizetAll = strFirst.size();
    for (int iWriter = 0; iWriter < 3; ++iWriter)
    {
        for (int i = 0; i < aiLines[iWriter]; ++i)
            sizetAll += 8 + lengthOf(iWriter, i);
    }
    ASSERT_TRUE(WaitFor([&] { return SizeOf("x.log") == sizetAll; }));
    const std::string strContent = ReadWhole(strPath);
    int aiNext[3] = {};
    for (const std::string& strLine : Lines(strContent.substr(strFirst.size())))
    {
        const int iWriter = strLine.size() > 6 ? strLine[6] - 'a' : -1;
        ASSERT_TRUE(iWriter >= 0 && iWriter <= 2) << strLine;
        int& iNext = aiNext[iWriter];
        ASSERT_EQ(strLine, Line(strLine[6], iNext, lengthOf(iWriter, iNext)));
        ++iNext;
    }
}

TEST_F(SharedFile, ABegunLineIsHeldBackForAMomentOnly)
{
    const auto first = StreamTo("x.log");
    const auto second = StreamTo("x.log", "0\r\n");
    ASSERT_TRUE(FileBecomes("x.log", "0\r\n"));
    ASSERT_TRUE(first->Send("1\r\nbegun "));
    ASSERT_TRUE(FileBecomes("x.log", "0\r\n1\r\n"));
    EXPECT_TRUE(FileBecomes("x.log", "0\r\n1\r\nbegun "));
    ASSERT_TRUE(first->Send("ended\r\n" + std::string(70000, 'x')));
    EXPECT_TRUE(FileBecomes("x.log", "0\r\n1\r\nbegun ended\r\n" + std::string(70000, 'x')));
}

// Its stream was alone when the line was begun. On a machine that is too busy for that it is tried again.
TEST_F(SharedFile, AnotherStreamWaitsForTheEndOfABegunLine)
{
    for (int i = 0; i < 100; ++i)
    {
        const std::string strName = std::to_string(i) + ".log";
        const auto first = StreamTo(strName);
        ASSERT_TRUE(WaitFor([&] { return fs::exists(PathOf(strName)); }));
        const uint64_t u64Begin = PlatTicks();
        ASSERT_TRUE(first->Send("begun "));
        ASSERT_TRUE(FileBecomes(strName, "begun "));
        const auto second = StreamTo(strName, "line\r\n");
        PlatSleep(20);
        const std::string strBefore = ReadWhole(PathOf(strName));
        ASSERT_TRUE(first->Send("ended\r\n"));
        if (PlatTicks() - u64Begin < 150)
        {
            EXPECT_EQ(strBefore, "begun ");
            EXPECT_TRUE(FileBecomes(strName, "begun ended\r\nline\r\n"));
            return;
        }
    }
}

// Who ends its sending waits for the collector to close, and finds everything in the file.
TEST_F(SharedFile, AllIsWrittenWhenTheConnectionCloses)
{
    const auto keep = StreamTo("keep.log", "0");
    ASSERT_TRUE(FileBecomes("keep.log", "0"));
    for (int i = 0; i < 20; ++i)
    {
        const std::string strName = std::to_string(i) + ".log";
        const auto beside = StreamTo(strName, "0\r\n");
        ASSERT_TRUE(FileBecomes(strName, "0\r\n"));
        const auto stream = StreamTo(strName, "begun ");
        ASSERT_TRUE(stream->EndSending());
        ASSERT_TRUE(stream->IsEnded());
        ASSERT_EQ(ReadWhole(PathOf(strName)), "0\r\nbegun ");
    }
}

// ------------------------------------------------------------------------------------------- a disk without room

// Reads what a stream of numbered lines of 'x' has left in its files, in this order.
class KeptLines
{
public:
    explicit KeptLines(size_t a_sizetLetters) : m_sizetLetters(a_sizetLetters) {}

    void Read(const std::string& a_strText)
    {
        const std::vector<std::string> vecstr = Lines(a_strText);
        for (size_t sizet = 0; sizet < vecstr.size(); ++sizet)
        {
            const bool blBeforeNotice = sizet + 1 < vecstr.size() && MissingIn(vecstr[sizet + 1]) != 0;
            const bool blMayBeTorn = blBeforeNotice || sizet + 1 == vecstr.size();
            Take(vecstr[sizet], blMayBeTorn);
        }
    }

    size_t m_sizetKept = 0;
    size_t m_sizetMissing = 0;
    int m_iLast = -1;
    std::string m_strNotice;

private:
    static size_t MissingIn(const std::string& a_strLine)
    {
        const size_t sizetText = a_strLine.find(" bytes are missing here...\r\n");
        size_t sizetMissing = 0;
        if (sizetText != std::string::npos)
        {
            const size_t sizetNumber = a_strLine.rfind(' ', sizetText - 1) + 1;
            std::from_chars(&a_strLine[sizetNumber], &a_strLine[sizetText], sizetMissing);
        }
        return sizetMissing;
    }
    void Take(const std::string& a_strLine, bool a_blMayBeTorn)
    {
        int iNumber = 0;
        std::from_chars(a_strLine.data(), a_strLine.data() + std::min<size_t>(5, a_strLine.size()), iNumber);
        if (const size_t sizetMissing = MissingIn(a_strLine))
        {
            m_sizetMissing += sizetMissing;
            m_strNotice = a_strLine;
        }
        else if (a_strLine == Line('x', iNumber, m_sizetLetters))
        {
            EXPECT_GT(iNumber, m_iLast);
            m_iLast = iNumber;
            m_sizetKept += a_strLine.size();
        }
        else
        {
            EXPECT_TRUE(a_blMayBeTorn) << a_strLine;
            EXPECT_EQ(a_strLine.find("x0"), std::string::npos) << "the next line is glued to a torn one: " << a_strLine;
            m_sizetKept += a_strLine.size() - (a_strLine.ends_with("\r\n") ? 2 : 0);
        }
    }

    const size_t m_sizetLetters;
};

// Sends numbered lines until a condition holds.
class LineSender
{
public:
    explicit LineSender(StreamClient& a_streamclient) : m_streamclient(a_streamclient) {}

    template <class Condition>
    bool SendUntil(Condition a_condition)
    {
        return WaitFor([&] { return a_condition() || !Send(100); });
    }
    bool Send(int a_iLines)
    {
        std::string strText;
        for (int i = 0; i < a_iLines; ++i)
            strText += Line('x', m_iNext++, sizetLetters);
        m_sizetSent += strText.size();
        return SendInPieces(m_streamclient, strText, static_cast<uint32_t>(m_iNext), 900);
    }

    static constexpr size_t sizetLetters = 92;
    size_t m_sizetSent = 0;
    int m_iNext = 0;

private:
    StreamClient& m_streamclient;
};

using DiskWithoutRoom = CollectorTest;

// A file system of its own that is filled, in a mount namespace of this case.
TEST_F(DiskWithoutRoom, SaysWhatIsMissingAndGoesOnWithAWholeLine)
{
    CollectorProcess collector;
    fs::create_directory(PathOf("disk"));
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", PathOf("disk").c_str(), "tmpfs", 0, "size=512k") != 0)
        GTEST_SKIP() << "no file system of its own for a user who may not mount one";
    ASSERT_TRUE(collector.StartFor(ProgramPath("logcollector"), PlatProcessId()));

    StreamClient stream(collector.Port());
    ASSERT_TRUE(stream.Send(Header(PathOf("disk/x.log"))));
    LineSender linesender(stream);
    for (int iRound = 0; iRound < 3; ++iRound)
    {
        ASSERT_TRUE(linesender.Send(200));
        WriteWhole(PathOf("disk/filler"), std::string(1 << 20, 'f'));
        const size_t sizetSize = SizeOf("disk/x.log");
        ASSERT_TRUE(linesender.Send(400) && stream.IsRead()) << sizetSize;
        fs::remove(PathOf("disk/filler"));
        const size_t sizetBefore = SizeOf("disk/x.log");
        ASSERT_TRUE(linesender.SendUntil([&] { return SizeOf("disk/x.log") > sizetBefore + 10000; }));
    }
    ASSERT_TRUE(stream.EndSending() && stream.IsEnded());
    KeptLines keptlines(LineSender::sizetLetters);
    keptlines.Read(ReadWhole(PathOf("disk/x.log")));
    EXPECT_GT(keptlines.m_sizetMissing, 0u);
    EXPECT_EQ(keptlines.m_sizetKept + keptlines.m_sizetMissing, linesender.m_sizetSent);
    EXPECT_EQ(keptlines.m_iLast, linesender.m_iNext - 1);
}

// A file that may not grow is moved away: a new one takes its name.
TEST_F(DiskWithoutRoom, AFileAtItsSizeLimitCountsWhatItDoesNotTake)
{
    CollectorProcess collector;
    const uint16_t u16Port = StartLimited(collector, "-f 100");
    ASSERT_NE(u16Port, 0);
    StreamClient stream(u16Port);
    ASSERT_TRUE(stream.Send(Header(PathOf("x.log"))));
    LineSender linesender(stream);
    ASSERT_TRUE(linesender.Send(2000));
    ASSERT_TRUE(linesender.SendUntil([&] { return SizeOf("x.log") % 51200 == 0 && SizeOf("x.log") != 0; }));
    ASSERT_TRUE(stream.IsRead());   // what comes after the move would fill the new file as well
    fs::rename(PathOf("x.log"), PathOf("x.1"));
    ASSERT_TRUE(linesender.Send(1));
    ASSERT_TRUE(WaitFor([&] { return fs::exists(PathOf("x.log")); }));
    ASSERT_TRUE(linesender.Send(1) && stream.EndSending() && stream.IsEnded());

    KeptLines keptlines(LineSender::sizetLetters);
    keptlines.Read(ReadWhole(PathOf("x.1")));
    keptlines.Read(ReadWhole(PathOf("x.log")));
    EXPECT_EQ(keptlines.m_sizetKept + keptlines.m_sizetMissing, linesender.m_sizetSent);
    const std::string& strNotice = keptlines.m_strNotice;
    EXPECT_EQ(strNotice.substr(0, 6), "00000 ");
    EXPECT_EQ(strNotice.substr(18, 34), " os_coslogcollector               ");
    EXPECT_NE(strNotice.find(" S9 VE "), std::string::npos) << strNotice;
}

// ------------------------------------------------------------------------------------------- a file that goes

TEST_F(SharedFile, ARemovedFileIsMadeAgainWithItsFolder)
{
    const std::string strFolder = PathOf("log.20240101");
    const auto stream = StreamTo("log.20240101/sub/x.log", "0\r\n");
    ASSERT_TRUE(FileBecomes("log.20240101/sub/x.log", "0\r\n"));
    const std::function<void()> aremove[] = {
        [&] { fs::remove(strFolder + "/sub/x.log"); },
        [&] { fs::rename(strFolder + "/sub/x.log", strFolder + "/sub/moved"); },
        [&] { fs::remove_all(strFolder); },
        [&] { fs::rename(strFolder, PathOf("moved")); },
    };
    for (const auto& remove : aremove)
    {
        remove();
        ASSERT_TRUE(WaitFor([&] {
            EXPECT_TRUE(stream->Send("line\r\n"));
            return fs::exists(strFolder + "/sub/x.log");
        }));
        ASSERT_TRUE(stream->Send("last\r\n"));
        ASSERT_TRUE(WaitFor([&] { return ReadWhole(strFolder + "/sub/x.log").ends_with("line\r\nlast\r\n"); }));
        EXPECT_TRUE(COsLogFolderLock::IsHeldByOthers(strFolder.c_str())) << "round " << &remove - aremove;
    }
}
