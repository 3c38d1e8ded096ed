// os_cosfile_impl.h: the implementation of the file class, shared by its sources, and the identity of a file.
#pragma once

#include "os_cosfile.h"
#include "os_cospath.h"
#include "os_log.h"

#include "plat_file.h"
#include "plat_user.h"

#include <cstdarg>
#include <memory>

// Interface to the monitor of a file object, for sources that do not watch.
class COsFileMonitorBase
{
public:
    COsFileMonitorBase() = default;
    virtual ~COsFileMonitorBase() = default;
    COsFileMonitorBase(const COsFileMonitorBase&) = delete;
    COsFileMonitorBase& operator=(const COsFileMonitorBase&) = delete;

    // Stops permanently. False when called on one of the monitor's own threads, which then ends by itself; else the
    // threads have ended on return.
    virtual bool Stop() = 0;
    virtual bool IsStopped() const = 0;
    virtual const OsFileMonitorState& State() const = 0;
};

// Same operations as COsFile, which forwards to them.
class COsFileImpl
{
public:
    COsFileImpl() = default;
    ~COsFileImpl();
    COsFileImpl(const COsFileImpl&) = delete;
    COsFileImpl& operator=(const COsFileImpl&) = delete;

    EOSSTS Open(const char* a_szFilename, EOSFILEOPEN a_eosfileopen, EOSFILEACCESS a_eosfileaccess,
                EOSFILESHARE a_eosfileshare, bool a_blRedirectionOff, EOSFILEGUARD a_eosfileguard);
    EOSSTS Close();
    EOSSTS Flush();

    EOSSTS Read(void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetRead);
    EOSSTS Write(const void* a_pvBuffer, size_t a_sizetBytes, bool a_blAppend, size_t* a_psizetWritten = nullptr);
    int VPrintf(const char* a_szFormat, va_list a_valist);

    EOSSTS Seek(EOSFILESEEK a_eosfileseek, int64_t a_i64Offset);
    EOSSTS GetSize(uint64_t* a_pu64Size);
    EOSSTS SetEndOfFile();

    EOSSTS Lock(uint32_t a_u32Offset, uint32_t a_u32Length, int32_t a_i32Timeout, const char* a_szName, bool a_blReport,
                bool a_blTestOnly);
    EOSSTS Unlock(uint32_t a_u32Offset, uint32_t a_u32Length);

    const char* GetName() const;
    bool IsOpen() const { return m_plathandleFile != PLAT_INVALID; }
    bool HasName() const;
    bool IsNamed() const;
    bool GetIdentity(OsFileIdentity* a_posfileidentity) const;
    bool GetOwner(PlatFileOwned* a_pplatfileowned) const;

    void TakeLibrary(PlatHandle a_plathandle, bool a_blLoaded, bool a_blDrain);
    void TakeBuffer(void* a_pvBuffer);

    EOSSTS MonitorStart(COsFile* a_posfile, const char* a_szPath, const char* a_szName, uint32_t a_u32Mask,
                        OsFileMonitorProc a_osfilemonitorproc, void* a_pvContext);
    void MonitorStop();
    const OsFileMonitorState& MonitorState() const;

private:
    bool CheckOpen(uint32_t a_u32Level = OS_LOG_ERROR) const;
    bool RememberName(const char* a_szFilename);
    int WriteFormatted(char* a_szText, size_t a_sizetText, const char* a_szFormat, va_list a_valist);
    struct LockSlot
    {
        uint64_t u64Offset;
        uint64_t u64Length;   // 0: the slot is free
        bool blHeld;          // lock of the currently open file; false: only remembered
    };

    LockSlot* FindSlot(uint64_t a_u64Offset, uint64_t a_u64Length);
    bool Overlaps(uint64_t a_u64Offset, uint64_t a_u64Length) const;
    bool LockWithin(uint32_t a_u32Offset, uint32_t a_u32Length, int32_t a_i32Timeout) const;
    void ReleaseLibrary();
    void ReleaseBuffer();

    // Shared with the monitor's threads, so that it survives a stop called on one of them.
    using MonitorReference = std::shared_ptr<COsFileMonitorBase>;
    MonitorReference Monitor() const;
    void SetMonitor(MonitorReference a_posfilemonitorbase);

    char m_szFilename[OS_PATHSIZE] = {};
    LockSlot m_alockslot[64] = {};
    PlatHandle m_plathandleFile = PLAT_INVALID;
    PlatHandle m_plathandleLibrary = PLAT_INVALID;
    bool m_blLibraryLoaded = false;
    bool m_blLibraryDrain = false;
    void* m_pvBuffer = nullptr;
    MonitorReference m_posfilemonitorbase;   // guarded by the lock: the callback may stop it while the owner does
    mutable uint64_t m_u64MonitorLock = 0;
    char16_t m_wszFilename[OS_WIDEPATHSIZE] = {};   // m_szFilename in UTF-16; empty when it does not convert
};

// The identity of the file at a path, or of the folder if a_u32Flags (PLAT_OPEN_) allow one. False when it cannot be
// opened. Does not conflict with other opens of the file.
bool OsFileReadIdentity(const char* a_szPath, uint32_t a_u32Flags, PlatFileIdentity* a_pplatfileidentity);
