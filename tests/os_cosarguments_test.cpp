// os_cosarguments_test.cpp: the arguments document on its way from the environment of one process into another's.
#include "os_cosarguments.h"
#include "os_cosenv.h"
#include "os_cosmem.h"
#include "plat_child.h"
#include "test_support.h"

#include "plat_thread.h"

#include <thread>

namespace
{
constexpr char g_szB64[] = "MVR_OSSERVICESARGUMENTSB64";
constexpr char g_szOverride[] = "MVR_OSSERVICESOVERRIDEB64";

std::string Encoded(const std::string& a_strText)
{
    std::string strEncoded(a_strText.size() * 2 + 8, '\0');
    size_t sizet = 0;
    Base64Encode(strEncoded.data(), strEncoded.size(), &sizet, a_strText.data(), a_strText.size(), false);
    return strEncoded.substr(0, sizet);
}

std::string Document(const std::string& a_strElements)
{
    return "<arguments>" + a_strElements + "</arguments>";
}

std::string OfThread(const std::string& a_strFamily)
{
    char szName[128];
    SStrPrintf(szName, sizeof szName, "%s_%llx_%llx", a_strFamily.c_str(),
               static_cast<unsigned long long>(PlatProcessId()), static_cast<unsigned long long>(PlatThreadId()));
    return szName;
}

void Set(const std::string& a_strName, const std::string& a_strValue)
{
    EXPECT_EQ(OsEnvSet(a_strName.c_str(), a_strValue.c_str()), EOSSTS_SUCCESS);
}

std::string Get(const std::string& a_strName)
{
    std::string strValue(70000, '\0');
    OsEnvGet(a_strName.c_str(), "", strValue.size(), strValue.data());
    return strValue.c_str();
}

std::string Read()
{
    char szDocument[OS_ARGUMENTSSIZE];
    OsArgumentsRead(szDocument, sizeof szDocument);
    return szDocument;
}

// What a child finds in the environment that it inherits: its values in their order, the collector, what it owns, its
// document, the variable that it came from, and the override.
std::string WhatAChildTakesIn()
{
    const Part part("intake -");
    std::string strTaken = part.OutputUpTo();
    EXPECT_EQ(part.ExitCode(), 0u);
    return strTaken;
}
}   // namespace

int PlayPart(const std::vector<std::string>& a_vecstrArguments)
{
    OsArgumentsIntake();
    if (a_vecstrArguments[0] == "published")
        return Say(Get("MVR_OSSERVICESARGUMENTS")) ? 0 : 1;
    OsArgumentsIntake();
    std::string strSaid;
    for (uint32_t u32 = 0; u32 < OS_ARGUMENT_LAST; ++u32)
        strSaid += std::string(OsArgumentsGet(static_cast<EOSARGUMENT>(u32))) + "|";
    const OsCollectorIdentity oscollectoridentity = OsArgumentsCollector();
    strSaid += std::to_string(oscollectoridentity.i32Port) + "," +
               std::to_string(oscollectoridentity.u64ProcessIdApplication) + "," +
               std::to_string(oscollectoridentity.u64ProcessIdCollector) + "|";
    strSaid += OsArgumentsIsServicesOwner() ? "owner|" : "|";
    strSaid += OsArgumentsHasOverride() ? "override|" : "|";
    strSaid += std::string(OsArgumentsDocument()) + "|" + OsArgumentsVariable() + "|" + Get(g_szOverride);
    return Say(strSaid) ? 0 : 1;
}

TEST(Arguments, ThreadsOwnCarrierGoesFirstAndWideTextLast)
{
    const std::string strWide = Document("<app>\xC3\xA9</app>");
    EXPECT_EQ(Read(), "");
    Set("MVR_OSSERVICESARGUMENTS", Document("plain"));
    EXPECT_EQ(Read(), "");
    Set(OfThread("MVR_OSSERVICESARGUMENTSUNICODE"), strWide);
    EXPECT_EQ(Read(), strWide);
    Set(g_szB64, Encoded(Document("general")));
    EXPECT_EQ(Read(), Document("general"));
    Set(OfThread(g_szB64), Encoded(Document("thread")));
    EXPECT_EQ(Read(), Document("thread"));
    std::thread([] { EXPECT_EQ(Read(), Document("general")); }).join();

    Set("MVR_OSSERVICESARGUMENTSDISABLED", "1");
    EXPECT_EQ(Read(), "");
    EXPECT_EQ(Get(g_szB64) + Get(OfThread(g_szB64)), "");
}

TEST(Arguments, WhatIsNoDocumentLeavesTheNextCarrierItsTurn)
{
    Set(OfThread("MVR_OSSERVICESARGUMENTSUNICODE"), Document("last"));
    for (const std::string& strBad :
         {std::string("?"), std::string("!!!!"), Encoded("<arguments>cut").substr(0, 8), Encoded("<arguments>"),
          Encoded("</arguments>"), Encoded(Document("")).substr(0, 9), std::string(100000, 'A'),
          Encoded(Document(std::string(5000, 'x'))), Encoded(Document(std::string(80000, 'x')))})
    {
        Set(g_szB64, strBad);
        EXPECT_EQ(Read(), Document("last")) << strBad.substr(0, 40);
    }
    const std::string strDocument = Document("last");
    char szBuffer[64];
    EXPECT_EQ(OsArgumentsRead(szBuffer, strDocument.size()), EOSSTS_NOMEMORY);
    EXPECT_STREQ(szBuffer, "");
    EXPECT_EQ(OsArgumentsRead(szBuffer, strDocument.size() + 1), EOSSTS_SUCCESS);
    EXPECT_STREQ(szBuffer, strDocument.c_str());
}

TEST(Arguments, DocumentIsBuiltOfTheConfigurationElseOfWhatIsGiven)
{
    OsArgumentsSet(OS_ARGUMENT_CALLERSUNIQUENAME, "me");
    OsArgumentsSet(OS_ARGUMENT_OVERRIDEFOLDER, "over");
    OsArgumentsSet(OS_ARGUMENT_DRVLETIDENTITY, "id");
    OsArgumentsSetCollector({4711, 12, 34});
    FakeConfiguration configuration;
    configuration.Set(OS_CFGTAG_ROOTPATH, "/configured");
    const OsArgumentsBuildArgs osargumentsbuildargs{"/log", "d100", nullptr, "/root", "/legacy", true};
    EXPECT_EQ(OsArgumentsBuild(osargumentsbuildargs), EOSSTS_SUCCESS);
    const std::string strDocument =
        "<arguments>\n\t<rootpath><![CDATA[/configured]]></rootpath>\n"
        "\t<legacyrootpath><![CDATA[/legacy]]></legacyrootpath>\n\t<userrootpath><![CDATA[]]></userrootpath>\n"
        "\t<logpath><![CDATA[/log]]></logpath>\n\t<logmodel>d100</logmodel>\n\t<loglevel>0</loglevel>\n"
        "\t<callersuniquename>me</callersuniquename>\n\t<overridefoldername>over</overridefoldername>\n"
        "\t<frominterfaceopen>true</frominterfaceopen>\n\t<forcesetaccess>false</forcesetaccess>\n"
        "\t<app><![CDATA[]]></app>\n\t<drvletidentity>id</drvletidentity>\n\t<lcport>4711</lcport>\n"
        "\t<lcpidapp>12</lcpidapp>\n\t<lcpidlc>34</lcpidlc>\n</arguments>";
    EXPECT_EQ(OsArgumentsDocument(), strDocument);

    OsArgumentsSetInherit(false);
    EXPECT_EQ(OsArgumentsBuild({}), EOSSTS_SUCCESS);
    EXPECT_EQ(OsArgumentsDocument(), strDocument);
    OsArgumentsPublish(true);
    OsArgumentsPublish(false);
    EXPECT_EQ(Get(g_szB64), "");
    OsArgumentsSetInherit(true);
    configuration.Set(OS_CFGTAG_APPLICATION, std::string(4000, 'x'));
    EXPECT_EQ(OsArgumentsBuild({}), EOSSTS_NOMEMORY);
    EXPECT_STREQ(OsArgumentsDocument(), "");
}

TEST(Arguments, PublishingThatBreaksLeavesTheLockFree)
{
    struct BrokenSink final : COsLogSink
    {
        void VPrintf(const char*, uint32_t, uint32_t, const char*, va_list) override { throw std::bad_alloc(); }
        uint32_t WorkingWord() const override { return 1; }
    };
    BrokenSink brokensink;
    g_poslogsink = &brokensink;
    EXPECT_THROW(OsArgumentsPublish(true), std::bad_alloc);
    g_poslogsink = nullptr;
    static std::atomic<bool> g_blPublished{false};
    std::thread([] {
        OsArgumentsPublish(true);
        OsArgumentsPublish(false);
        OsArgumentsClearThread();
        g_blPublished = true;
    }).detach();
    EXPECT_TRUE(WaitFor([] { return g_blPublished.load(); }));
    OsArgumentsClear(OS_CLEARARGUMENTS_THREAD | OS_CLEARARGUMENTS_GENERAL);
}

TEST(Arguments, PublishedDocumentArrivesInAChild)
{
    EXPECT_EQ(WhatAChildTakesIn(), "||||||||||||||0,0,0|owner|||MVR_OSSERVICESARGUMENTSB64|");
    OsArgumentsSet(OS_ARGUMENT_MODELDIRECTORY, "d100");
    OsArgumentsSet(OS_ARGUMENT_CALLERSUNIQUENAME, "parent");
    EXPECT_EQ(OsArgumentsBuild({"/log\xC3\xA9 ]", "", nullptr, "/root", "/legacy"}), EOSSTS_SUCCESS);
    OsArgumentsSetCollector({65535, 12, 34});
    OsArgumentsUpdateCollector();
    LogCapture log;
    log.m_u32WorkingWord = 1;
    OsArgumentsPublish(true);
    const std::string strDocument = OsArgumentsDocument();
    EXPECT_TRUE(log.HasAt(OS_LOG_NOTE, "MVR_OSSERVICESARGUMENTS set...<" + strDocument + ">"));
    EXPECT_NE(strDocument.find("</logpath>\n\t<logmodel>d100</logmodel>\n\t<loglevel>"), std::string::npos);
    EXPECT_EQ(Get("MVR_OSSERVICESARGUMENTS"), strDocument);
    EXPECT_EQ(Get(OfThread(g_szB64)), Get(g_szB64));
    EXPECT_EQ(WhatAChildTakesIn(),
              "|||d100|/log\xC3\xA9 ]|0||d100|||/root|/legacy|||65535,12,34|||" + strDocument + "|" + g_szB64 + "|");
    // The lock keeps another thread from publishing until the child exists.
    std::atomic<bool> blPublished{false};
    std::thread thread([&] {
        OsArgumentsPublish(true);
        blPublished = true;
        OsArgumentsPublish(false);
        OsArgumentsClearThread();
    });
    EXPECT_FALSE(blPublished);
    OsArgumentsPublish(false);
    thread.join();

    OsArgumentsClear(OS_CLEARARGUMENTS_COLLECTOR | OS_CLEARARGUMENTS_THREAD);
    EXPECT_EQ(OsArgumentsCollector().i32Port, 0);
    EXPECT_NE(std::string(OsArgumentsDocument()).find("<lcport>0</lcport>"), std::string::npos);
    EXPECT_EQ(Get(OfThread(g_szB64)), "");
    EXPECT_NE(Get(g_szB64), "");
    OsArgumentsClear(OS_CLEARARGUMENTS_THREAD | OS_CLEARARGUMENTS_GENERAL);
    EXPECT_EQ(Get(g_szB64) + Get("MVR_OSSERVICESARGUMENTS"), "");
}

TEST(Arguments, OverrideAndDriverletGoBeforeWhatIsInherited)
{
    Set(g_szOverride, Encoded("<callersuniquename>other</callersuniquename><modeldir>m2</modeldir>"
                              "<overridefoldername>lib/drvlet</overridefoldername>"));
    Set("MVR_DRVLETINFOB64", Encoded("<modeldir>m1</modeldir><drvletapp>/app</drvletapp>"
                                     "<drvletidentity>id</drvletidentity>"));
    Set(g_szB64, Encoded(Document("<overridefoldername><![CDATA[f]]></overridefoldername>"
                                  "<callersuniquename>parent</callersuniquename><logmodel>m3</logmodel>"
                                  "<drvletidentity/><drvletidentity>old</drvletidentity><loglevel>4</loglevel>")));
    EXPECT_EQ(WhatAChildTakesIn(),
              "|other|lib/drvlet|m1||4||m1|id|/app|||||0,0,0||override|" +
                  Document("<overridefoldername><![CDATA[lib/drvlet]]></overridefoldername>"
                           "<callersuniquename>other</callersuniquename><logmodel>m3</logmodel>"
                           "<drvletidentity/><drvletidentity>id</drvletidentity><loglevel>4</loglevel>") +
                  "|MVR_OSSERVICESARGUMENTSB64|");
    const Part part("published");
    EXPECT_NE(part.OutputUpTo().find("<overridefoldername><![CDATA[lib/drvlet]]></overridefoldername>"
                                     "<callersuniquename>other</callersuniquename>"),
              std::string::npos)
        << "its own children find it in the environment";
}

TEST(Arguments, DriverletsApplicationInheritsNothing)
{
    Set(g_szB64, Encoded(Document("<logpath>/log</logpath>")));
    for (const char* szCaller : {"x-DRVLET-app", "HVcfgmgr-drvlet-hvcfgmgr"})
    {
        Set(g_szOverride, Encoded("<callersuniquename>" + std::string(szCaller) + "</callersuniquename>"));
        EXPECT_EQ(WhatAChildTakesIn(),
                  "|" + std::string(szCaller) + "|||||||||||||0,0,0|owner|override||MVR_OSSERVICESARGUMENTSB64|");
    }
}

// Nothing of it is believed, and the process starts all the same.
TEST(Arguments, HostileTextsLeaveTheProcessAsIfThereWereNone)
{
    const std::string strNothing = "||||||||||||||0,0,0||";
    const std::string strLong(100000, 'A');
    for (const char* szVariable : {g_szOverride, "MVR_DRVLETINFOB64", g_szB64})
        Set(szVariable, strLong);
    EXPECT_EQ(WhatAChildTakesIn(), "||||||||||||||0,0,0|owner|||MVR_OSSERVICESARGUMENTSB64|");
    for (const char* szPort : {"0", "65536", "-1", "4294967297", "99999999999999999999", "x", ""})
    {
        Set(g_szB64, Encoded(Document("<callersuniquename>" + std::string(600, 'n') + "</callersuniquename><logpath>" +
                                      std::string(512, 'p') + "</logpath><lcport>" + szPort +
                                      "</lcport><lcpidapp>1</lcpidapp><lcpidlc>2</lcpidlc>")));
        EXPECT_EQ(WhatAChildTakesIn().find(strNothing), 0u) << szPort;
    }
    Set(g_szB64, Encoded(Document("<lcport>5</lcport><lcpidapp>-1</lcpidapp><lcpidlc>2</lcpidlc>")));
    EXPECT_EQ(WhatAChildTakesIn().find(strNothing), 0u);
}
