// lcctl_user.cpp: homes and their owners, acting with another user's rights.
#include "lcctl_user.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

namespace fs = std::filesystem;

uint64_t LcctlOwnProcessId()
{
    return static_cast<uint64_t>(getpid());
}

std::optional<uint32_t> LcctlHomeOwner(const fs::path& a_path)
{
    std::optional<uint32_t> user;
    size_t sizetLongest = 0;
    setpwent();
    while (const passwd* const ppasswd = getpwent())
    {
        std::error_code errorcode;
        const fs::path pathHome = fs::canonical(ppasswd->pw_dir, errorcode);
        const auto length = static_cast<size_t>(std::distance(pathHome.begin(), pathHome.end()));
        if (errorcode || length < 2 || length <= sizetLongest)   // "/" is not a home
            continue;
        if (std::mismatch(pathHome.begin(), pathHome.end(), a_path.begin(), a_path.end()).first == pathHome.end())
        {
            user = ppasswd->pw_uid;
            sizetLongest = length;
        }
    }
    endpwent();
    return user;
}

// If the rights cannot be restored, there is no safe way to continue.
static void Require(bool a_blDone)
{
    if (!a_blDone)
        std::abort();
}

CLcctlActAs::CLcctlActAs(std::optional<uint32_t> a_u32User)
{
    const passwd* const ppasswd = a_u32User && *a_u32User != 0 && geteuid() == 0 ? getpwuid(*a_u32User) : nullptr;
    if (!ppasswd)
        return;
    m_blActs = true;
    Require(initgroups(ppasswd->pw_name, ppasswd->pw_gid) == 0 && setegid(ppasswd->pw_gid) == 0 &&
            seteuid(ppasswd->pw_uid) == 0);
}

CLcctlActAs::~CLcctlActAs()
{
    if (m_blActs)
        Require(seteuid(0) == 0 && setegid(0) == 0 && setgroups(0, nullptr) == 0);
}
