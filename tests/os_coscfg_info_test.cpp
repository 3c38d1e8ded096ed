// os_coscfg_info_test.cpp: facts about the machine, the user's name, the brand record.
#include "coscfg_support.h"

#include <cstring>

namespace fs = std::filesystem;

// ------------------------------------------------------------------------------------------------------- the system

TEST(SystemName, ComesFromTheVersion)
{
    struct Case
    {
        uint32_t u32Major, u32Minor, u32ProductType;
        const char* szName;
        uint32_t u32Id;
    };
    for (const Case& each :
         {Case{6, 18, 0, "WinXX0618", 1}, Case{4, 0, 1, "WinNT", 6}, Case{5, 2, 3, "WinXP", 8},
          Case{6, 0, 1, "WinVista", 10}, Case{6, 1, 2, "Win2008R2", 13}, Case{6, 3, 3, "Win2012R2", 17},
          Case{6, 4, 3, "Win10", 18}, Case{10, 0, 1, "Win10", 18}, Case{11, 0, 1, "Win11", 19}})
    {
        PlatVersion platversion = {};
        platversion.u32Platform = each.u32ProductType ? 2 : 0;
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

TEST(Info, HostAndVolumeAreToldOnce)
{
    LogCapture log;
    const std::string strHost = OsCfgInfoString(OS_CFGINFO_NETWORK_HOSTNAME);
    const std::string strSerial = OsCfgInfoString(OS_CFGINFO_VOLUME_SERIALNUMBER);
    EXPECT_EQ(strSerial.substr(8), "-0000-0000-0000-000000000000");
    EXPECT_EQ(log.Count("OS_CFGINFO_NETWORK_HOSTNAME..........." + strHost.substr(0, strHost.find('.'))), 1u);
    EXPECT_TRUE(log.HasAt(OS_LOG_NOTE, "OS_CFGINFO_VOLUME_SERIALNUMBER.........<" + strSerial + ">"));
    EXPECT_EQ(log.Lines().size(), 3u);
}

// The logger's header asks while the first line is on its way, and may be the first to ask.
TEST(Info, ALogLineOfTheGatheringMayAsk)
{
    int iAsked = 0;
    const CallingSink callingsink([&iAsked] {
        EXPECT_GE(OsCfgInfoLong(OS_CFGINFO_CPU_TOTAL), 1);
        EXPECT_STREQ(OsCfgBrand("companynameshort"), "Orvane");
        EXPECT_STRNE(OsCfgInfoString(OS_CFGINFO_OS_USERNAME), "");
        ++iAsked;
    });
    EXPECT_STREQ(OsCfgBrand("companynameshort"), "Orvane");
    EXPECT_GT(iAsked, 0);
}

// --------------------------------------------------------------------------------------------------------- the user

using UserName = FolderTest;

TEST_F(UserName, IsTheLastUserInTheServicesSession)
{
    setenv("MVR_SESSION", "0", 1);
    const fs::path path = fs::path(getenv("PROGRAMDATA")) / "mvr_orvane" / "common";
    fs::create_directories(path);
    WriteWhole(path / "lastuser.txt", "someone\r\n");
    EXPECT_TRUE(OsCfgIsService());
    EXPECT_STREQ(OsCfgInfoString(OS_CFGINFO_OS_USERNAME), "someone");
}

// -------------------------------------------------------------------------------------------------------- the brand

TEST(Brand, AProgramWithoutOneHasTheMakersOwn)
{
    EXPECT_STREQ(OsCfgBrand("CompanyName"), "Orvane Imaging");
    EXPECT_STREQ(OsCfgBrand("readableFolderName"), "mvr_orvane");
    EXPECT_STREQ(OsCfgBrand("nothing"), "");
    EXPECT_STREQ(OsCfgBrand(nullptr), "");
    EXPECT_EQ(std::string(OsCfgBrand("BrandXml")).rfind("<brand>", 0), 0u);
}

TEST(Brand, OneWordOfTheEnvironmentChangesTheCompany)
{
    setenv("MVR_COMPANYNAMESHORT", "Brisal", 1);
    EXPECT_STREQ(OsCfgBrand("companyname"), "Brisal");
    EXPECT_STREQ(OsCfgBrand("companyprefix"), "brisal");
    EXPECT_STREQ(OsCfgBrandFolder(), "Brisal");
    EXPECT_NE(std::strstr(OsCfgBrand("brandxml"), "<companynameshort>Brisal</companynameshort>"), nullptr);
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
    ASSERT_EQ(AppendResources(strProgram, "BRAND=@" + PathOf("brand.xml")), 0);
    EXPECT_EQ(RunDisabledCase(strProgram, "CarriedBrand.*"), 0);
}
