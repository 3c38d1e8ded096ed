// host.cpp: loads two plug-ins, which log at the same time, and unloads them.
#include <cstdio>
#include <dlfcn.h>

int main(int, char** a_aszArgument)
{
    void* apvPlugin[2];
    for (int i = 0; i < 2; ++i)
    {
        apvPlugin[i] = dlopen(a_aszArgument[1 + i], RTLD_NOW | RTLD_LOCAL);
        void* const pvBegin = apvPlugin[i] ? dlsym(apvPlugin[i], "Begin") : nullptr;
        if (!pvBegin)
        {
            std::puts(dlerror());
            return 1;
        }
        if (reinterpret_cast<int (*)(const char*)>(pvBegin)(i ? "second" : "first") != 0)
            return 2;
    }
    for (void* const pvPlugin : apvPlugin)
    {
        reinterpret_cast<void (*)()>(dlsym(pvPlugin, "End"))();
        dlclose(pvPlugin);
    }
}
