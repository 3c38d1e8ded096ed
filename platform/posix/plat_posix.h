// plat_posix.h: what the sources of this backend share: how a handle is made up, a descriptor that closes itself, the
// one translator of errno, and text in both encodings.
#pragma once

#include "plat_thread.h"
#include "plat_types.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

// A handle carries what it is and a descriptor or a pointer: bits 48 to 55 hold the kind (never 0, never 0xFF), bits 0
// to 47 a pointer, or the descriptor (0 to 30) and its generation (32 to 47), and bits 56 to 63 what its kind adds.
enum class PosixKind : uint32_t
{
    None = 0,
    EventAuto,   // eventfd
    EventManual,
    NamedEventAuto,   // FIFO
    NamedEventManual,
    Thread,    // pointer
    Process,   // pidfd of a process that somebody else started
    Child,     // pointer
    PipeRead,
    PipeWrite,
    File,
    FileTemporary,   // goes when it is closed
    Find,            // pointer
    Socket,
    SocketEvent,   // epoll
    Watch,         // inotify
    MemoryFile,    // memfd
    Module,        // pointer
    AppendFile,    // pointer
    Tree,          // pointer
    User,          // pointer
};

// The system gives the number of a closed descriptor to the next opener, so that a handle which somebody kept would
// mean a stranger's file. Each close of a handle therefore begins a new generation of its descriptor. Descriptors
// beyond the table, which no usual limit allows, stay in their first.
inline constexpr size_t POSIX_GENERATIONS = size_t{1} << 20;
extern std::array<std::atomic<uint16_t>, POSIX_GENERATIONS> g_aatomicGeneration;

inline uint16_t PosixGeneration(int a_iDescriptor)
{
    const auto sizetDescriptor = static_cast<size_t>(a_iDescriptor);
    return sizetDescriptor < POSIX_GENERATIONS ? g_aatomicGeneration[sizetDescriptor].load(std::memory_order_relaxed)
                                               : uint16_t{0};
}

constexpr PlatHandle PosixMakeHandle(PosixKind a_posixkind, uint64_t a_u64Value)
{
    return (static_cast<uint64_t>(a_posixkind) << 48) | a_u64Value;
}

inline PlatHandle PosixMakeHandle(PosixKind a_posixkind, int a_iDescriptor)
{
    return PosixMakeHandle(a_posixkind, static_cast<uint64_t>(PosixGeneration(a_iDescriptor)) << 32 |
                                            static_cast<uint64_t>(a_iDescriptor));
}

inline PlatHandle PosixMakeHandle(PosixKind a_posixkind, const void* a_pvObject)
{
    return PosixMakeHandle(a_posixkind, reinterpret_cast<uint64_t>(a_pvObject));
}

constexpr PosixKind PosixKindOf(PlatHandle a_plathandle)
{
    return a_plathandle == PLAT_INVALID ? PosixKind::None : static_cast<PosixKind>((a_plathandle >> 48) & 0xFF);
}

// The number alone, also of a handle of another process.
constexpr int PosixNumberOf(PlatHandle a_plathandle)
{
    return static_cast<int>(a_plathandle & 0x7FFFFFFF);
}

int PosixFailStale();   // -1, with error 6 and EBADF

// The descriptor of an open handle; -1, with the last error 6, of one that was closed.
inline int PosixDescriptorOf(PlatHandle a_plathandle)
{
    const int iDescriptor = PosixNumberOf(a_plathandle);
    const bool blCurrent = PosixGeneration(iDescriptor) == static_cast<uint16_t>(a_plathandle >> 32);
    return blCurrent ? iDescriptor : PosixFailStale();
}

// Begins the next generation of a handle's descriptor: the handle that is returned means it until it is closed, every
// other one nothing. PLAT_INVALID, with the last error 6, for a handle that was closed. Pointers stay what they are.
PlatHandle PosixRetire(PlatHandle a_plathandle);

template <class Object>
Object* PosixObjectOf(PlatHandle a_plathandle)
{
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the pointer was put into the handle as a number
    return reinterpret_cast<Object*>(a_plathandle & 0x0000FFFFFFFFFFFFull);
}

constexpr bool PosixIsPointer(PosixKind a_posixkind)
{
    return a_posixkind == PosixKind::Thread || a_posixkind == PosixKind::Child || a_posixkind == PosixKind::Find ||
           a_posixkind == PosixKind::Module || a_posixkind == PosixKind::AppendFile || a_posixkind == PosixKind::Tree ||
           a_posixkind == PosixKind::User;
}

// A descriptor that is closed when its owner is left.
class PosixDescriptor
{
public:
    explicit PosixDescriptor(int a_iDescriptor = -1) : m_iDescriptor(a_iDescriptor) {}
    ~PosixDescriptor()
    {
        if (m_iDescriptor >= 0)
            close(m_iDescriptor);
    }
    PosixDescriptor(const PosixDescriptor&) = delete;
    PosixDescriptor& operator=(const PosixDescriptor&) = delete;

    bool IsOpen() const { return m_iDescriptor >= 0; }
    int Get() const { return m_iDescriptor; }
    void Take(int a_iDescriptor)   // in place of none
    {
        m_iDescriptor = a_iDescriptor;
    }
    int Release()
    {
        const int iDescriptor = m_iDescriptor;
        m_iDescriptor = -1;
        return iDescriptor;
    }

private:
    int m_iDescriptor;
};

// The one translator from errno to the layer's numbers.
uint32_t PosixTranslate(int a_iErrno);

// Sets the last error and returns false, so that a failing call can end in "return PosixFail(...)".
bool PosixFail(uint32_t a_u32Error);
bool PosixFailErrno();   // with what errno says now

// Calls again what a signal has interrupted.
template <class Call>
auto PosixRetry(Call a_call)
{
    for (;;)
    {
        const auto result = a_call();
        if (result >= 0 || errno != EINTR)
            return result;
    }
}

// UTF-16 to UTF-8 and back. False, with the last error 1113, for text that is neither; 122 when it does not fit.
bool PosixToUtf8(const char16_t* a_wszText, std::string& a_strText);
bool PosixToWide(const char* a_szText, char16_t* a_wszText, size_t a_sizetText);

// The whole of a text file; what cannot be read is empty.
std::string PosixReadText(const char* a_szPath);

// Takes the text up to the separator off the front of a_strviewText.
std::string_view PosixTake(std::string_view& a_strviewText, char a_chSeparator);

// A path of the product as a path of this system: separators, long-path prefix, drive letters. False like above.
// Defined with the files.
bool PosixPath(const char16_t* a_wszPath, std::string& a_strPath);

// An event that is open as a descriptor: it holds at most so many bytes, all of which one read takes. False when it
// held none.
inline constexpr int PosixEventRoom = 4096;
bool PosixDrainEvent(int a_iEvent);

// Opens or makes an event with a name. -1, with the last error, on failure.
int PosixOpenNamedEvent(const char16_t* a_wszName, bool* a_pblExisted);
PlatHandle PosixNamedEventOwner();   // what its handle carries beside the descriptor

// The descriptor that can be read once a child has ended.
int PosixChildDescriptor(PlatHandle a_plathandle);

// Takes over the descriptor of a child that nobody waits for any more, and sees the child off at its end.
void PosixLeaveChild(int a_iProcess);

// Whose something is that belongs to this user. Defined with plat_user.h, which names the owners.
enum PlatOwner : uint32_t;
PlatOwner PosixOwnerOf(uint32_t a_u32User);

// The group that a user's files belong to. One who has no account here has the group with his number, unless somebody
// else has it, and nobody's otherwise.
uint32_t PosixPrimaryGroup(uint32_t a_u32User);

// Somebody that a program can be run as.
struct PosixUser
{
    std::string strName;
    uint32_t u32Id = 0;
    uint32_t u32Group = 0;
    std::string strHome;
    std::string strShell;
    std::vector<uint32_t> vecu32Groups;   // all that he is in
};

// The home folder of this process's account; empty for one that the machine does not have.
std::string PosixAccountHome();

// Makes an environment the user's: his name and folders, and none of what was said about ours.
void PosixUserEnvironment(const PosixUser& a_posixuser, std::vector<std::string>& a_vecstrEnvironment);

// The value of a variable; false, without an error, when it is unset or empty.
bool PosixEnvGet(const char* a_szName, std::string& a_strValue);

// Locks around what the C library shares. A log call waits for them, so nobody is ended while he holds one, nor is the
// process forked.
enum PosixLock : uint32_t
{
    POSIX_LOCK_ZONE,          // asking for a local time; taken before the other one
    POSIX_LOCK_ENVIRONMENT,   // reading or changing the environment, also on the side
};

class PosixGuard
{
public:
    explicit PosixGuard(PosixLock a_posixlock);
    ~PosixGuard();
    PosixGuard(const PosixGuard&) = delete;
    PosixGuard& operator=(const PosixGuard&) = delete;

private:
    PlatThreadDeferral m_platthreaddeferral;
    PosixLock m_posixlock;
};

// The soft limit of open descriptors: raised to the hard one for us, as it was for the programs that we start.
// The second may run in the memory of a parent, before a child's program does.
void PosixRaiseDescriptorLimit();
void PosixRestoreDescriptorLimit();

// From the first call on, what is written beyond the limit of a file's size is refused like on a full disk, not
// answered with a signal that ends the process. A program that handles the signal itself goes on to do so.
void PosixIgnoreFileSizeSignal();

// The arguments of a command line that is quoted as the product's system does, the program first.
bool PosixSplitCommandLine(const char16_t* a_wszCommandLine, std::vector<std::string>& a_vecstrArguments);

// The full path of the program file of this process; allocates nothing.
bool PosixProgramPath(char* a_szPath, size_t a_sizetPath);

// What PlatClose does for the kinds that are more than a descriptor; each is defined with its kind.
bool PosixCloseThread(PlatHandle a_plathandle);
bool PosixCloseChild(PlatHandle a_plathandle);
bool PosixCloseUser(PlatHandle a_plathandle);
bool PosixCloseNamedEvent(PlatHandle a_plathandle);
bool PosixCloseFile(PlatHandle a_plathandle);
bool PosixCloseFind(PlatHandle a_plathandle);
bool PosixCloseAppend(PlatHandle a_plathandle);
bool PosixCloseTree(PlatHandle a_plathandle);
