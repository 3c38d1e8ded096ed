// coscfg_support.h: what the tests of the configuration share: files where the configuration looks for them.
#pragma once

#include "test_support.h"

#include "os_cosarguments.h"
#include "os_coscfg_impl.h"
#include "os_cosfile.h"
#include "os_cosfile_system.h"
#include "os_cospath.h"

#include <functional>

// A logger that is led back to where its line comes from.
class CallingSink final : public COsLogSink
{
public:
    explicit CallingSink(std::function<void()> a_function)
        : m_function(std::move(a_function)), m_poslogsink(g_poslogsink.exchange(this))
    {
    }
    ~CallingSink() { g_poslogsink.store(m_poslogsink); }
    void VPrintf(const char*, uint32_t, uint32_t, const char*, va_list) override
    {
        if (m_iDepth++ == 0)
            m_function();
        --m_iDepth;
    }
    uint32_t WorkingWord() const override { return 0; }

private:
    std::function<void()> m_function;
    COsLogSink* m_poslogsink;
    int m_iDepth = 0;
};

class ConfigurationTest : public FolderTest
{
protected:
    // The name is that of the INI files, and what their section headers begin with.
    ConfigurationTest() { OsArgumentsSet(OS_ARGUMENT_UNIQUENAME, "app"); }

    static void Put(const std::string& a_strPath, const std::string& a_strText)
    {
        OsFileCreateDirectory(a_strPath.substr(0, a_strPath.find_last_of('\\')).c_str());
        COsFile osfile;
        ASSERT_EQ(osfile.Open(a_strPath.c_str(), OS_FILEOPEN_CREATEALWAYS, OS_FILEACCESS_WRITE, OS_FILESHARE_EXCLUSIVE),
                  EOSSTS_SUCCESS)
            << a_strPath;
        ASSERT_EQ(osfile.Write(a_strText.data(), a_strText.size()), EOSSTS_SUCCESS);
    }
    static std::string Resolve(EOSPATH a_eospath)
    {
        char szPath[OS_PATHSIZE];
        EXPECT_EQ(OsCfgResolvePath(a_eospath, szPath, sizeof szPath), EOSSTS_SUCCESS);
        return szPath;
    }
    static void PutCommon(const std::string& a_strText)
    {
        Put(Resolve(OS_PATH_READABLE_FILE_COMMON_CONSTINI), a_strText);
    }
    static void PutConst(const std::string& a_strText)
    {
        Put(Resolve(OS_PATH_READABLE_FILE_PROTECTED_CONSTINI), a_strText);
    }
    static void PutDebug(const std::string& a_strText)
    {
        Put(Resolve(OS_PATH_WRITEABLE_FILE_UNPROTECTED_DEBUGINI), a_strText);
    }

    static std::string Tag(COsCfg& a_poscfg, EOSCFGTAG a_eoscfgtag)
    {
        return a_poscfg.GetString(OS_CFGSECTION_DSIDENTITY, a_eoscfgtag);
    }
    static void ExpectTags(COsCfg& a_oscfg, std::initializer_list<std::pair<EOSCFGTAG, std::string>> a_list)
    {
        for (const auto& [eoscfgtag, strValue] : a_list)
            EXPECT_EQ(Tag(a_oscfg, eoscfgtag), strValue) << OsCfgTagName(eoscfgtag);
    }
};
