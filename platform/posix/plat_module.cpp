// plat_module.cpp: shared libraries of this process. A source of its own, because a program that is linked statically
// cannot well have it and does not use it.
//
// A handle holds where the library lies in the address space. The loader's own handle is asked for by name whenever
// it is needed, so that a library that has gone is recognised instead of touched.
#include "plat_posix.h"
#include "plat_system.h"

#include <cerrno>
#include <dlfcn.h>
#include <link.h>
#include <new>
#include <unistd.h>

namespace
{
struct ModuleSearch
{
    uint64_t u64Address;
    std::string strPath;
};
}   // namespace

static int CompareModule(dl_phdr_info* a_pdlphdrinfo, size_t, void* a_pvSearch)
{
    auto* pmodulesearch = static_cast<ModuleSearch*>(a_pvSearch);
    if (a_pdlphdrinfo->dlpi_addr != pmodulesearch->u64Address || !a_pdlphdrinfo->dlpi_name)
        return 0;
    pmodulesearch->strPath = a_pdlphdrinfo->dlpi_name;
    return 1;
}

static bool FindModule(PlatHandle a_plathandle, std::string& a_strPath)
{
    if (PosixKindOf(a_plathandle) != PosixKind::Module)
        return PosixFail(PLAT_ERROR_INVALIDHANDLE);
    ModuleSearch modulesearch{reinterpret_cast<uint64_t>(PosixObjectOf<void>(a_plathandle)), {}};
    if (dl_iterate_phdr(CompareModule, &modulesearch) == 0)
        return PosixFail(PLAT_ERROR_INVALIDHANDLE);
    a_strPath = modulesearch.strPath;
    return true;
}

PlatHandle PlatModuleLoad(const char16_t* a_wszPath)
try
{
    std::string strPath;
    if (!PosixPath(a_wszPath, strPath))
        return PLAT_INVALID;
    void* pvModule = dlopen(strPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    const link_map* plinkmap = nullptr;
    if (!pvModule || dlinfo(pvModule, RTLD_DI_LINKMAP, &plinkmap) != 0)
    {
        PlatSetLastError(access(strPath.c_str(), R_OK) == 0 ? PLAT_ERROR_BADEXEFORMAT : PosixTranslate(errno));
        return PLAT_INVALID;
    }
    return PosixMakeHandle(PosixKind::Module, static_cast<uint64_t>(plinkmap->l_addr));
}
catch (const std::bad_alloc&)
{
    PosixFail(PLAT_ERROR_NOMEMORY);
    return PLAT_INVALID;
}

bool PlatModuleFree(PlatHandle a_plathandle)
try
{
    std::string strPath;
    if (!FindModule(a_plathandle, strPath))
        return false;
    void* pvModule = dlopen(strPath.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (!pvModule)
        return PosixFail(PLAT_ERROR_INVALIDHANDLE);
    dlclose(pvModule);   // what was just asked for
    return dlclose(pvModule) == 0 || PosixFail(PLAT_ERROR_INVALIDHANDLE);
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}

bool PlatModuleIsLoaded(PlatHandle a_plathandle)
try
{
    std::string strPath;
    return FindModule(a_plathandle, strPath);
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}
