// house_test.cpp: the house rules that only the text of the sources can break: includes run downwards and never in a
// circle, public headers include public headers alone, and the operating system is named in the platform layer alone.
#include "test_support.h"

#include <map>
#include <set>
#include <sstream>

namespace fs = std::filesystem;

static std::vector<fs::path> SourcesBelow(const std::string& a_strFolder)
{
    std::vector<fs::path> vecpath;
    for (const auto& entry : fs::recursive_directory_iterator(fs::path(TEST_SOURCEFOLDER) / a_strFolder))
    {
        if (entry.path().extension() == ".cpp" || entry.path().extension() == ".h")
            vecpath.push_back(entry.path());
    }
    return vecpath;
}

// What the include lines name between these two characters.
static std::vector<std::string> Includes(const fs::path& a_path, char a_chOpen, char a_chClose)
{
    std::vector<std::string> vecstr;
    std::ifstream stream(a_path);
    for (std::string strLine; std::getline(stream, strLine);)
    {
        const size_t sizetOpen = strLine.find(a_chOpen);
        const size_t sizetClose = strLine.rfind(a_chClose);
        if (strLine.rfind("#include", 0) == 0 && sizetOpen < sizetClose)
            vecstr.push_back(strLine.substr(sizetOpen + 1, sizetClose - sizetOpen - 1));
    }
    return vecstr;
}

static bool SwitchesBySystem(const fs::path& a_path)
{
    std::ifstream stream(a_path);
    for (std::string strLine; std::getline(stream, strLine);)
    {
        const bool blSystem =
            strLine.find("_WIN32") != std::string::npos || strLine.find("__linux__") != std::string::npos;
        if (blSystem && strLine.find("#") != std::string::npos)
            return true;
    }
    return false;
}

// The class of a library file is the longest of these beginnings of its name; it stands on a floor.
static std::pair<std::string, int> ClassOf(const std::string& a_strName)
{
    static const std::map<std::string, int> g_mapfloor = {
        {"os_types", 0},
        {"os_log", 0},
        {"os_cfg", 0},
        {"os_cosspinlock", 0},
        {"os_scope", 0},
        {"os_new", 0},
        {"os_cosstring", 1},
        {"os_cosxml", 1},
        {"os_cospath", 1},
        {"os_costime", 1},
        {"os_coslocale", 1},
        {"os_cosenv", 1},
        {"os_cosredact", 1},
        {"os_coswideprintf", 1},
        {"os_cosmem", 2},
        {"os_cossync", 2},
        {"os_coslnk", 2},
        {"os_cosarguments", 2},
        {"os_costhread", 3},
        {"os_cosfile", 3},
        {"os_cossocket", 3},
        {"os_coslog", 4},
        {"os_coslogcollector", 4},
        {"os_coslogfolder", 3},
        {"os_coslogline", 3},
        {"os_coscfg", 4},
        {"os_cosresource", 3},
        {"os_cosservices", 5},
        {"os_cosringbuffer", 3},
        {"logcollector", 5},
        {"os_coslogstatus", 3},
    };
    std::pair<std::string, int> pairClass{"", -1};
    for (const auto& [strPrefix, iFloor] : g_mapfloor)
    {
        if (a_strName.rfind(strPrefix, 0) == 0 && strPrefix.size() > pairClass.first.size())
            pairClass = {strPrefix, iFloor};
    }
    return pairClass;
}

static int FloorOf(const std::string& a_strName)
{
    return ClassOf(a_strName).second;
}

// Who includes whom.
using Graph = std::map<std::string, std::set<std::string>>;

// A way along the edges from a_strFrom to a_strTo, "" when there is none.
static std::string WayBetween(const Graph& a_graph, const std::string& a_strFrom, const std::string& a_strTo,
                              std::set<std::string>& a_setstrSeen)
{
    const auto it = a_graph.find(a_strFrom);
    for (const std::string& strNext : it == a_graph.end() ? std::set<std::string>{} : it->second)
    {
        if (strNext == a_strTo)
            return a_strFrom + " > " + a_strTo;
        if (!a_setstrSeen.insert(strNext).second)
            continue;
        if (const std::string strRest = WayBetween(a_graph, strNext, a_strTo, a_setstrSeen); !strRest.empty())
            return a_strFrom + " > " + strRest;
    }
    return "";
}

static std::string Circles(const Graph& a_graph)
{
    std::string strCircles;
    for (const auto& [strNode, setstrNext] : a_graph)
    {
        std::set<std::string> setstrSeen;
        if (const std::string strWay = WayBetween(a_graph, strNode, strNode, setstrSeen); !strWay.empty())
            strCircles += strWay + "\n";
    }
    return strCircles;
}

TEST(House, IncludesOfTheLibraryRunDownwards)
{
    for (const fs::path& path : SourcesBelow("os"))
    {
        const int iFloor = FloorOf(path.stem());
        ASSERT_GE(iFloor, 0) << path << " stands on no floor";
        for (const std::string& strInclude : Includes(path, '"', '"'))
        {
            const bool blSeam = strInclude.rfind("plat_", 0) == 0;
            EXPECT_TRUE(blSeam || FloorOf(strInclude) >= 0) << path << " includes " << strInclude;
            EXPECT_FALSE(blSeam && iFloor == 0) << path << " is on the ground floor and includes " << strInclude;
            EXPECT_LE(blSeam ? 0 : FloorOf(strInclude), iFloor) << path << " includes " << strInclude;
        }
    }
}

TEST(House, NoIncludesRunInACircle)
{
    Graph graphFiles;
    Graph graphClasses;
    for (const char* szFolder : {"os", "platform"})
    {
        for (const fs::path& path : SourcesBelow(szFolder))
        {
            for (const std::string& strInclude : Includes(path, '"', '"'))
            {
                graphFiles[path.filename()].insert(strInclude);
                const std::string strClass = ClassOf(path.stem()).first;
                if (!strClass.empty() && strClass != ClassOf(strInclude).first)
                    graphClasses[strClass].insert(ClassOf(strInclude).first);
            }
        }
    }
    EXPECT_EQ(Circles(graphFiles), "");
    EXPECT_EQ(Circles(graphClasses), "");
}

TEST(House, PublicHeadersIncludePublicHeadersAlone)
{
    for (const auto& entry : fs::directory_iterator(fs::path(TEST_SOURCEFOLDER) / "os/source"))
    {
        if (entry.path().extension() != ".h")
            continue;
        for (const std::string& strInclude : Includes(entry.path(), '"', '"'))
            EXPECT_TRUE(fs::exists(entry.path().parent_path() / strInclude))
                << entry.path() << " includes " << strInclude;
    }
}

TEST(House, ConformanceSuiteIncludesThePlatformLayerAlone)
{
    for (const auto& entry : fs::directory_iterator(fs::path(TEST_SOURCEFOLDER) / "tests"))
    {
        if (entry.path().filename().string().rfind("plat_", 0) != 0)
            continue;
        for (const std::string& strInclude : Includes(entry.path(), '"', '"'))
            EXPECT_EQ(strInclude.rfind("plat_", 0), 0u) << entry.path() << " includes " << strInclude;
    }
}

TEST(House, TheOperatingSystemIsNamedInThePlatformLayerAlone)
{
    // The headers of C++ that the sources above the platform layer may use.
    std::istringstream stream(
        "algorithm array atomic bit cctype cerrno charconv chrono cinttypes climits cmath compare "
        "condition_variable cstdarg cstddef cstdint cstdio cstdlib cstring ctime exception functional "
        "initializer_list iterator limits memory mutex new numeric optional span stdexcept string "
        "string_view thread type_traits utility vector");
    const std::set<std::string> setstrAllowed{std::istream_iterator<std::string>(stream), {}};
    for (const char* szFolder : {"os", "logcollector"})
    {
        for (const fs::path& path : SourcesBelow(szFolder))
        {
            for (const std::string& strInclude : Includes(path, '<', '>'))
                EXPECT_TRUE(setstrAllowed.count(strInclude)) << path << " includes <" << strInclude << ">";
            EXPECT_FALSE(SwitchesBySystem(path)) << path;
        }
    }
    for (const fs::path& path : SourcesBelow("platform"))
    {
        for (const std::string& strInclude : Includes(path, '"', '"'))
            EXPECT_EQ(strInclude.rfind("plat_", 0), 0u) << path << " calls upward: " << strInclude;
    }
}
