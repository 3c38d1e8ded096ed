// os_cosredact.h: redaction of host names in the log.
#pragma once

// Returns the text, "" for null, or "(redacted)" when redaction is on and the text contains a dot. Decided once per
// process, by MVR_REDACT or else by the in-house test below.
const char* Redact(const char* a_szText);

// True if this machine is one of the maker's own; implemented by the socket layer. Null: no machine is.
using OsInHouseProc = bool (*)();
void OsStringSetInHouseTest(OsInHouseProc a_osinhouseproc);
