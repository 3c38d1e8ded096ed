// empty_call.cpp: the call that does nothing, in a source of its own so that it stays a call.
#include "logger_sections.h"

void EmptyCall(COsLogSink*, const char*, uint32_t, uint32_t, const char*, ...) {}
