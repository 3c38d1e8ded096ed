// lcctl_run.cpp
#include "lcctl_command.h"

void LcctlAddRun(LcctlCommands&) {}
