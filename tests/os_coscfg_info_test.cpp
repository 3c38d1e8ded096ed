// os_coscfg_info_test.cpp: facts about the machine, the user's name, the brand record.
#include "os_coscfg_impl.h"
#include "test_support.h"

#include <cstring>
#include <set>

namespace fs = std::filesystem;

// ------------------------------------------------------------------------------------------------------- the system

TEST(SystemName, ComesFromTheVersion)
{
    struct Case
    {
        uint32_t u32Platform, u32Major, u32Minor, u32ProductType;
        const char* szName;
        uint32_t u32Id;
    };
    static constexpr Case g_acase[] = {
        {0, 6, 18, 1, "WinXX0618", 1}, {2, 4, 0, 1, "WinNT", 6},     {2, 5, 0, 3, "Win2K", 7},
        {2, 5, 2, 3, "WinXP", 8},      {2, 6, 0, 1, "WinVista", 10}, {2, 6, 1, 2, "Win2008R2", 13},
        {2, 6, 2, 3, "Win2012", 15},   {2, 6, 3, 1, "Win8.1", 16},   {2, 6, 3, 3, "Win2012R2", 17},
        {2, 6, 4, 3, "Win10", 18},     {2, 10, 0, 1, "Win10", 18},   {2, 11, 0, 1, "Win11", 19},
    };
    for (const Case& each : g_acase)
    {
        PlatVersion platversion = {};
        platversion.u32Platform = each.u32Platform;
        platversion.u32Major = each.u32Major;
        platversion.u32Minor = each.u32Minor;
        platversion.u32ProductType = each.u32ProductType;
        char szName[OS_SYSTEMNAMESIZE];
        uint32_t u32Id = 0;
        OsCfgNameSystem(platversion, szName, sizeof szName, &u32Id);
        EXPECT_STREQ(szName, each.szName);
        EXPECT_EQ(u32Id, each.u32Id) << each.szName;
    }
}

TEST(Info, NumbersAndTextsAreOfOneMachine)
{
    PlatVersion platversion = {};
    ASSERT_TRUE(PlatVersionGet(PLAT_VERSION_COOKED, &platversion));
    EXPECT_EQ(OsCfgInfoString(OS_CFGINFO_OS_BUILDSTRING), std::to_string(platversion.u32Build));
    EXPECT_EQ(OsCfgInfoLong(OS_CFGINFO_OS_KERNELVERSIONSTRING), platversion.u32Major * 100 + platversion.u32Minor);
    EXPECT_EQ(OsCfgInfoLong(OS_CFGINFO_OS_KERNELVERSIONSTRING), atoi(OsCfgInfoString(OS_CFGINFO_OS_VERSIONSTRING)));
    EXPECT_EQ(OsCfgInfoLong(OS_CFGINFO_OS_PLATFORM), 0);
    EXPECT_EQ(OsCfgInfoLong(OS_CFGINFO_CPU_PROCESSBITS), 64);
    EXPECT_EQ(OsCfgInfoLong(OS_CFGINFO_CPU_TOTAL), PlatProcessorCount());
    EXPECT_GT(OsCfgInfoLong(OS_CFGINFO_MEM_TOTALPHYSICAL), OsCfgInfoLong(OS_CFGINFO_MEM_AVAILABLEPHYSICAL));
    EXPECT_EQ(OsCfgInfoLong(OS_CFGINFO_MEM_AVAILABLEPHYSICAL), OsCfgInfoLong(OS_CFGINFO_MEM_AVAILABLEPHYSICAL));
}

TEST(Info, HostAndVolumeAreToldOnce)
{
    LogCapture log;
    const std::string strHost = OsCfgInfoString(OS_CFGINFO_NETWORK_HOSTNAME);
    const std::string strSerial = OsCfgInfoString(OS_CFGINFO_VOLUME_SERIALNUMBER);
    EXPECT_EQ(strHost.find('.'), std::string::npos);
    EXPECT_EQ(strSerial.substr(8), "-0000-0000-0000-000000000000");
    EXPECT_EQ(log.Count("OS_CFGINFO_NETWORK_HOSTNAME..........." + strHost), 1u);
    EXPECT_TRUE(log.HasAt(OS_LOG_NOTE, "OS_CFGINFO_VOLUME_DEVICEID.............<" +
                                           std::string(OsCfgInfoString(OS_CFGINFO_VOLUME_DEVICEID)) + ">"));
    EXPECT_TRUE(log.HasAt(OS_LOG_NOTE, "OS_CFGINFO_VOLUME_SERIALNUMBER.........<" + strSerial + ">"));
    EXPECT_EQ(log.Lines().size(), 3u);
}

// Each item has a text, a number, or both; what it has not is refused.
TEST(Info, ItemsOfTheOtherKindAreRefused)
{
    static const std::set<int> g_setText = {1, 2, 3, 4, 9, 33, 36, 37, 41, 42, 43, 45, 46};
    LogCapture log;
    for (int i = 0; i <= 48; ++i)
    {
        const auto eoscfginfo = static_cast<EOSCFGINFO>(i);
        const std::string strItem = std::to_string(i);
        const bool blText = g_setText.count(i) != 0;
        const bool blNumber = i == 4 || (i >= 1 && i <= 46 && !blText);
        log.Clear();
        const std::string strText = OsCfgInfoString(eoscfginfo);
        EXPECT_EQ(log.HasAt(OS_LOG_ERROR, "COsCfg::InfoGetString: Unsupported..." + strItem), !blText);
        EXPECT_TRUE(blText || strText == "(nodata)");
        log.Clear();
        const int64_t i64Number = OsCfgInfoLong(eoscfginfo);
        EXPECT_EQ(log.Count("COsCfg::InfoGetLong: Unsupported..." + strItem), blNumber ? 0u : 1u);
        EXPECT_TRUE(blNumber || i64Number == 0);
    }
}

// The logger's header asks while the first line is on its way, and may be the first to ask.
TEST(Info, ALogLineOfTheGatheringMayAsk)
{
    class AskingLogger final : public COsLogSink
    {
    public:
        AskingLogger() { g_poslogsink.store(this); }
        ~AskingLogger() { g_poslogsink.store(nullptr); }
        void VPrintf(const char*, uint32_t, uint32_t, const char*, va_list) override
        {
            if (m_blInside)
                return;
            m_blInside = true;
            EXPECT_GE(OsCfgInfoLong(OS_CFGINFO_CPU_TOTAL), 1);
            EXPECT_STREQ(OsCfgBrand("companynameshort"), "Orvane");
            EXPECT_STRNE(OsCfgInfoString(OS_CFGINFO_OS_USERNAME), "");
            m_blInside = false;
            m_blAsked = true;
        }
        uint32_t WorkingWord() const override { return 0; }
        bool m_blInside = false;
        bool m_blAsked = false;
    };
    AskingLogger askinglogger;
    EXPECT_STREQ(OsCfgBrand("companynameshort"), "Orvane");
    EXPECT_TRUE(askinglogger.m_blAsked);
}

// --------------------------------------------------------------------------------------------------------- the user

class UserName : public FolderTest
{
protected:
    void LeaveLastUser(const std::string& a_strText)
    {
        setenv("MVR_SESSION", "0", 1);
        const fs::path path = m_path / "system" / "PROGRAMDATA" / "mvr_orvane" / "common";
        fs::create_directories(path);
        WriteWhole(path / "lastuser.txt", a_strText);
    }
    static std::string Account()
    {
        char16_t wszName[256] = {};
        PlatUserName(PLAT_USER_ACCOUNT, wszName, 256);
        const std::u16string wstrName = wszName;
        return {wstrName.begin(), wstrName.end()};
    }
};

TEST_F(UserName, IsTheAccountInAUsersSession)
{
    EXPECT_FALSE(OsCfgIsService());
    EXPECT_EQ(OsCfgInfoString(OS_CFGINFO_OS_USERNAME), Account());
}

TEST_F(UserName, IsTheLastUserInTheServicesSession)
{
    LeaveLastUser("someone\r\n");
    EXPECT_TRUE(OsCfgIsService());
    EXPECT_STREQ(OsCfgInfoString(OS_CFGINFO_OS_USERNAME), "someone");
}

TEST_F(UserName, APathIsNoLastUser)
{
    LeaveLastUser("../../etc");
    EXPECT_EQ(OsCfgInfoString(OS_CFGINFO_OS_USERNAME), Account());
}

// -------------------------------------------------------------------------------------------------------- the brand

TEST(Brand, AProgramWithoutOneHasTheMakersOwn)
{
    EXPECT_STREQ(OsCfgBrand("CompanyName"), "Orvane Imaging");
    EXPECT_STREQ(OsCfgBrand("readableFolderName"), "mvr_orvane");
    EXPECT_STREQ(OsCfgBrand("nothing"), "");
    EXPECT_STREQ(OsCfgBrand(nullptr), "");
    EXPECT_EQ(std::string(OsCfgBrand("BrandXml")).rfind("<brand>", 0), 0u);

    size_t sizetEntries = 0;
    const char* szValue = nullptr;
    while (const char* const szName = OsCfgBrandEntry(sizetEntries, &szValue))
    {
        EXPECT_STREQ(OsCfgBrand(szName), szValue);
        ++sizetEntries;
    }
    EXPECT_EQ(sizetEntries, 12u);
}

TEST(Brand, OneWordOfTheEnvironmentChangesTheCompany)
{
    setenv("MVR_COMPANYNAMESHORT", "Brisal", 1);
    EXPECT_STREQ(OsCfgBrand("companyname"), "Brisal");
    EXPECT_STREQ(OsCfgBrand("companynameshort"), "Brisal");
    EXPECT_STREQ(OsCfgBrand("companyprefix"), "brisal");
    EXPECT_NE(std::strstr(OsCfgBrand("brandxml"), "<companynameshort>Brisal</companynameshort>"), nullptr);
}

TEST(Brand, AWordThatDoesNotFitChangesNothing)
{
    setenv("MVR_COMPANYNAMESHORT", std::string(64, 'x').c_str(), 1);
    EXPECT_STREQ(OsCfgBrand("companynameshort"), "Orvane");
}

// Runs in a copy of this test that carries the document of the next case.
TEST(CarriedBrand, DISABLED_IsWalked)
{
    LogCapture log;
    EXPECT_STREQ(OsCfgBrand("companyname"), "Quorra & <Sons>");
    EXPECT_STREQ(OsCfgBrand("copyright"), "with attributes");
    EXPECT_STREQ(OsCfgBrand("productname"), "behind the overlong one");
    EXPECT_STREQ(OsCfgBrand("svttitle"), "");
    EXPECT_STREQ(OsCfgBrand("behind"), "");
    EXPECT_STREQ(OsCfgBrand("writeablefoldername"), "quorra");   // filled in
    EXPECT_TRUE(log.HasAt(OS_LOG_CHECK, "buffer overflow...<brand> 512 <svttitle> <" + std::string(512, 'v') + ">"));
}

TEST_F(UserName, TheBrandIsTheOneThatTheProgramCarries)
{
    std::string strDocument = "<?xml version=\"1.0\"?><!-- <brand2> --><brand><!-- note --><master/>"
                              "<companyname><![CDATA[Quorra & <Sons>]]></companyname>"
                              "<companynameshort>quorra</companynameshort>"
                              "<copyright a=\"1\">with attributes</copyright><svttitle>" +
                              std::string(512, 'v') +
                              "</svttitle><productname>behind the overlong one</productname>"
                              "<readablefoldername>f</readablefoldername><writeablefoldername></writeablefoldername>";
    WriteWhole(PathOf("brand.xml"), strDocument + "</brand><behind>x</behind>");
    const std::string strProgram = PathOf("program");
    fs::copy_file("/proc/self/exe", strProgram);
    ASSERT_EQ(
        std::system((TEST_PROGRAMFOLDER "/append_resources " + strProgram + " BRAND=@" + PathOf("brand.xml")).c_str()),
        0);
    EXPECT_EQ(std::system((strProgram + " --gtest_also_run_disabled_tests --gtest_filter=CarriedBrand.*").c_str()), 0);
}
