// os_cosredact.h: redaction of host names in the log.
#pragma once

// The text itself, an empty one for null, or "(redacted)" when redaction is on and the text holds a dot. The
// decision is made once per process, by MVR_REDACT or else by the in-house test below.
const char* Redact(const char* a_szText);

// Tells whether this machine is one of the maker's own; the socket layer answers. Null: none is.
using OsInHouseProc = bool (*)();
void OsStringSetInHouseTest(OsInHouseProc a_osinhouseproc);
