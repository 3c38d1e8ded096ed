// lcctl_collectors.cpp
#include "lcctl_command.h"

void LcctlAddCollectors(LcctlCommands&) {}
