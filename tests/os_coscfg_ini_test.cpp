// os_coscfg_ini_test.cpp: INI files into the table: what each file may set, which one wins, the section prefix, and
// files that are none.
#include "coscfg_support.h"

#include "os_coscfg.h"

using IniFile = ConfigurationTest;

TEST_F(IniFile, DebugKeysComeFromDebugIniAloneWhileItIsInUse)
{
    PutConst("[app.dsIdentity]\r\nDebug=7\r\ndebugsockets=1\r\nLogBackup=9\r\n");
    PutDebug("[app.dsIdentity]\r\nDEBUG=4\r\nLogBackup=11\r\n[app.Brand]\r\nUrlCompany=x\r\nDebug=5\r\n");
    COsCfg oscfg({});
    ExpectTags(oscfg, {{OS_CFGTAG_DEBUG, "4"}, {OS_CFGTAG_DEBUGSOCKETS, "0"}, {OS_CFGTAG_LOGBACKUP, "9"}});
    EXPECT_STRNE(oscfg.GetString(OS_CFGSECTION_BRAND, OS_CFGTAG_URLCOMPANY), "x");
}

TEST_F(IniFile, DebugKeysComeFromConstIniWhenDebugIniIsOff)
{
    PutCommon("usedebugini=NO\r\n");
    PutConst("[app.dsIdentity]\r\nDebug=7\r\n");
    COsCfg oscfg({});
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_DEBUG), "7");
}

TEST_F(IniFile, ALineIsTakenAsItIsWritten)
{
    PutConst("\xEF\xBB\xBF[app.DSIDENTITY] tail\nforcespawnretry= \t 5 \nLogBackup =9\n;ForceGUI=1\nForceAccess\n"
             "ForceProbe=1\nForceProbe=2\r\n\r\nForceIccProfile=a=b\r=x\nUnknown=1\n[app.Other]\nForceMaxMsg=99\n"
             "[app.supportedsizes]\nN50=last\n[app.MVR_ALL.DS]\nJpegQuantization_Y_5=1\n"
             "[app.x.mvr_all.ds]\nJpegQuantization_Y_10=2\n[dsIdentity]\nLogBackup=8\n[APP.any.dsIdentity]\n"
             "ForceUnitsBehavior=5\nLogDirectory=C:\\elsewhere");
    COsCfg oscfg({});
    ExpectTags(oscfg, {{OS_CFGTAG_FORCESPAWNRETRY, "5 "},
                       {OS_CFGTAG_LOGBACKUP, "6"},
                       {OS_CFGTAG_FORCEGUI, ""},
                       {OS_CFGTAG_FORCEACCESS, "0"},
                       {OS_CFGTAG_FORCEPROBE, "2"},
                       {OS_CFGTAG_FORCEICCPROFILE, "a=b"},
                       {OS_CFGTAG_FORCEMAXMSG, "10"}});
    EXPECT_STREQ(oscfg.GetString(OS_CFGSECTION_SUPPORTEDSIZES, OS_CFGTAG_N50), "last");
    EXPECT_STREQ(oscfg.GetString(OS_CFGSECTION_MVRALLDS, OS_CFGTAG_JPEGQUANTIZATION_Y_05), "1");
    EXPECT_STREQ(oscfg.GetString(OS_CFGSECTION_MVRALLDS, OS_CFGTAG_JPEGQUANTIZATION_Y_10), "2");
    EXPECT_EQ(Tag(oscfg, OS_CFGTAG_FORCEUNITSBEHAVIOR), "5");
    EXPECT_NE(Tag(oscfg, OS_CFGTAG_LOGDIRECTORY), "C:\\elsewhere") << "computed";
}

TEST_F(IniFile, SimulationSectionsComeFromDebugIni)
{
    static const OsCfgExtension g_aSection[] = {
        {1001, "Simulation"}, {1002, "TestImages"}, {1003, "Plain"}, {1000, ""}};
    static const OsCfgExtension g_aTag[] = {{1001, "Key"}, {1000, ""}};
    PutConst("[app.Simulation]\nKey=const\n[app.TestImages]\nKey=const\n[app.Plain]\nKey=const\n");
    PutDebug("[app.TestImages]\nKey=debug\n[app.Plain]\nKey=debug\n");
    COsCfg::CreateArgs createargs;
    createargs.aoscfgextensionSection = g_aSection;
    createargs.aoscfgextensionTag = g_aTag;
    COsCfg oscfg(createargs);
    const auto value = [&](uint32_t a_u32Section) {
        return std::string(oscfg.GetString(static_cast<EOSCFGSECTION>(a_u32Section), static_cast<EOSCFGTAG>(1001)));
    };
    EXPECT_EQ(value(1001), "");
    EXPECT_EQ(value(1002), "debug");
    EXPECT_EQ(value(1003), "const");
}

TEST_F(IniFile, TheLegacyLayoutReadsTheSharedFileAfterTheLegacyOne)
{
    PutCommon("UseProtectedConstIni=no\r\n");
    std::string strShared;
    {
        COsCfg oscfg({});
        strShared = Tag(oscfg, OS_CFGTAG_CONSTINISHARED);
    }
    ASSERT_NE(strShared, "");
    PutConst("[app.dsIdentity]\nLogBackup=1\n");
    Put(strShared, "[dsIdentity]\nDebug=3\nLogBackup=9\n");
    COsCfg oscfg({});
    ExpectTags(oscfg, {{OS_CFGTAG_DEBUG, "3"}, {OS_CFGTAG_LOGBACKUP, "9"}});
}

// ------------------------------------------------------------------------------------------------- the section prefix

TEST_F(IniFile, ThePrefixIsMadeOfTheOverrideFolderAndTheUniqueName)
{
    OsArgumentsSet(OS_ARGUMENT_OVERRIDEFOLDER, "lib/drvlet\\hvcfgmgr");
    OsArgumentsSet(OS_ARGUMENT_UNIQUENAME, "mvr");
    EXPECT_STREQ(OsCfgSectionPrefix(), "lib.hvcfgmgr.twain.");
}

// --------------------------------------------------------------------------------------------- files that are none

TEST_F(IniFile, HostileTextsSetNothingAndHarmNothing)
{
    for (const std::string& strText :
         {std::string(), std::string("["), std::string("[app.dsIdentity\nLogBackup=9"), std::string("\xEF\xBB\xBF"),
          std::string("[app.dsIdentity]\n=9\n==\n"), std::string("\0[app.dsIdentity]\nLogBackup=9", 29),
          std::string(70000, 'x'), "[" + std::string(70000, 'd'), std::string("]\n=\n[]\nLogBackup=9")})
    {
        PutConst(strText);
        COsCfg oscfg({});
        EXPECT_EQ(Tag(oscfg, OS_CFGTAG_LOGBACKUP), "6") << strText.substr(0, 20);
    }
}
