// os_coslog_header.h: the header block that opens a run's lines.
#pragma once

#include "os_coslog_destination.h"
#include "os_coslog_slots.h"

// Writes the block through the slot of the call that triggers it, with that call's prefix. Used by one thread at a
// time.
class COsLogHeader
{
public:
    struct Run
    {
        uint32_t u32Flags;   // from the last start
        const char* szFilter;
    };

    COsLogHeader(COsLogDestination& a_oslogdestination, OsLogSlot& a_oslogslot, const Run& a_run)
        : m_oslogdestination(a_oslogdestination), m_oslogslot(a_oslogslot), m_run(a_run)
    {
    }
    COsLogHeader(const COsLogHeader&) = delete;
    COsLogHeader& operator=(const COsLogHeader&) = delete;

    // False: logging is suppressed; the call's line is dropped.
    bool WriteIfPending();

private:
    void Write();
    template <class Piece>
    void Line(Piece a_piece);
    void RunLine();
    void SystemLine();
    void OsLine();
    void ModuleLine(const char* a_szTitle, const char* a_szModule, const char* a_szVersionInfo);
    void ModuleLines();
    void ArgumentsLine();

    COsLogDestination& m_oslogdestination;
    OsLogSlot& m_oslogslot;
    Run m_run;
};

// The stack size of the first thread that called this, in bytes.
uint64_t OsLogStackSize();
