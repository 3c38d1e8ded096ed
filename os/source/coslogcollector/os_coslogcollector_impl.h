// os_coslogcollector_impl.h: the interface of a role of the public object.
//
//   os_coslogcollector.cpp                 the public object, the choice of its role
//   os_coslogcollector_server*.{h,cpp}     the roles that receive streams
//   os_coslogcollector_client.{h,cpp}      the roles that send one
//   os_coslogcollector_spawn.cpp           an application starts its collector
//   os_coslogcollector_announcement.{h,cpp}   how a shared collector is found
//   os_coslogcollector_protocol.{h,cpp}    the messages
#pragma once

#include "os_coslogcollector.h"

// The operations are those of COsLogCollector, which forwards to them. Those of the other side do nothing in a role.
class COsLogCollectorImpl
{
public:
    COsLogCollectorImpl() = default;
    virtual ~COsLogCollectorImpl() = default;
    COsLogCollectorImpl(const COsLogCollectorImpl&) = delete;
    COsLogCollectorImpl& operator=(const COsLogCollectorImpl&) = delete;

    virtual EOSSTS Start(const char* a_szLogFile, bool a_blCheckOther) = 0;
    virtual void Stop(char* a_szFolder, size_t a_sizetFolder) = 0;

    // Roles that receive streams.
    virtual void SetApplication(uint64_t) {}
    virtual bool HasStraggler() const { return false; }   // a reader still runs: keep what it uses after Stop

    // Roles that send one.
    virtual EOSSTS ClientWrite(const void* a_pvBuffer, size_t a_sizetBytes, bool a_blWait);
    virtual std::string TakeUnsent() { return {}; }
    virtual void TakeClientSocket(COsSocket* a_possocket);
    virtual void LeaveToParent() {}
};

// True in the services session, where no user works and no collector is used.
bool OsLcIsServicesSession();

// True when this program's path makes it a collector; a collector does not use one.
bool OsLcIsCollectorProgram();
