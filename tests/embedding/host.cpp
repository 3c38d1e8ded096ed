// host.cpp: loads the plug-in beside it and runs it.
#include <cstdio>
#include <dlfcn.h>

int main(int, char** a_aszArgument)
{
    void* const pvPlugin = dlopen(a_aszArgument[1], RTLD_NOW | RTLD_LOCAL);
    void* const pvRun = pvPlugin ? dlsym(pvPlugin, "Run") : nullptr;
    if (!pvRun)
    {
        std::puts(dlerror());
        return 1;
    }
    return reinterpret_cast<int (*)()>(pvRun)();
}
