// module_test.cpp: a driver module that is loaded into a program which uses the library as well.
#include "test_support.h"

#include "os_coslog.h"
#include "os_cosservices.h"

#include <dlfcn.h>

namespace fs = std::filesystem;

class Module : public FolderTest
{
protected:
    Module()
    {
        const fs::path path = m_path / "system/SYSTEMROOT/lib/mvr_orvane/common";
        fs::create_directories(path);
        WriteWhole(path / "const.ini", "LogCollector=disabled\r\n");
        fs::create_directory(PathOf("drivers"));
        fs::copy_file(TEST_PROGRAMFOLDER "/libmodule_plugin.so", PathOf("drivers/d100.so"));
        EXPECT_EQ(AppendResources(PathOf("drivers/d100.so"), "VERSION=1.2.3.4"), 0);
    }

    // What the module says of itself. It is loaded once more at the end of each call.
    static std::string StartModule(const std::string& a_strPath)
    {
        void* const pvModule = dlopen(a_strPath.c_str(), RTLD_NOW | RTLD_LOCAL);
        EXPECT_NE(pvModule, nullptr) << dlerror();
        if (!pvModule)
            return "";
        using StartProc = const char* (*)();
        using StopProc = void (*)();
        const std::string strText = reinterpret_cast<StartProc>(dlsym(pvModule, "ModuleStart"))();
        reinterpret_cast<StopProc>(dlsym(pvModule, "ModuleStop"))();
        return Slashed(strText);
    }
    void ExpectItself(const std::string& a_strText) const
    {
        const std::string strFolder = PathOf("system/LOCALAPPDATA/mvr_orvane/d100.so/d100/log.");
        EXPECT_EQ(a_strText.find(strFolder), 0u) << a_strText;
        EXPECT_TRUE(a_strText.ends_with("/d100.log|d100.so|" + PathOf("drivers") + "|04")) << a_strText;
        const std::string strLog = ReadWhole(a_strText.substr(0, a_strText.find('|')));
        EXPECT_NE(strLog.find("at work\r\n"), std::string::npos);
        EXPECT_NE(strLog.find("### dllInfo <" + PathOf("drivers/d100.so") + "> cd=(n/a) versioninfo=1.2.3.4 "),
                  std::string::npos);
        EXPECT_NE(strLog.find("/module_test> cd=(n/a) versioninfo=0.0 "), std::string::npos) << "the host has none";
    }
};

TEST_F(Module, HasItsOwnNameFolderAndVersionWhateverItsHostIs)
{
    OsServicesSetDocument("<arguments><uniquename>host</uniquename><entity>application</entity>"
                          "<loglevel>1</loglevel></arguments>");
    ASSERT_EQ(OsServicesStart(), EOSSTS_SUCCESS);
    const COsLog* const poslog = OsLogGet();
    ExpectItself(StartModule(PathOf("drivers/d100.so")));
    EXPECT_EQ(OsLogGet(), poslog);
    EXPECT_TRUE(Slashed(poslog->LogFile()).ends_with("/host.log"));
    OsServicesStop();
}

TEST_F(Module, IsFoundWhenItWasLoadedByARelativeName)
{
    fs::current_path(PathOf("drivers"));
    ExpectItself(StartModule("./d100.so"));
}
