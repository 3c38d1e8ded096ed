// os_coscfg_report_test.cpp: the support report, read back and compared with what it reports.
#include "coscfg_support.h"

#include "os_cosmem.h"

#include <memory>

class ConfigurationReport : public ConfigurationTest
{
protected:
    ConfigurationReport() { Make(OS_CFGENTITY_APPLICATION); }

    void Make(EOSCFGENTITY a_eoscfgentity)
    {
        COsCfg::CreateArgs createargs;
        createargs.szUniqueName = "prog";
        createargs.eoscfgentity = a_eoscfgentity;
        createargs.aoscfgextensionSection = m_aoscfgextensionSection;
        createargs.aoscfgextensionTag = m_aoscfgextensionTag;
        m_oscfgimpl = std::make_unique<COsCfgImpl>(createargs);
        SStrCpy(m_oscfgimpl->m_szLogDirectory, OS_PATHSIZE, PathOf("logs").c_str());
        m_oscfgimpl->m_oscfgtable.Set(OS_CFGSECTION_DSIDENTITY, OS_CFGTAG_MODELDIRECTORYREAL, "model01");
    }

    // The text from one line that has the heading to the next one, or to the end.
    static std::string Section(const std::string& a_strReport, const std::string& a_strHeading)
    {
        const size_t sizetHeading = a_strReport.find("*** " + a_strHeading + " ***");
        if (sizetHeading == std::string::npos)
            return "";
        return a_strReport.substr(sizetHeading, a_strReport.find("\r\n***", sizetHeading) - sizetHeading);
    }
    std::string Written(const std::string& a_strFile = "logs/mvroscfg.txt")
    {
        EXPECT_EQ(m_oscfgimpl->WriteReport(), EOSSTS_SUCCESS);
        return ReadWhole(PathOf(a_strFile));
    }
    static std::string Dotted(std::string a_strName, size_t a_sizetColumn, const std::string& a_strValue)
    {
        a_strName.append(a_sizetColumn - std::min(a_sizetColumn, a_strName.size()), '.');
        return "\r\n" + a_strName + a_strValue + "\r\n";
    }
    static std::string Item(std::string a_strName, const std::string& a_strValue)
    {
        a_strName.resize(std::max<size_t>(48, a_strName.size()), ' ');
        return "\r\n" + a_strName + " <" + a_strValue + ">\r\n";
    }
    static bool Has(const std::string& a_strText, const std::string& a_strPart)
    {
        return a_strText.find(a_strPart) != std::string::npos;
    }
    const OsCfgExtension* m_aoscfgextensionSection = nullptr;
    const OsCfgExtension* m_aoscfgextensionTag = nullptr;
    COsMem m_osmem;
    std::unique_ptr<COsCfgImpl> m_oscfgimpl;
    LogCapture m_logcapture;
};

TEST_F(ConfigurationReport, TheTagsAreWrittenAsAnIniFileHasThem)
{
    OsArgumentsSet(OS_ARGUMENT_UNIQUENAME, "prog");
    OsCfgTable& oscfgtable = m_oscfgimpl->m_oscfgtable;
    oscfgtable.Set(OS_CFGSECTION_DSIDENTITY, OS_CFGTAG_DEBUG, "12");
    oscfgtable.Set(OS_CFGSECTION_DSIDENTITY, OS_CFGTAG_PDFRASTERPFXPASSWORD00, "secret");
    oscfgtable.Set(OS_CFGSECTION_SUPPORTEDSIZES, OS_CFGTAG_N07, "seven");
    oscfgtable.Set(OS_CFGSECTION_MVRALLDS, OS_CFGTAG_JPEGQUANTIZATION_CBCR_05, "AB");
    const std::string strItems = Section(Written(), "OS Library Items");
    for (const std::string strHeader : {"[prog.dsidentity]", "[prog.supportedsizes]", "[prog.mvr_all.ds]"})
        EXPECT_TRUE(Has(strItems, "\r\n\r\n" + strHeader + "\r\n")) << strHeader;
    for (uint32_t u32Tag = 1; u32Tag <= 246; ++u32Tag)
    {
        EXPECT_TRUE(Has(strItems, Item(OsCfgTagName(u32Tag), oscfgtable.Get(OS_CFGSECTION_DSIDENTITY, u32Tag))))
            << u32Tag;
    }
    EXPECT_TRUE(Has(strItems, Item("N07", "seven")));
    EXPECT_TRUE(Has(strItems, Item("OS_CFGTAG_JPEGQUANTIZATION_CBCR_05", "AB")));
    EXPECT_EQ(std::count(strItems.begin(), strItems.end(), '<'), 246 + 51 + 42);
    EXPECT_FALSE(Has(strItems, "secret"));
}

TEST_F(ConfigurationReport, ExtensionsAreLocalItems)
{
    static const OsCfgExtension g_aSection[] = {{1001, "first"}, {1002, ""}, {1000, ""}};
    static const OsCfgExtension g_aTag[] = {{1001, "Named"}, {1003, ""}, {1000, ""}};
    m_aoscfgextensionSection = g_aSection;
    m_aoscfgextensionTag = g_aTag;
    OsArgumentsSet(OS_ARGUMENT_UNIQUENAME, "prog");
    Make(OS_CFGENTITY_APPLICATION);
    m_oscfgimpl->m_oscfgtable.Set(1002, 1003, "last");
    const std::string strReport = Written();
    EXPECT_TRUE(Has(strReport, "\r\n*** Local Items *************************************\r\n"));
    EXPECT_TRUE(Has(strReport, "\r\n\r\n[prog.first]" + Item("Named", "") + Item("0x0003eb", "").substr(2) +
                                   "\r\n[0x0003ea]" + Item("Named", "") + Item("0x0003eb", "last").substr(2)));
}

TEST_F(ConfigurationReport, ItsPartsFollowOneAnother)
{
    setenv("REPORT_LONG", (std::string(8191 - 13, 'x') + "\xC3\xA9").c_str(), 1);
    SStrCpy(m_oscfgimpl->m_szSystemDirectory, OS_PATHSIZE, "sys");
    m_oscfgimpl->m_szFileDataUnprotected = std::make_unique<char[]>(16);
    SStrCpy(m_oscfgimpl->m_szFileDataUnprotected.get(), 16, "[prog");
    ASSERT_TRUE(OsCfgSetModelFlag("m100", true));
    const std::string strReport = Written();
    const std::string strFlag = Dotted("m100", 32, "roaming or legacy");
    const std::string strPath = Dotted("OS_PATH_WRITEABLE_FOLDER_ROOT", 84, Resolve(OS_PATH_WRITEABLE_FOLDER_ROOT));
    const std::string strLong = "\r\nREPORT_LONG=" + std::string(8191 - 13, 'x') + "\r\n";   // cut before a character
    size_t sizetLast = 0;
    for (const char* szPart :
         {"\r\n*** Environmentals ***", strLong.c_str(), "\r\n*** BRAND ***", "\r\n*** CFG Info ***",
          "\r\n*** LocalLogFlags ***", strFlag.c_str(), "\r\n*** Paths ***", strPath.c_str(),
          "\r\n*** OS Library Items ***", "\r\n*** There are no local items ***",
          "\r\n*** Directories *************************************\r\n",
          "\r\n\r\nm_szSystemDirectory                 = <sys>\r\n", "\r\n*_const.ini                         = <",
          "\r\nm_szFileDataUnprotected             = <[prog>\r\n",
          "\r\nm_szDebugDisplayLength              = <512>\r\n"})
    {
        const size_t sizetAt = strReport.find(szPart, sizetLast);
        ASSERT_NE(sizetAt, std::string::npos) << szPart;
        sizetLast = sizetAt + 1;
    }
    const std::string strDirectories = Section(strReport, "Directories");
    EXPECT_EQ(std::count(strDirectories.begin(), strDirectories.end(), '<'), 29 + 2 + 23 + 13);

    SStrCpy(m_oscfgimpl->m_szLogDirectory, OS_PATHSIZE, PathOf("logs/mvroscfg.txt/below").c_str());
    EXPECT_EQ(m_oscfgimpl->WriteReport(), EOSSTS_CANNOTCREATE);
    EXPECT_TRUE(m_logcapture.HasPart("Error creating...<"));
}

TEST_F(ConfigurationReport, ItsNameTellsTheProgramKindOrTheTime)
{
    Make(OS_CFGENTITY_APPUTILITY);
    const std::string strLong(200000, 'x');
    std::filesystem::create_directories(PathOf("logs"));
    WriteWhole(PathOf("logs/mvroscfg_model01.txt"), strLong);
    const std::string strReport = Written("logs/mvroscfg_model01.txt");
    EXPECT_EQ(strReport.rfind("\r\n*** Environmentals", 0), 0u);
    EXPECT_FALSE(Has(strReport, "xxxxxxxxxx"));   // nothing stays of what was there

    setenv("MVR_OSCFGDIR", PathOf("elsewhere").c_str(), 1);
    EXPECT_EQ(m_oscfgimpl->WriteReport(), EOSSTS_SUCCESS);
    const std::string strName = std::filesystem::directory_iterator(PathOf("elsewhere"))->path().filename();
    EXPECT_EQ(StrWildcard(strName.c_str(), "mvroscfg_20*.txt", false), 0) << strName;
}

TEST_F(ConfigurationReport, TheMemoryTrackerIsSilentMeanwhile)
{
    m_logcapture.m_u32WorkingWord = 1;
    m_logcapture.Clear();
    Written();
    EXPECT_FALSE(m_logcapture.HasPart("  AD:"));
    OsMemFree(OsMemAlloc(1, "test", 1, OS_MEMFLAG_BLOCK), "test", 2, OS_MEMFLAG_BLOCK);
    EXPECT_TRUE(m_logcapture.HasPart("  AD:"));
}
