// os_cosenv.h: environment variables as UTF-8 text.
#pragma once

#include "os_types.h"

#include <string>
#include <utility>
#include <vector>

// Copies the variable's value, or a_szDefault when it is unset or empty. EOSSTS_NOMEMORY (2) when it does not fit,
// EOSSTS_NOTOPEN (3) for a bad argument; both are logged and empty the destination where possible.
EOSSTS OsEnvGet(const char* a_szName, const char* a_szDefault, size_t a_sizetValue, char* a_szValue);

// The value as a decimal number.
int64_t OsEnvGetNumber(const char* a_szName, int64_t a_i64Default);

// Sets the variable; an empty or null value deletes it. EOSSTS_FAIL (logged) for a missing name or when the system
// refuses.
EOSSTS OsEnvSet(const char* a_szName, const char* a_szValue);

// Deletes every variable whose name begins with the prefix, without regard to case.
void OsEnvDeletePrefix(const char* a_szPrefix);

// All variables of the process as names and values. EOSSTS_NOMEMORY (logged) with an empty list.
using OsEnvVariables = std::vector<std::pair<std::string, std::string>>;
EOSSTS OsEnvList(OsEnvVariables* a_posenvvariables);
