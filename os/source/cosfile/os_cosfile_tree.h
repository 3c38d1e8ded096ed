// os_cosfile_tree.h: a walk through the tree below a folder, for whoever deletes in it.
//
// It reaches what is there at any depth and under any name, costs no stack, follows no link, and is led nowhere else
// by what changes meanwhile. Used by one thread.
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

    // Begins the walk in a folder; once. EOSSTS_FAIL when there is none, when it is a link or cannot be listed.
    EOSSTS Open(const char* a_szFolder);

    // Begins the walk at one entry, which is then the entry read last; once. What Enter goes into and DeleteEntry
    // deletes is what this has found. EOSSTS_NOTFOUND when there is none, EOSSTS_FAIL for ".", ".." and the root.
    EOSSTS OpenAt(const char* a_szPath);

    // True when the folder that the walk is in is this one or holds it, and when that cannot be told.
    bool Holds(const char* a_szFolder) const;

    bool Next();                                           // reads an entry of the folder that the walk is in
    bool Enter();                                          // goes into the folder that was read last
    void Leave();                                          // back; what was left is then the entry read last
    size_t Depth() const { return m_vecoutside.size(); }   // folders that were entered and not left

    // The entry read last. The name is empty for one that was left. Without a path, which is one that does not fit or
    // holds a name that is no text, Path tells the last folder on the way that has one.
    const char* Name() const { return m_szName; }
    EOSFILETYPE Type() const { return m_eosfiletype; }
    bool IsFolder() const { return m_eosfiletype == OS_FILETYPE_FOLDER; }
    bool IsLink() const { return m_blLink; }
    bool HasPath() const { return m_blPath; }
    const char* Path() const { return m_szPath; }
    bool WriteTime(uint64_t* a_pu64WriteTime) const;   // as PlatClock tells the time

    // Deletes the entry read last; false, and logged, when it is still there. A folder must be empty.
    bool DeleteEntry();

    // Deletes all that is in the folder that the walk is in, but for an entry with the name a_szExcept (may be null)
    // right in it; stops at the first failure. The walk is then in it again.
    bool DeleteAll(const char* a_szExcept = nullptr);

private:
    bool ConvertPath(const char* a_szPath, char16_t* a_wszPath);
    void TakeEntry(const PlatTreeEntry& a_plattreeentry);

    struct Outside   // what was so before a folder was entered
    {
        size_t sizetFolder;
        bool blFolderPath;
    };

    PlatHandle m_plathandle = PLAT_INVALID;
    bool m_blSystemFiles;
    std::vector<Outside> m_vecoutside;
    size_t m_sizetFolder = 0;   // the length of the path of the folder that the walk is in
    bool m_blFolderPath = true;

    char m_szName[OS_PATHSIZE] = {};
    char m_szPath[OS_PATHSIZE] = {};
    bool m_blPath = true;
    bool m_blLink = false;
    EOSFILETYPE m_eosfiletype = OS_FILETYPE_FOLDER;
};

// Logs that a folder could not be deleted.
void OsFileTellFolderStays(const char* a_szPath);
