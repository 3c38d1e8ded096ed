// lcctl_diagnosis.cpp
#include "lcctl_command.h"

void LcctlAddDiagnosis(LcctlCommands&) {}
