// os_coslogcollector_client.h: the roles that send a stream: finding the collector, the connection with its header, log
// lines of many threads, and which side continues the file when the connection is given up.
#pragma once

#include "os_coslogcollector_impl.h"
#include "os_coslogcollector_protocol.h"

#include <memory>

class COsLogCollectorSender;

class COsLogCollectorClient final : public COsLogCollectorImpl
{
public:
    // a_blPrivate: connects to a private collector, whose port the library knows; else to a shared one.
    COsLogCollectorClient(bool a_blPrivate, const char* a_szLogFile);
    ~COsLogCollectorClient() override;

    EOSSTS Start(const char* a_szLogFile, bool a_blCheckOther) override;
    void Stop(char* a_szFolder, size_t a_sizetFolder) override;
    EOSSTS ClientWrite(const void* a_pvBuffer, size_t a_sizetBytes, bool a_blWait) override;
    std::string TakeUnsent() override;
    void TakeClientSocket(COsSocket* a_possocket) override;
    void LeaveToParent() override;

private:
    EOSSTS Find();
    EOSSTS Connect();
    bool IsOurs(COsSocket& a_ossocket) const;
    bool SendHeader();
    bool WaitUntilRead(uint32_t a_u32Milliseconds) const;

    const bool m_blPrivate;
    char m_szHost[OS_LC_HOSTSIZE];
    char m_szPort[OS_LC_PORTSIZE];
    uint64_t m_u64ProcessIdApplication;   // its end aborts an attempt to connect
    uint64_t m_u64ProcessIdCollector;     // 0 when unknown
    char m_szLogFile[OS_PATHSIZE];
    uint64_t m_u64SizeBefore = 0;   // of the log file
    std::unique_ptr<COsLogCollectorSender> m_uniqueSender;
};
