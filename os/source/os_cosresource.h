// os_cosresource.h: named binary resources that program and library files carry.
#pragma once

#include "os_types.h"

class COsResourceImpl;

// Used in place of a file name: the module that contains this library.
inline constexpr char OS_RESOURCELOCAL[] = "OsResourceGetLocal";

class COsResource
{
public:
    COsResource();
    ~COsResource();   // frees the data
    COsResource(const COsResource&) = delete;
    COsResource& operator=(const COsResource&) = delete;

    // Reads the resource from the file; the name is compared exactly. EOSSTS_FAIL for a bad argument, when the object
    // already holds a resource, and for a file that is not a program or library; EOSSTS_NOSPACE (14) when the resource
    // is missing or damaged. After a failure the object can be used again.
    EOSSTS Open(const char* a_szFilename, const char* a_szResourceName);

    // The data, followed by a zero byte that is not counted, so that a text is terminated. Valid as long as the object.
    // Null and 0 without a resource.
    const char* Data() const;
    size_t Size() const;

    // True after a failed open if the file was read but does not have the resource: a retry would not help.
    bool IsAbsent() const;

    bool IsUsable() const { return m_posresourceimpl != nullptr; }

private:
    COsResourceImpl* m_posresourceimpl;   // null only when its allocation failed
};

// Opens a resource of the module that contains this library. Null (logged) when there is none. The caller deletes it.
COsResource* OsResourceGetLocal(const char* a_szResourceName);

// False when the file's resource table is damaged. True for a file without resources or one that cannot be read: there
// is nothing to check.
bool OsResourceIsIntact(const char* a_szFilename);

// A text resource of this module, null when there is none or it cannot be read now. Valid as long as the process.
// Thread-safe.
const char* OsResourceText(const char* a_szName);
