// lcctl_clean.cpp
#include "lcctl_command.h"

void LcctlAddClean(LcctlCommands&) {}
