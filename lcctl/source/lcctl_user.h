// lcctl_user.h: who this process is, and acting for another user, so that what his folders lead to is no more than he
// may do himself.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

uint64_t LcctlOwnProcessId();

// The user in whose home a path lies, by the user database; none for other places.
std::optional<uint32_t> LcctlHomeOwner(const std::filesystem::path& a_path);

// For its life, the files of this process are opened and deleted with that user's rights, where this process is the
// system's user and there is another one. The process has one thread.
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
