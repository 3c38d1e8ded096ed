// bench_target.h: the programs that are measured: the collector, the floor, and the peers that are installed.
#pragma once

#include "bench_load.h"

#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

// One running target. Its end is a kill, after which its processor time is known to the microsecond.
class Target
{
public:
    ~Target();
    Target() = default;
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;

    double Kill();   // processor seconds of all its processes

    // Starts a program of its own and appends it to the target. With a_pstrOutput its standard output, up to
    // "</lc>", is read into it.
    bool Spawn(const std::vector<std::string>& a_vecstrCommand, std::string* a_pstrOutput);

    LoadTarget loadtarget;
    std::vector<pid_t> vecpid;
};

struct TargetKind
{
    const char* szName;
    const char* szProgram;   // looked for in the folders of programs; the own ones are always there
    uint32_t u32Share;       // it gets one in so many of the lines: what is slow need not run as long
    std::unique_ptr<Target> (*pfnStart)(const std::string& a_strFolder, uint32_t a_u32Streams);
};

// The collector first, the floor second, then the peers.
extern const std::vector<TargetKind> g_vectargetkind;

bool IsInstalled(const TargetKind& a_targetkind);
std::string OwnProgram(const char* a_szName);
