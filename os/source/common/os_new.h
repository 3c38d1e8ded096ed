// os_new.h: creates and frees library objects and logs both.
#pragma once

#include "os_log.h"

#include <new>
#include <utility>

// Makes a library object and logs it under its class name. Null (logged) when there is no memory.
template <class Object, class... Arguments>
Object* OsMemNew(const char* a_szFile, uint32_t a_u32Line, const char* a_szClass, Arguments&&... a_arguments)
{
    Object* pobject = nullptr;
    try
    {
        pobject = new (std::nothrow) Object(std::forward<Arguments>(a_arguments)...);
    }
    catch (const std::bad_alloc&)   // thrown by a constructor of a member
    {
    }
    if (!pobject)
    {
        OSLOG_AT(a_szFile, a_u32Line, OS_LOG_CHECK, "OsMemNew failed...");
        return nullptr;
    }
    OSLOG_AT(a_szFile, a_u32Line, OS_LOG_NOTE, "mem>>> addr:%p  size:%7d  new %s", static_cast<void*>(pobject),
             static_cast<int>(sizeof(Object)), a_szClass);
    return pobject;
}

// Logs and frees a library object and clears the reference; null is left alone.
template <class Object>
void OsMemDelete(const char* a_szFile, uint32_t a_u32Line, Object*& a_pobject)
{
    if (!a_pobject)
        return;
    OSLOG_AT(a_szFile, a_u32Line, OS_LOG_NOTE, "mem>>> addr:%p delete-object", static_cast<void*>(a_pobject));
    delete a_pobject;
    a_pobject = nullptr;
}

#define OSMEMNEW(Class, ...)                                                                                           \
    OsMemNew<Class>(g_szSource, static_cast<uint32_t>(__LINE__), #Class __VA_OPT__(, ) __VA_ARGS__)
#define OSMEMDELETE(a_pobject) OsMemDelete(g_szSource, static_cast<uint32_t>(__LINE__), a_pobject)
