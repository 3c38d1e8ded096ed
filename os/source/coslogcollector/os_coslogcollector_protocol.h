// os_coslogcollector_protocol.h: every message between a logging process, the collector and other tools.
//
// All are 8-bit text with elements found by plain substring search: no length, no checksum, no version. Paths in them
// are UTF-8.
//
//   start argument   application -> collector   "--xmlb64=" and the start document in base64
//   start reply      collector -> application   its port and process id, or a refusal, on standard output
//   log stream       process -> collector       a header, raw log text, sometimes an end marker; nothing comes back
//   command file     any tool -> collectors     "flush", "exitall" or "exit"
//   announcement     shared collector -> all    host and port, in a file that the collector keeps locked
#pragma once

#include "os_types.h"

#include <string_view>

inline constexpr char OS_LC_HOST[] = "127.0.0.1";
inline constexpr char OS_LC_SHAREDPORT[] = "41114";   // a private collector never uses it
inline constexpr int32_t OS_LC_LEASTSHAREDPORT = 1025;
inline constexpr char OS_LC_STARTARGUMENT[] = "--xmlb64=";
inline constexpr char OS_LC_REPLYEND[] = "</lc>";
inline constexpr char OS_LC_HEADEREND[] = "</log>";
inline constexpr char OS_LC_ENDMARKER[] = "|||EEXXIITT|||";
inline constexpr char OS_LC_ANNOUNCEMENTFILE[] = "logcollector.txt";

inline constexpr size_t OS_LC_DOCUMENTSIZE = 65536;   // start document, start argument, start reply
inline constexpr size_t OS_LC_HEADERSIZE = 1024;
inline constexpr size_t OS_LC_PIECESIZE = 65535;   // maximum of one read of a stream
inline constexpr size_t OS_LC_ANNOUNCEMENTSIZE = 128;
inline constexpr size_t OS_LC_PORTSIZE = 16;
inline constexpr size_t OS_LC_HOSTSIZE = 256;

// Builds the start argument for the application a_u64ProcessId. EOSSTS_FAIL when it does not fit.
EOSSTS OsLcBuildStartArgument(char* a_szArgument, size_t a_sizetArgument, uint64_t a_u64ProcessId);

// The application process id of a start document; 0 when it has none, or one of 64 or more characters.
int64_t OsLcReadStartDocument(const char* a_szDocument);

EOSSTS OsLcBuildStartReply(char* a_szReply, size_t a_sizetReply, const char* a_szPort, uint64_t a_u64ProcessId);
const char* OsLcStartRefusal();

// Parses port (OS_LC_PORTSIZE bytes) and process id. EOSSTS_SUCCESS; EOSSTS_BUSY while the reply is incomplete;
// EOSSTS_ACCESSDENIED for a refusal; EOSSTS_FAIL for a complete reply without the two.
EOSSTS OsLcReadStartReply(const char* a_szReply, char* a_szPort, uint64_t* a_pu64ProcessId);

// Builds the header of a log stream. EOSSTS_FAIL when the path does not fit.
EOSSTS OsLcBuildHeader(char* a_szHeader, size_t a_sizetHeader, const char* a_szLogFile);

// Parses the log file (OS_PATHSIZE bytes) from the first piece of a stream, which must be zero-terminated. False, with
// an empty path, when the path is missing or too long, or its CDATA section is not closed.
bool OsLcReadHeader(const char* a_pchPiece, char* a_szLogFile);

// The offset of the log text in the first piece: after the header, or a_sizetPiece when the header has no end.
size_t OsLcHeaderLength(const char* a_pchPiece, size_t a_sizetPiece);

// True for a piece that consists of the end marker alone, ignoring case.
bool OsLcIsEndMarker(std::string_view a_strviewPiece);

enum EOSLCCOMMAND : uint32_t
{
    OS_LCCOMMAND_NONE = 0,      // none, or an unknown one
    OS_LCCOMMAND_FLUSH = 1,     // flush all open log files
    OS_LCCOMMAND_EXITALL = 2,   // flush, then end
    OS_LCCOMMAND_EXIT = 3,      // the same for one collector
};

struct OsLcCommand
{
    EOSLCCOMMAND eoslccommand;
    int32_t i32Port;                   // of an exit, 0 when missing
    int64_t i64ProcessIdApplication;   // the same
};
OsLcCommand OsLcReadCommand(const char* a_szText);

EOSSTS OsLcBuildAnnouncement(char* a_szText, size_t a_sizetText, const char* a_szHost, const char* a_szPort);

// Parses host and port (OS_LC_HOSTSIZE and OS_LC_PORTSIZE bytes) of an announcement. False unless both exist and fit.
bool OsLcReadAnnouncement(const char* a_szText, char* a_szHost, char* a_szPort);
