// plat_process.h: processes, their standard streams and this process's own command line.
#pragma once

#include "plat_types.h"

enum PlatStandard : uint32_t
{
    PLAT_STANDARD_INPUT = 0,
    PLAT_STANDARD_OUTPUT = 1,
    PLAT_STANDARD_ERROR = 2,
};

struct PlatProcessStart
{
    const char16_t* wszProgram;                 // the program file; a relative path counts from this process's folder
    const char16_t* wszCommandLine;             // whole, the program first, quoted as the product's system does
    const char16_t* wszFolder;                  // to start in; null: this process's
    const char16_t* wszEnvironment;             // NAME=value texts, each terminated, the last followed by an empty one;
                                                // null: this process's, as PlatEnv* shows it
    PlatHandle aplathandle[3];                  // PlatStandard order; PLAT_INVALID gives the child an empty stream
    bool blInheritStandard;                     // give it this process's own streams instead
    bool blDetached;                            // a session of its own: signals to our terminal do not reach it
    PlatHandle plathandleUser = PLAT_INVALID;   // run as this user, with the rights, the folders and the name of his in
                                                // the environment; PLAT_INVALID: as this process's
    bool blInheritInput = false;                // give it this process's own standard input, whatever the others are
};

// Starts a program. The child gets the three streams and no other handle of ours. Returns once the program runs;
// a program that cannot be run is a failure here (2, 3, 5, 193, 267 for the folder). *a_pu64ProcessId receives its id.
// Once nobody holds the process any more, the system forgets it at its end.
PlatHandle PlatProcessCreate(const PlatProcessStart* a_pplatprocessstart, uint64_t* a_pu64ProcessId);

// Opens a process to wait for it. Fails with 87 when no process has the id. A process that has ended but whose
// parent has not asked for its exit code counts as ended.
PlatHandle PlatProcessOpen(uint64_t a_u64ProcessId);

// PLAT_STILLACTIVE while it runs. After its end: its exit code when this process created it, else 0. A process that
// a signal ended has 128 plus the signal's number. Where somebody else in this process has asked the system for the
// code before, which may then tell it no more, it is PLAT_EXITCODEUNKNOWN.
inline constexpr uint32_t PLAT_EXITCODEUNKNOWN = 0xFFFFFFFFu;
bool PlatProcessExitCode(PlatHandle a_plathandle, uint32_t* a_pu32ExitCode);

// Ends it without asking, which takes a moment. One that has ended already keeps its exit code.
bool PlatProcessTerminate(PlatHandle a_plathandle, uint32_t a_u32ExitCode);

uint64_t PlatProcessId();

// When a process was started, in units of the system's own: a later process with the same id has another value. 87 when
// none with the id runs; one that has ended and whose parent has not asked for its exit code does not.
bool PlatProcessStartTime(uint64_t a_u64ProcessId, uint64_t* a_pu64StartTime);

// True while a debugger is attached to this process.
bool PlatProcessIsDebugged();

// Lets the system report errors to the process instead of to the user, in the product's bits: 0x4 no repair of
// misaligned access, 0x8000 no message box when a file cannot be opened. Nothing to do on a system that has neither.
void PlatProcessSetErrorMode(uint32_t a_u32Mode);

// The command line of this process, whole, quoted as PlatProcessStart takes it. False, with the last error 122, when
// it does not fit.
bool PlatProcessCommandLine(char16_t* a_wszCommandLine, size_t a_sizetCommandLine);

// How far the process is trusted, in the product's numbers: 0x3000 for an administrator, 0x2000 for a user.
inline constexpr uint32_t PLAT_INTEGRITY_MEDIUM = 0x2000;
inline constexpr uint32_t PLAT_INTEGRITY_HIGH = 0x3000;
bool PlatProcessIntegrity(uint32_t* a_pu32Integrity);

// The session that the process belongs to; 0 is the services' session, where no user works.
bool PlatProcessSession(uint64_t a_u64ProcessId, uint32_t* a_pu32Session);

// The session of whoever sits at the machine's own screen and keyboard.
uint32_t PlatSessionActive();

// The user who works in a session, for PlatProcessStart. PLAT_INVALID with 1314 for a process that may not act for
// others, with 1008 when nobody works there.
PlatHandle PlatSessionUser(uint32_t a_u32Session);

// A pipe of which one end goes to a child. The write end of ours blocks; the read end of ours does not.
bool PlatPipeCreate(PlatHandle* a_pplathandleRead, PlatHandle* a_pplathandleWrite, bool a_blReadIsOurs);

// Takes what has arrived, up to a_sizetBytes. Fails with PLAT_ERROR_WOULDBLOCK when nothing has, with
// PLAT_ERROR_BROKENPIPE when nothing has and every writer has gone.
bool PlatPipeRead(PlatHandle a_plathandle, void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetRead);
bool PlatPipeWrite(PlatHandle a_plathandle, const void* a_pvBuffer, size_t a_sizetBytes);

// Writes all bytes to one of this process's own standard streams, at once.
bool PlatStandardWrite(PlatStandard a_platstandard, const void* a_pvBuffer, size_t a_sizetBytes);

// The full path of the program file of this process.
bool PlatProgramPath(char16_t* a_wszPath, size_t a_sizetPath);
