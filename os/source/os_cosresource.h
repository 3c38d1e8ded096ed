// os_cosresource.h: named binary resources that program and library files carry.
#pragma once

#include "os_types.h"

class COsResourceImpl;

// In place of a file name: the module that holds this library.
inline constexpr char OS_RESOURCELOCAL[] = "OsResourceGetLocal";

class COsResource
{
public:
    COsResource();
    ~COsResource();   // frees the data
    COsResource(const COsResource&) = delete;
    COsResource& operator=(const COsResource&) = delete;

    // Takes the resource out of the file; the name is compared exactly. EOSSTS_FAIL for a bad argument, when the object
    // holds a resource already, and for what is no program or library; EOSSTS_NOSPACE (14) when the file has no such
    // resource or a damaged one. After a failure the object can be used again.
    EOSSTS Open(const char* a_szFilename, const char* a_szResourceName);

    // The data is followed by a zero byte that does not count, so that a text is one as it lies there. It lives as long
    // as the object. Null and 0 without a resource.
    const char* Data() const;
    size_t Size() const;

    // After an open that failed: the file was read, and has no such resource. Another try would not help.
    bool IsAbsent() const;

    bool IsUsable() const { return m_posresourceimpl != nullptr; }

private:
    COsResourceImpl* m_posresourceimpl;   // null only when its allocation failed
};

// Opens a resource of the module that holds this library. Null, and logged, when there is none. The caller deletes it.
COsResource* OsResourceGetLocal(const char* a_szResourceName);

// False when the file carries resources and what tells where they are does not hold: the file was damaged after it was
// made. A file without resources, or one that cannot be read, has nothing to compare with.
bool OsResourceIsIntact(const char* a_szFilename);

// A text resource of this module, null when there is none or when it cannot be read now. The text lives as long as the
// process. Any thread.
const char* OsResourceText(const char* a_szName);
