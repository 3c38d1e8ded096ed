// os_coslogcollector_impl.h: what the public object asks of a role.
//
//   os_coslogcollector.cpp                 the public object, which role it gets
//   os_coslogcollector_server*.{h,cpp}     the roles that take streams
//   os_coslogcollector_client.{h,cpp}      the roles that send one
//   os_coslogcollector_spawn.cpp           an application starts its collector
//   os_coslogcollector_announcement.{h,cpp}   how a shared collector is found
//   os_coslogcollector_protocol.{h,cpp}    the messages
#pragma once

#include "os_coslogcollector.h"

// The operations are those of COsLogCollector, which forwards to them. A role does not do what is the other side's.
class COsLogCollectorImpl
{
public:
    COsLogCollectorImpl() = default;
    virtual ~COsLogCollectorImpl() = default;
    COsLogCollectorImpl(const COsLogCollectorImpl&) = delete;
    COsLogCollectorImpl& operator=(const COsLogCollectorImpl&) = delete;

    virtual EOSSTS Start(const char* a_szLogFile, bool a_blCheckOther) = 0;
    virtual void Stop(char* a_szFolder, size_t a_sizetFolder) = 0;

    // Of the roles that take streams.
    virtual void SetApplication(uint64_t) {}
    virtual bool HasStraggler() const { return false; }   // what it uses must stay valid after Stop

    // Of the roles that send one.
    virtual EOSSTS ClientWrite(const void* a_pvBuffer, size_t a_sizetBytes, bool a_blWait);
    virtual std::string TakeUnsent() { return {}; }
    virtual void TakeClientSocket(COsSocket* a_possocket);
    virtual void LeaveToParent() {}
};

// True in the session where no user works: there nobody uses a collector.
bool OsLcIsServicesSession();

// True when this program is a collector by its path: a collector has none itself.
bool OsLcIsCollectorProgram();
