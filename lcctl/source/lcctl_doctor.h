// lcctl_doctor.h: what can be wrong with logging on this machine, each with its cure.
#pragma once

#include <string>
#include <vector>

struct LcctlFinding
{
    bool blGood = true;
    std::string strWhat;   // the thing that was looked at
    std::string strText;   // how it is
    std::string strCure;   // what to do; "" where all is well
};

// Looks at everything, as the application of that name, or with that program file, and of that kind. Starts the library
// and stops it.
std::vector<LcctlFinding> LcctlExamine(const std::string& a_strAs, const std::string& a_strEntity);

// The findings as `lcctl doctor` prints them, a line each, and one more for each cure.
std::string LcctlFindingsText(const std::vector<LcctlFinding>& a_vecfinding);
