// lcctl_logs.cpp
#include "lcctl_command.h"

void LcctlAddLogs(LcctlCommands&) {}
