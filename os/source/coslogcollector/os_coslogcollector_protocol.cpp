// os_coslogcollector_protocol.cpp: the messages, in the order of the header.
#include "os_coslogcollector_protocol.h"

#include "os_cosmem.h"
#include "os_cosstring.h"
#include "os_cosxml.h"

#include <cstring>

static EOSSTS Built(int a_iLength)
{
    return a_iLength < 0 ? EOSSTS_FAIL : EOSSTS_SUCCESS;
}

// ---------------------------------------------------------------------------------- start argument and reply

EOSSTS OsLcBuildStartArgument(char* a_szArgument, size_t a_sizetArgument, uint64_t a_u64ProcessId)
{
    char szDocument[128];
    const int iLength = SStrPrintf(szDocument, sizeof szDocument, "<lc><lcpidapp>%lld</lcpidapp></lc>",
                                   static_cast<long long>(a_u64ProcessId));
    SStrCpy(a_szArgument, a_sizetArgument, OS_LC_STARTARGUMENT);
    const size_t sizetPrefix = std::strlen(a_szArgument);
    if (iLength < 0 || sizetPrefix == 0)
        return EOSSTS_FAIL;
    size_t sizetEncoded = 0;
    return Base64Encode(a_szArgument + sizetPrefix, a_sizetArgument - sizetPrefix, &sizetEncoded, szDocument,
                        static_cast<size_t>(iLength), true);
}

int64_t OsLcReadStartDocument(const char* a_szDocument)
{
    char szProcessId[64];
    if (!OsXmlExtract(a_szDocument, "<lcpidapp>", "</lcpidapp>", szProcessId, sizeof szProcessId, true))
        return 0;
    return StrToInt64(szProcessId);
}

EOSSTS OsLcBuildStartReply(char* a_szReply, size_t a_sizetReply, const char* a_szPort, uint64_t a_u64ProcessId)
{
    return Built(SStrPrintf(a_szReply, a_sizetReply, "<lc><lcport>%s</lcport><lcpidlc>%lld</lcpidlc></lc>", a_szPort,
                            static_cast<long long>(a_u64ProcessId)));
}

const char* OsLcStartRefusal()
{
    return "<lc><port>abort</port></lc>";
}

EOSSTS OsLcReadStartReply(const char* a_szReply, char* a_szPort, uint64_t* a_pu64ProcessId)
{
    if (!std::strstr(a_szReply, OS_LC_REPLYEND))
        return EOSSTS_BUSY;
    if (std::strstr(a_szReply, "<port>abort</port>"))
        return EOSSTS_ACCESSDENIED;
    char szProcessId[16];
    if (!OsXmlExtract(a_szReply, "<lcport>", "</lcport>", a_szPort, OS_LC_PORTSIZE, false) ||
        !OsXmlExtract(a_szReply, "<lcpidlc>", "</lcpidlc>", szProcessId, sizeof szProcessId, false))
        return EOSSTS_FAIL;
    *a_pu64ProcessId = static_cast<uint64_t>(StrToInt64(szProcessId));
    return EOSSTS_SUCCESS;
}

// ------------------------------------------------------------------------------------------------- log stream

EOSSTS OsLcBuildHeader(char* a_szHeader, size_t a_sizetHeader, const char* a_szLogFile)
{
    return Built(SStrPrintf(a_szHeader, a_sizetHeader, "<log><logfile><![CDATA[%s]]></logfile></log>", a_szLogFile));
}

bool OsLcReadHeader(const char* a_pchPiece, char* a_szLogFile)
{
    if (!OsXmlExtract(a_pchPiece, "<logfile>", "</logfile>", a_szLogFile, OS_PATHSIZE, true))
        return false;
    // The remains of an unclosed CDATA section are not a path.
    if (StrStartsWith(a_szLogFile, "<![CDATA["))
        *a_szLogFile = 0;
    return *a_szLogFile != 0;
}

size_t OsLcHeaderLength(const char* a_pchPiece, size_t a_sizetPiece)
{
    const std::string_view strviewPiece(a_pchPiece, a_sizetPiece);
    const size_t sizetEnd = strviewPiece.find(OS_LC_HEADEREND);
    return sizetEnd == std::string_view::npos ? a_sizetPiece : sizetEnd + std::strlen(OS_LC_HEADEREND);
}

bool OsLcIsEndMarker(std::string_view a_strviewPiece)
{
    constexpr size_t sizetMarker = sizeof OS_LC_ENDMARKER - 1;
    if (a_strviewPiece.size() != sizetMarker || a_strviewPiece[0] != OS_LC_ENDMARKER[0])
        return false;
    char szPiece[sizeof OS_LC_ENDMARKER] = {};
    a_strviewPiece.copy(szPiece, sizetMarker);
    return StrICmp(szPiece, OS_LC_ENDMARKER) == 0;
}

// ------------------------------------------------------------------------------------------------ command file

OsLcCommand OsLcReadCommand(const char* a_szText)
{
    static constexpr struct
    {
        const char* szWord;
        EOSLCCOMMAND eoslccommand;
    } g_aword[] = {{"flush", OS_LCCOMMAND_FLUSH}, {"exitall", OS_LCCOMMAND_EXITALL}, {"exit", OS_LCCOMMAND_EXIT}};

    OsLcCommand oslccommand{};
    char szCommand[64];
    if (!OsXmlExtract(a_szText, "<cmd>", "</cmd>", szCommand, sizeof szCommand, false))
        return oslccommand;
    for (const auto& word : g_aword)
    {
        if (StrICmp(szCommand, word.szWord) == 0)
            oslccommand.eoslccommand = word.eoslccommand;
    }
    if (oslccommand.eoslccommand == OS_LCCOMMAND_EXIT)
    {
        char szValue[16];
        if (OsXmlExtract(a_szText, "<lcport>", "</lcport>", szValue, sizeof szValue, false))
            oslccommand.i32Port = StrToInt32(szValue);
        if (OsXmlExtract(a_szText, "<lcpidapp>", "</lcpidapp>", szValue, sizeof szValue, false))
            oslccommand.i64ProcessIdApplication = StrToInt64(szValue);
    }
    return oslccommand;
}

// ------------------------------------------------------------------------------------------------ announcement

EOSSTS OsLcBuildAnnouncement(char* a_szText, size_t a_sizetText, const char* a_szHost, const char* a_szPort)
{
    return Built(SStrPrintf(a_szText, a_sizetText, " <log><ip>%s</ip><port>%s</port><log>", a_szHost, a_szPort));
}

bool OsLcReadAnnouncement(const char* a_szText, char* a_szHost, char* a_szPort)
{
    return OsXmlExtract(a_szText, "<ip>", "</ip>", a_szHost, OS_LC_HOSTSIZE, false) &&
           OsXmlExtract(a_szText, "<port>", "</port>", a_szPort, OS_LC_PORTSIZE, false);
}
