// lcctl_doctor.h: checks for problems with logging on this machine, with a remedy for each.
#pragma once

#include <string>
#include <vector>

struct LcctlFinding
{
    bool blGood = true;
    std::string strWhat;   // the thing checked
    std::string strText;   // its state
    std::string strCure;   // the remedy; "" if there is no problem
};

// Runs all checks as an application of that name (or program file) and kind. Starts and stops the library.
std::vector<LcctlFinding> LcctlExamine(const std::string& a_strAs, const std::string& a_strEntity);

// The findings as printed by `lcctl doctor`, one line each, and one more for each remedy.
std::string LcctlFindingsText(const std::vector<LcctlFinding>& a_vecfinding);
