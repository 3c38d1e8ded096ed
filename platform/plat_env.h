// plat_env.h: the environment of this process. An empty value counts as unset.
#pragma once

#include "plat_types.h"

// Copies the value. Returns its length in characters without the terminator; the length that it has when
// a_sizetValue (with terminator) is too small, and then copies nothing; 0 with the last error 203 when it is unset.
size_t PlatEnvGet(const char16_t* a_wszName, char16_t* a_wszValue, size_t a_sizetValue);

// Sets the variable for this process and the children that it creates later; a null or empty value deletes it.
bool PlatEnvSet(const char16_t* a_wszName, const char16_t* a_wszValue);

// Calls a_platenvproc once for each variable, also for one that is empty, in no particular order; its texts live for
// the call only. What is no Unicode in them is shown as U+FFFD. The procedure may change the environment. It returns
// false to end the listing.
using PlatEnvProc = bool (*)(void* a_pvContext, const char16_t* a_wszName, const char16_t* a_wszValue);
bool PlatEnvList(PlatEnvProc a_platenvproc, void* a_pvContext);
