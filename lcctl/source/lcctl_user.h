// lcctl_user.h: the current user, and acting with another user's rights, so that links in that user's folders lead to
// nothing that this user may not change.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

uint64_t LcctlOwnProcessId();

// The user whose home contains the path, by the user database; none for other places.
std::optional<uint32_t> LcctlHomeOwner(const std::filesystem::path& a_path);

// During its lifetime this process opens and deletes files with that user's rights, if this process is root's and the
// user is another one. The process must have one thread.
class CLcctlActAs
{
public:
    explicit CLcctlActAs(std::optional<uint32_t> a_u32User);
    ~CLcctlActAs();
    CLcctlActAs(const CLcctlActAs&) = delete;
    CLcctlActAs& operator=(const CLcctlActAs&) = delete;

private:
    bool m_blActs = false;
};
