// logcollector_clean.h: the clean mode of the program.
#pragma once

#include <cstdint>

// Removes the expired log folders below the three brand folders, or below a_szSubfolder ("" for none) of each. A
// subfolder that leads out of the brand folder, by its text or by a link, is refused.
void LogCollectorClean(int32_t a_i32HoursToKeep, const char* a_szSubfolder);
