// os_coslogcollector_protocol.h: every message between a logging process, the collector and other tools.
//
// All are 8-bit text with elements that are found by plain substring search: no length, no checksum, no version.
// Paths in them are UTF-8.
//
//   start argument   application -> collector   "--xmlb64=" and the start document in base64
//   start reply      collector -> application   its port and process id, or a refusal, on standard output
//   log stream       process -> collector       a header, raw log text, sometimes an end marker; nothing comes back
//   command file     any tool -> collectors     "flush", "exitall" or "exit"
//   announcement     shared collector -> all    host and port, in a file that it keeps locked
#pragma once

#include "os_types.h"

#include <string_view>

inline constexpr char OS_LC_HOST[] = "127.0.0.1";
inline constexpr char OS_LC_SHAREDPORT[] = "41114";   // a private collector never serves it
inline constexpr int32_t OS_LC_LEASTSHAREDPORT = 1025;
inline constexpr char OS_LC_STARTARGUMENT[] = "--xmlb64=";
inline constexpr char OS_LC_REPLYEND[] = "</lc>";
inline constexpr char OS_LC_HEADEREND[] = "</log>";
inline constexpr char OS_LC_ENDMARKER[] = "|||EEXXIITT|||";
inline constexpr char OS_LC_ANNOUNCEMENTFILE[] = "logcollector.txt";

inline constexpr size_t OS_LC_DOCUMENTSIZE = 65536;   // start document, start argument, start reply
inline constexpr size_t OS_LC_HEADERSIZE = 1024;
inline constexpr size_t OS_LC_PIECESIZE = 65535;   // the most that one read of a stream takes
inline constexpr size_t OS_LC_ANNOUNCEMENTSIZE = 128;
inline constexpr size_t OS_LC_PORTSIZE = 16;
inline constexpr size_t OS_LC_HOSTSIZE = 256;

// Builds the start argument for the application a_u64ProcessId. EOSSTS_FAIL when it does not fit.
EOSSTS OsLcBuildStartArgument(char* a_szArgument, size_t a_sizetArgument, uint64_t a_u64ProcessId);

// The application process id of a start document, 0 when it names none or one of 64 characters and more.
int64_t OsLcReadStartDocument(const char* a_szDocument);

EOSSTS OsLcBuildStartReply(char* a_szReply, size_t a_sizetReply, const char* a_szPort, uint64_t a_u64ProcessId);
const char* OsLcStartRefusal();

// EOSSTS_SUCCESS with port (OS_LC_PORTSIZE bytes) and process id; EOSSTS_BUSY while the reply is not complete;
// EOSSTS_ACCESSDENIED for a refusal; EOSSTS_FAIL for a complete reply without the two.
EOSSTS OsLcReadStartReply(const char* a_szReply, char* a_szPort, uint64_t* a_pu64ProcessId);

// The header of a log stream. EOSSTS_FAIL when the path does not fit.
EOSSTS OsLcBuildHeader(char* a_szHeader, size_t a_sizetHeader, const char* a_szLogFile);

// Takes the log file (OS_PATHSIZE bytes) out of the first piece of a stream, which a terminator follows. False, with
// an empty path, without one, with one that does not fit, and with a CDATA section that is not closed.
bool OsLcReadHeader(const char* a_pchPiece, char* a_szLogFile);

// Where the log text of the first piece begins: behind the header's end, or a_sizetPiece for a header without one.
size_t OsLcHeaderLength(const char* a_pchPiece, size_t a_sizetPiece);

// True for a piece that is nothing but the end marker, in either case.
bool OsLcIsEndMarker(std::string_view a_strviewPiece);

enum EOSLCCOMMAND : uint32_t
{
    OS_LCCOMMAND_NONE = 0,      // no command, or an unknown one
    OS_LCCOMMAND_FLUSH = 1,     // flush all open log files
    OS_LCCOMMAND_EXITALL = 2,   // flush, then end
    OS_LCCOMMAND_EXIT = 3,      // the same for the collector that is named
};

struct OsLcCommand
{
    EOSLCCOMMAND eoslccommand;
    int32_t i32Port;                   // of an exit, 0 when it names none
    int64_t i64ProcessIdApplication;   // likewise
};
OsLcCommand OsLcReadCommand(const char* a_szText);

EOSSTS OsLcBuildAnnouncement(char* a_szText, size_t a_sizetText, const char* a_szHost, const char* a_szPort);

// Host and port (OS_LC_HOSTSIZE and OS_LC_PORTSIZE bytes) of an announcement. False unless both are there and fit.
bool OsLcReadAnnouncement(const char* a_szText, char* a_szHost, char* a_szPort);
