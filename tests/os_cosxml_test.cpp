// os_cosxml_test.cpp: one field out of an XML-like text, and changed in it.
#include "os_cosxml.h"
#include "test_support.h"

namespace
{

constexpr char g_szOpen[] = "<logfile>";
constexpr char g_szClose[] = "</logfile>";

struct Result
{
    bool blFound;
    std::string strValue;
    bool operator==(const Result&) const = default;
};

Result Extract(const std::string& a_strValue, size_t a_sizetDestination, bool a_blCdata)
{
    char szDestination[64] = "before";
    const bool blFound =
        OsXmlExtract(("<a/>" + a_strValue).c_str(), g_szOpen, g_szClose, szDestination, a_sizetDestination, a_blCdata);
    return {blFound, szDestination};
}

Result InPlace(std::string a_strText)
{
    const bool blFound =
        OsXmlExtract(a_strText.c_str(), g_szOpen, g_szClose, a_strText.data(), a_strText.size() + 1, false);
    return {blFound, a_strText.c_str()};
}

std::string g_strReported;

}   // namespace

TEST(Xml, TakesTheFirstElement)
{
    const Result resultMissing{false, ""};
    EXPECT_EQ(Extract("<logfile>a</logfile><logfile>b</logfile>", 64, true), (Result{true, "a"}));
    EXPECT_EQ(Extract("<logfile></logfile>", 64, true), (Result{true, ""}));
    EXPECT_EQ(Extract("<LOGFILE>a</LOGFILE>", 64, true), resultMissing);
    EXPECT_EQ(Extract("<logfile>a", 64, true), resultMissing);
    EXPECT_EQ(Extract("</logfile><logfile>", 64, true), resultMissing);
}

TEST(Xml, UnwrapsCdataOnlyWhenBothItsEndsAreThere)
{
    EXPECT_EQ(Extract("<logfile><![CDATA[C:\\x.log]]></logfile>", 64, true), (Result{true, "C:\\x.log"}));
    EXPECT_EQ(Extract("<logfile><![CDATA[x]]></logfile>", 64, false), (Result{true, "<![CDATA[x]]>"}));
    EXPECT_EQ(Extract("<logfile><![CDATA[]]></logfile>", 64, true), (Result{true, ""}));
    for (const char* szValue : {"<![CDATA[", "<![CDATA[]", "<![CDATA[]>", "<![CDATA[x>", "x]]>"})
        EXPECT_EQ(Extract(std::string("<logfile>") + szValue + "</logfile>", 64, true), (Result{true, szValue}));
}

TEST(Xml, ValueThatDoesNotFitIsRefused)
{
    const std::string strText = "<logfile>0123456789abcdef</logfile>";
    LogCapture log;
    EXPECT_EQ(Extract(strText, 17, true), (Result{true, "0123456789abcdef"}));
    EXPECT_EQ(Extract(strText, 0, true), (Result{true, "0123456789abcdef"}));
    EXPECT_TRUE(log.Lines().empty());
    EXPECT_EQ(Extract(strText, 16, true), (Result{false, ""}));
    EXPECT_TRUE(log.HasAt(OS_LOG_CHECK, "data overflow: <logfile> <a/>" + strText));
    EXPECT_EQ(log.Lines().at(0).strSource, "os/source/os_cosxml");
}

TEST(Xml, WithoutALoggerTheOverflowGoesToTheCheckHook)
{
    g_poslogcheckproc.store(
        [](const char* a_szFile, uint32_t, const char* a_szText) { g_strReported = std::string(a_szFile) + a_szText; });
    const std::string strValue(9000, 'x');
    EXPECT_EQ(Extract("<logfile>" + strValue + "</logfile>", 8, true), (Result{false, ""}));
    EXPECT_EQ(g_strReported, "os/source/os_cosxmldata overflow: <logfile> <a/><logfile>" + strValue + "</logfile>");
}

TEST(Xml, ValueMovesToTheFrontOfItsOwnBuffer)
{
    EXPECT_EQ(InPlace("abc<logfile>value</logfile>"), (Result{true, "value"}));
    EXPECT_EQ(InPlace("<logfile><![CDATA[value]]></logfile>"), (Result{true, "value"}));
    EXPECT_EQ(InPlace("abc<logfile></logfile>"), (Result{false, ""}));
    EXPECT_EQ(InPlace("abc"), (Result{false, ""}));
}

TEST(Xml, ReplacedElementKeepsItsCdata)
{
    char szText[40] = "<a>1</a><b><![CDATA[x]]></b>";
    EXPECT_EQ(OsXmlReplaceElement(szText, sizeof szText, "a", ""), EOSSTS_SUCCESS);
    EXPECT_EQ(OsXmlReplaceElement(szText, sizeof szText, "b", "long"), EOSSTS_SUCCESS);
    EXPECT_STREQ(szText, "<a></a><b><![CDATA[long]]></b>");
    EXPECT_EQ(OsXmlReplaceElement(szText, sizeof szText, "c", "1"), EOSSTS_NOSPACE);
    EXPECT_EQ(OsXmlReplaceElement(szText, sizeof szText, "a", "1234567890"), EOSSTS_FAIL);
    EXPECT_STREQ(szText, "<a></a><b><![CDATA[long]]></b>");
    EXPECT_EQ(OsXmlReplaceElement(szText, sizeof szText, "a", "123456789"), EOSSTS_SUCCESS);
}
