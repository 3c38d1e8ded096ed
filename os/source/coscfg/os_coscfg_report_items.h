// os_coscfg_report_items.h: what the support report lists of the configuration object and of the machine.
#pragma once

#include "os_coscfg_impl.h"

enum class OsReportKind : uint32_t
{
    Text,
    Number,
    Unsigned,
    Unsigned32,
};

// A fact about the machine, under the name of its enumerator.
struct OsReportInfo
{
    const char* szName;
    EOSCFGINFO eoscfginfo;
    OsReportKind osreportkind;
};

// A text of the configuration object, under the name of its member.
struct OsReportMember
{
    const char* szName;
    const char* (*pfnText)(const COsCfgImpl& a_oscfgimpl);
};

// In the order of the report; null past the end.
const OsReportInfo* OsReportInfoAt(size_t a_sizetIndex);
const OsReportMember* OsReportDirectoryAt(size_t a_sizetIndex);   // up to the temporary folder
const OsReportMember* OsReportMemberAt(size_t a_sizetIndex);      // the members behind the profile paths
