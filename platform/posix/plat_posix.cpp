// plat_posix.cpp: the last error and its translator, text in both encodings, the generations of handles, closing one of
// any kind.
#include "plat_posix.h"

#include <cerrno>
#include <csignal>
#include <cstring>
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

static void AppendUtf8(std::string& a_strText, uint32_t a_u32Point)
{
    const auto tail = [&](int iShift) { a_strText += static_cast<char>(0x80 | ((a_u32Point >> iShift) & 0x3F)); };
    if (a_u32Point < 0x80)
    {
        a_strText += static_cast<char>(a_u32Point);
        return;
    }
    if (a_u32Point < 0x800)
    {
        a_strText += static_cast<char>(0xC0 | (a_u32Point >> 6));
    }
    else if (a_u32Point < 0x10000)
    {
        a_strText += static_cast<char>(0xE0 | (a_u32Point >> 12));
        tail(6);
    }
    else
    {
        a_strText += static_cast<char>(0xF0 | (a_u32Point >> 18));
        tail(12);
        tail(6);
    }
    tail(0);
}

bool PosixToUtf8(const char16_t* a_wszText, std::string& a_strText)
{
    a_strText.clear();
    for (const char16_t* pch = a_wszText; *pch; ++pch)
    {
        uint32_t u32Point = *pch;
        if (u32Point >= 0xD800 && u32Point <= 0xDFFF)
        {
            const uint32_t u32Low = pch[1];
            if (u32Point > 0xDBFF || u32Low < 0xDC00 || u32Low > 0xDFFF)
                return PosixFail(PLAT_ERROR_NOUNICODE);
            u32Point = 0x10000 + ((u32Point - 0xD800) << 10) + (u32Low - 0xDC00);
            ++pch;
        }
        AppendUtf8(a_strText, u32Point);
    }
    return true;
}

// Takes one code point off the text; false for what is no UTF-8 (overlong forms and surrogates included).
static bool TakePoint(const unsigned char*& a_pu8, uint32_t& a_u32Point)
{
    static constexpr uint32_t g_au32Least[] = {0, 0x80, 0x800, 0x10000};
    const uint32_t u32Lead = *a_pu8++;
    if (u32Lead < 0x80)
    {
        a_u32Point = u32Lead;
        return true;
    }
    const int iTail = u32Lead >= 0xF0 ? 3 : u32Lead >= 0xE0 ? 2 : 1;
    if (u32Lead < 0xC2 || u32Lead > 0xF4)
        return false;
    a_u32Point = u32Lead & (0x3Fu >> iTail);
    for (int i = 0; i < iTail; ++i)
    {
        if ((*a_pu8 & 0xC0) != 0x80)
            return false;
        a_u32Point = (a_u32Point << 6) | (*a_pu8++ & 0x3Fu);
    }
    return a_u32Point >= g_au32Least[iTail] && a_u32Point <= 0x10FFFF && (a_u32Point < 0xD800 || a_u32Point > 0xDFFF);
}

bool PosixToWide(const char* a_szText, char16_t* a_wszText, size_t a_sizetText)
{
    const auto* pu8 = reinterpret_cast<const unsigned char*>(a_szText);
    size_t sizetLength = 0;
    while (*pu8)
    {
        uint32_t u32Point = 0;
        if (!TakePoint(pu8, u32Point))
            return PosixFail(PLAT_ERROR_NOUNICODE);
        const size_t sizetUnits = u32Point < 0x10000 ? 1 : 2;
        if (sizetLength + sizetUnits >= a_sizetText)
            return PosixFail(PLAT_ERROR_INSUFFICIENTBUFFER);
        if (sizetUnits == 2)
        {
            a_wszText[sizetLength++] = static_cast<char16_t>(0xD800 + ((u32Point - 0x10000) >> 10));
            u32Point = 0xDC00 + (u32Point & 0x3FF);
        }
        a_wszText[sizetLength++] = static_cast<char16_t>(u32Point);
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
