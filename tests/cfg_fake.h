// cfg_fake.h: a configuration that holds what a test puts into it.
#pragma once

#include "os_cfg.h"

#include <map>
#include <string>

class CfgFake final : public COsCfgSource
{
public:
    CfgFake() { g_poscfgsource.store(this); }
    ~CfgFake() { g_poscfgsource.store(nullptr); }
    const char* GetString(EOSCFGSECTION, EOSCFGTAG a_eoscfgtag) override
    {
        const auto value = m_mapstrValue.find(a_eoscfgtag);
        return value == m_mapstrValue.end() ? "" : value->second.c_str();
    }
    EOSSTS GetInfo(EOSCFGINFO a_eoscfginfo, int64_t* a_pi64Value) override
    {
        *a_pi64Value = m_mapi64Info[a_eoscfginfo];
        return EOSSTS_SUCCESS;
    }
    void ManageLogDirectories(const char*) override {}

    std::map<EOSCFGTAG, std::string> m_mapstrValue;
    std::map<EOSCFGINFO, int64_t> m_mapi64Info;
};
