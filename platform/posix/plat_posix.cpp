// plat_posix.cpp: the last error and its translator, text in both encodings, the generations of handles, closing one of
// any kind.
#include "plat_posix.h"

#include "plat_utf.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

// ------------------------------------------------------------------------------------------------ the last error

static thread_local uint32_t t_u32Error = PLAT_ERROR_NONE;

uint32_t PlatGetLastError()
{
    return t_u32Error;
}

void PlatSetLastError(uint32_t a_u32Error)
{
    t_u32Error = a_u32Error;
}

bool PosixFail(uint32_t a_u32Error)
{
    t_u32Error = a_u32Error;
    return false;
}

bool PosixFailErrno()
{
    return PosixFail(PosixTranslate(errno));
}

// The one that every drained socket gives comes first.
static constexpr struct
{
    int iErrno;
    uint32_t u32Error;
} g_aerror[] = {
    {EAGAIN, PLAT_ERROR_WOULDBLOCK},        {0, PLAT_ERROR_NONE},
    {ENOENT, PLAT_ERROR_FILENOTFOUND},      {ENOTDIR, PLAT_ERROR_PATHNOTFOUND},
    {EMFILE, PLAT_ERROR_TOOMANYOPEN},       {ENFILE, PLAT_ERROR_TOOMANYOPEN},
    {EACCES, PLAT_ERROR_ACCESSDENIED},      {EPERM, PLAT_ERROR_ACCESSDENIED},
    {EISDIR, PLAT_ERROR_ACCESSDENIED},      {EBADF, PLAT_ERROR_INVALIDHANDLE},
    {ENOMEM, PLAT_ERROR_NOMEMORY},          {EXDEV, PLAT_ERROR_NOTSAMEDEVICE},
    {EROFS, PLAT_ERROR_WRITEPROTECT},       {ETXTBSY, PLAT_ERROR_SHARING},
    {EEXIST, PLAT_ERROR_ALREADYEXISTS},     {EINVAL, PLAT_ERROR_INVALIDPARAMETER},
    {EPIPE, PLAT_ERROR_BROKENPIPE},         {ENOSPC, PLAT_ERROR_DISKFULL},
    {EDQUOT, PLAT_ERROR_DISKFULL},          {EFBIG, PLAT_ERROR_DISKFULL},
    {ENAMETOOLONG, PLAT_ERROR_INVALIDNAME}, {ELOOP, PLAT_ERROR_INVALIDNAME},
    {ENOTEMPTY, PLAT_ERROR_DIRNOTEMPTY},    {ENOEXEC, PLAT_ERROR_BADEXEFORMAT},
    {EILSEQ, PLAT_ERROR_NOUNICODE},         {ESRCH, PLAT_ERROR_INVALIDPARAMETER},
    {EINPROGRESS, PLAT_ERROR_WOULDBLOCK},   {ENOTSOCK, PLAT_ERROR_NOTSOCKET},
    {EADDRINUSE, PLAT_ERROR_ADDRINUSE},     {EADDRNOTAVAIL, PLAT_ERROR_ADDRNOTAVAIL},
    {ENETUNREACH, PLAT_ERROR_NETUNREACH},   {EHOSTUNREACH, PLAT_ERROR_NETUNREACH},
    {ECONNABORTED, PLAT_ERROR_CONNABORTED}, {ECONNRESET, PLAT_ERROR_CONNRESET},
    {ENOTCONN, PLAT_ERROR_NOTCONN},         {ETIMEDOUT, PLAT_ERROR_TIMEDOUT},
    {ECONNREFUSED, PLAT_ERROR_CONNREFUSED}, {ENOBUFS, PLAT_ERROR_NOBUFFERS},
};

uint32_t PosixTranslate(int a_iErrno)
{
    for (const auto& error : g_aerror)
    {
        if (error.iErrno == a_iErrno)
            return error.u32Error;
    }
    return PLAT_ERROR_GENFAILURE;
}

static bool IgnoreFileSizeSignal()
{
    struct sigaction action = {};
    if (sigaction(SIGXFSZ, nullptr, &action) != 0 || (action.sa_flags & SA_SIGINFO) || action.sa_handler != SIG_DFL)
        return false;
    action.sa_handler = SIG_IGN;
    return sigaction(SIGXFSZ, &action, nullptr) == 0;
}

void PosixIgnoreFileSizeSignal()
{
    static const bool g_blIgnored = IgnoreFileSizeSignal();
    static_cast<void>(g_blIgnored);
}

// ---------------------------------------------------------------------------------------------------------- text

bool PosixToUtf8(const char16_t* a_wszText, std::string& a_strText)
{
    a_strText.clear();
    const char16_t* const pwchEnd = a_wszText + std::char_traits<char16_t>::length(a_wszText);
    while (a_wszText != pwchEnd)
    {
        const uint32_t u32Point = PlatUtf16Take(a_wszText, pwchEnd);
        if (u32Point == PLAT_UTF_INVALID)
            return PosixFail(PLAT_ERROR_NOUNICODE);
        char achPoint[PLAT_UTF8_MAX];
        a_strText.append(achPoint, PlatUtf8Put(achPoint, u32Point));
    }
    return true;
}

bool PosixToWide(const char* a_szText, char16_t* a_wszText, size_t a_sizetText)
{
    size_t sizetLength = 0;
    while (*a_szText)
    {
        const uint32_t u32Point = PlatUtf8Take(a_szText);
        if (u32Point == PLAT_UTF_INVALID)
            return PosixFail(PLAT_ERROR_NOUNICODE);
        if (sizetLength + (u32Point < 0x10000 ? 1 : 2) >= a_sizetText)
            return PosixFail(PLAT_ERROR_INSUFFICIENTBUFFER);
        sizetLength += PlatUtf16Put(a_wszText + sizetLength, u32Point);
    }
    if (sizetLength >= a_sizetText)
        return PosixFail(PLAT_ERROR_INSUFFICIENTBUFFER);
    a_wszText[sizetLength] = 0;
    return true;
}

std::string PosixReadText(const char* a_szPath)
{
    std::string strText;
    const PosixDescriptor posixdescriptor(open(a_szPath, O_RDONLY | O_CLOEXEC));
    char szPiece[4096];
    ssize_t ssizetRead;
    while (posixdescriptor.IsOpen() && (ssizetRead = read(posixdescriptor.Get(), szPiece, sizeof szPiece)) > 0)
        strText.append(szPiece, static_cast<size_t>(ssizetRead));
    return strText;
}

std::string_view PosixTake(std::string_view& a_strviewText, char a_chSeparator)
{
    const size_t sizetEnd = a_strviewText.find(a_chSeparator);
    const std::string_view strview = a_strviewText.substr(0, sizetEnd);
    a_strviewText.remove_prefix(sizetEnd == std::string_view::npos ? a_strviewText.size() : sizetEnd + 1);
    return strview;
}

// --------------------------------------------------------------------------------------------------------- close

std::array<std::atomic<uint16_t>, POSIX_GENERATIONS> g_aatomicGeneration;

int PosixFailStale()
{
    errno = EBADF;
    PosixFailErrno();
    return -1;
}

PlatHandle PosixRetire(PlatHandle a_plathandle)
{
    const auto sizetDescriptor = static_cast<size_t>(PosixNumberOf(a_plathandle));
    if (PosixIsPointer(PosixKindOf(a_plathandle)) || sizetDescriptor >= POSIX_GENERATIONS)
        return a_plathandle;
    auto u16Generation = static_cast<uint16_t>(a_plathandle >> 32);
    const auto u16Next = static_cast<uint16_t>(u16Generation + 1);
    if (g_aatomicGeneration[sizetDescriptor].compare_exchange_strong(u16Generation, u16Next))
        return (a_plathandle & ~(PlatHandle{0xFFFF} << 32)) | static_cast<PlatHandle>(u16Next) << 32;
    PosixFailStale();
    return PLAT_INVALID;
}

bool PlatClose(PlatHandle a_plathandle)
{
    if (PosixKindOf(a_plathandle) != PosixKind::None)
        a_plathandle = PosixRetire(a_plathandle);
    switch (PosixKindOf(a_plathandle))
    {
    case PosixKind::NamedEventAuto:
    case PosixKind::NamedEventManual:
        return PosixCloseNamedEvent(a_plathandle);
    case PosixKind::Thread:
        return PosixCloseThread(a_plathandle);
    case PosixKind::Child:
        return PosixCloseChild(a_plathandle);
    case PosixKind::User:
        return PosixCloseUser(a_plathandle);
    case PosixKind::File:
    case PosixKind::FileTemporary:
        return PosixCloseFile(a_plathandle);
    case PosixKind::Find:
        return PosixCloseFind(a_plathandle);
    case PosixKind::Tree:
        return PosixCloseTree(a_plathandle);
    case PosixKind::AppendFile:
        return PosixCloseAppend(a_plathandle);
    case PosixKind::EventAuto:
    case PosixKind::EventManual:
    case PosixKind::Process:
    case PosixKind::PipeRead:
    case PosixKind::PipeWrite:
    case PosixKind::Socket:
    case PosixKind::SocketEvent:
    case PosixKind::Watch:
    case PosixKind::MemoryFile:
        return close(PosixDescriptorOf(a_plathandle)) == 0 || PosixFailErrno();
    case PosixKind::Module:   // has a release of its own
    case PosixKind::None:
        break;
    }
    return PosixFail(PLAT_ERROR_INVALIDHANDLE);
}
