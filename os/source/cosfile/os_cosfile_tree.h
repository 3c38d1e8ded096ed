// os_cosfile_tree.h: a walk through the tree below a folder, for deleting in it.
//
// Handles any depth and any name, does not recurse, follows no link, and is not misled by concurrent changes. Used by
// one thread.
#pragma once

#include "os_cosfile_system.h"

#include "plat_types.h"

#include <vector>

struct PlatTreeEntry;   // plat_tree.h

class OsFileTree
{
public:
    explicit OsFileTree(bool a_blSystemFiles) : m_blSystemFiles(a_blSystemFiles) {}
    ~OsFileTree();
    OsFileTree(const OsFileTree&) = delete;
    OsFileTree& operator=(const OsFileTree&) = delete;

    // Begins the walk in a folder; call once. EOSSTS_FAIL when the folder does not exist, is a link or cannot be
    // listed.
    EOSSTS Open(const char* a_szFolder);

    // Begins the walk at one entry, which becomes the current entry; call once. Enter and DeleteEntry act on the entry
    // found here. EOSSTS_NOTFOUND when it does not exist, EOSSTS_FAIL for ".", ".." and the root.
    EOSSTS OpenAt(const char* a_szPath);

    // True when the walk's folder is a_szFolder or contains it, and when that cannot be determined.
    bool Holds(const char* a_szFolder) const;

    bool Next();    // reads the next entry of the walk's folder
    bool Enter();   // enters the current entry, a folder
    void Leave();   // back to the parent; the folder just left becomes the current entry
    size_t Depth() const { return m_vecoutside.size(); }   // levels entered

    // The current entry. Name is empty after Leave. HasPath is false if the path does not fit or contains a name that
    // is not valid text; Path is then that of the nearest parent that has one.
    const char* Name() const { return m_szName; }
    EOSFILETYPE Type() const { return m_eosfiletype; }
    bool IsFolder() const { return m_eosfiletype == OS_FILETYPE_FOLDER; }
    bool IsLink() const { return m_blLink; }
    bool HasPath() const { return m_blPath; }
    const char* Path() const { return m_szPath; }
    bool WriteTime(uint64_t* a_pu64WriteTime) const;   // in the unit of PlatClock

    // Deletes the current entry; false (logged) when it still exists. A folder must be empty.
    bool DeleteEntry();

    // Deletes everything in the walk's folder except the entry a_szExcept (may be null) directly in it; stops at the
    // first failure. The walk is back in that folder afterwards.
    bool DeleteAll(const char* a_szExcept = nullptr);

private:
    bool ConvertPath(const char* a_szPath, char16_t* a_wszPath);
    void TakeEntry(const PlatTreeEntry& a_plattreeentry);

    struct Outside   // state to restore on Leave
    {
        size_t sizetFolder;
        bool blFolderPath;
    };

    PlatHandle m_plathandle = PLAT_INVALID;
    bool m_blSystemFiles;
    std::vector<Outside> m_vecoutside;
    size_t m_sizetFolder = 0;   // length of the path of the walk's folder
    bool m_blFolderPath = true;

    char m_szName[OS_PATHSIZE] = {};
    char m_szPath[OS_PATHSIZE] = {};
    bool m_blPath = true;
    bool m_blLink = false;
    EOSFILETYPE m_eosfiletype = OS_FILETYPE_FOLDER;
};

// Logs that a folder could not be deleted.
void OsFileTellFolderStays(const char* a_szPath);
