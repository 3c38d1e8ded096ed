// plat_account.cpp: the accounts of the machine, who works at it, and what a program needs to be run as somebody.
//
// Accounts are read from the account files themselves: the C library's look-up wants plug-ins at run time, which a
// program that is linked statically cannot have.
#include "plat_machine.h"
#include "plat_posix.h"
#include "plat_process.h"
#include "plat_user.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <new>

// --------------------------------------------------------------------------------------------------- the accounts

// Accounts that people have, as the system hands out their numbers.
static constexpr uint32_t g_u32FirstOrdinary = 1000;
static constexpr uint32_t g_u32LastOrdinary = 60000;

static bool IsOrdinary(const PosixUser& a_posixuser)
{
    return a_posixuser.u32Id >= g_u32FirstOrdinary && a_posixuser.u32Id <= g_u32LastOrdinary;
}

// False for what is no number.
static bool TakeNumber(std::string_view& a_strviewLine, char a_chSeparator, uint32_t* a_pu32Number)
{
    const std::string strNumber(PosixTake(a_strviewLine, a_chSeparator));
    char* szEnd = nullptr;
    *a_pu32Number = static_cast<uint32_t>(strtoul(strNumber.c_str(), &szEnd, 10));
    return !strNumber.empty() && !*szEnd;
}

// The first account of the machine that a_select chooses, without its groups; its name is empty when there is none.
template <class Select>
static PosixUser FindAccount(Select a_select)
{
    const std::string strText = PosixReadText("/etc/passwd");
    std::string_view strviewText = strText;
    while (!strviewText.empty())
    {
        std::string_view strviewLine = PosixTake(strviewText, '\n');
        PosixUser posixuser;
        posixuser.strName = PosixTake(strviewLine, ':');
        PosixTake(strviewLine, ':');
        const bool blNumbers =
            TakeNumber(strviewLine, ':', &posixuser.u32Id) && TakeNumber(strviewLine, ':', &posixuser.u32Group);
        PosixTake(strviewLine, ':');
        posixuser.strHome = PosixTake(strviewLine, ':');
        posixuser.strShell = PosixTake(strviewLine, ':');
        if (!posixuser.strName.empty() && blNumbers && a_select(posixuser))
            return posixuser;
    }
    return {};
}

static PosixUser FindAccountByName(const std::string& a_strName)
{
    return FindAccount([&](const PosixUser& posixuser) { return posixuser.strName == a_strName; });
}

static PosixUser FindAccountById(uint32_t a_u32Id)
{
    return FindAccount([&](const PosixUser& posixuser) { return posixuser.u32Id == a_u32Id; });
}

std::string PosixAccountHome()
{
    return FindAccountById(static_cast<uint32_t>(PlatUserId())).strHome;
}

// Whom the environment names. It is believed for an account that the machine has from elsewhere, not for a name that
// belongs to somebody else here.
static std::string EnvironmentUser()
{
    std::string strName;
    if (!PosixEnvGet("LOGNAME", strName) && !PosixEnvGet("USER", strName))
        return {};
    return FindAccountByName(strName).strName.empty() ? strName : std::string();
}

static std::string ProcessUser()
{
    const std::string strName = FindAccountById(static_cast<uint32_t>(PlatUserId())).strName;
    return strName.empty() ? EnvironmentUser() : strName;
}

// Everybody is in a session of his own here, so it is the process's account that works in it.
bool PlatUserName(PlatUser a_platuser, char16_t* a_wszName, size_t a_sizetName)
try
{
    const uint32_t u32Error = PlatGetLastError();
    const std::string strName = a_platuser == PLAT_USER_FIRST ? FindAccount(IsOrdinary).strName : ProcessUser();
    if (strName.empty())
        return PosixFail(PLAT_ERROR_FILENOTFOUND);
    if (!PosixToWide(strName.c_str(), a_wszName, a_sizetName))
        return false;
    PlatSetLastError(u32Error);   // variables that are not set are no failure
    return true;
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}

// ------------------------------------------------------------------------------------------------ who is at work

// The ordinary user at the machine's seat: whom the variable names, for a machine that keeps no record of it, or whom
// the record names. The account of a log-in screen is nobody.
static PosixUser SeatUser()
{
    std::string strName;
    if (PosixEnvGet("MVR_SESSIONUSER", strName))
        return FindAccountByName(strName);
    const std::string strText = PosixReadText("/run/systemd/seats/seat0");
    std::string_view strviewText = strText;
    while (!strviewText.empty())
    {
        std::string_view strviewLine = PosixTake(strviewText, '\n');
        uint32_t u32Id = 0;
        if (PosixTake(strviewLine, '=') != "ACTIVE_UID" || !TakeNumber(strviewLine, '\n', &u32Id))
            continue;
        PosixUser posixuser = FindAccountById(u32Id);
        return IsOrdinary(posixuser) ? posixuser : PosixUser();
    }
    return {};
}

// Calls a_take(number, members between commas) for each line of the group file: name, password, number, members.
template <class Take>
static void ForEachGroup(Take a_take)
{
    const std::string strText = PosixReadText("/etc/group");
    std::string_view strviewText = strText;
    while (!strviewText.empty())
    {
        std::string_view strviewLine = PosixTake(strviewText, '\n');
        PosixTake(strviewLine, ':');
        PosixTake(strviewLine, ':');
        uint32_t u32Group = 0;
        if (TakeNumber(strviewLine, ':', &u32Group))
            a_take(u32Group, strviewLine);
    }
}

static void TakeGroups(PosixUser* a_pposixuser)
{
    a_pposixuser->vecu32Groups = {a_pposixuser->u32Group};
    ForEachGroup([=](uint32_t u32Group, std::string_view strviewMembers) {
        bool blMember = false;
        while (!strviewMembers.empty())
            blMember = PosixTake(strviewMembers, ',') == a_pposixuser->strName || blMember;
        if (blMember)
            a_pposixuser->vecu32Groups.push_back(u32Group);
    });
}

uint32_t PosixPrimaryGroup(uint32_t a_u32User)
{
    constexpr uint32_t u32Nobodys = 65534;
    const PosixUser posixuser = FindAccountById(a_u32User);
    if (!posixuser.strName.empty())
        return posixuser.u32Group;
    uint32_t u32Group = a_u32User;
    ForEachGroup([&](uint32_t u32, std::string_view) { u32Group = u32 == a_u32User ? u32Nobodys : u32Group; });
    return u32Group;
}

uint32_t PlatSessionActive()
{
    return 1;
}

// The numbers of sessions tell nothing here: whoever works at the machine works in each of them.
PlatHandle PlatSessionUser(uint32_t)
try
{
    if (PlatUserId() != 0)
    {
        PlatSetLastError(PLAT_ERROR_PRIVILEGENOTHELD);
        return PLAT_INVALID;
    }
    auto uniqueUser = std::make_unique<PosixUser>(SeatUser());
    if (uniqueUser->strName.empty())
    {
        PlatSetLastError(PLAT_ERROR_NOTOKEN);
        return PLAT_INVALID;
    }
    TakeGroups(uniqueUser.get());
    return PosixMakeHandle(PosixKind::User, uniqueUser.release());
}
catch (const std::bad_alloc&)
{
    PosixFail(PLAT_ERROR_NOMEMORY);
    return PLAT_INVALID;
}

bool PosixCloseUser(PlatHandle a_plathandle)
{
    delete PosixObjectOf<PosixUser>(a_plathandle);
    return true;
}

// ----------------------------------------------------------------------------------------- the user's environment

void PosixUserEnvironment(const PosixUser& a_posixuser, std::vector<std::string>& a_vecstrEnvironment)
{
    // What tells who we are, where our own things are, and which session we are in.
    static constexpr std::string_view g_aszOurs[] = {
        "HOME",
        "USER",
        "LOGNAME",
        "SHELL",
        "MAIL",
        "XDG_DATA_HOME",
        "XDG_CONFIG_HOME",
        "XDG_STATE_HOME",
        "XDG_CACHE_HOME",
        "XDG_RUNTIME_DIR",
        "XDG_SESSION_ID",
        "LOCALAPPDATA",
        "APPDATA",
        "MVR_SESSION",
    };
    std::erase_if(a_vecstrEnvironment, [](const std::string& str) {
        const std::string_view strviewName = std::string_view(str).substr(0, str.find('='));
        return std::find(std::begin(g_aszOurs), std::end(g_aszOurs), strviewName) != std::end(g_aszOurs);
    });
    for (const std::string& str :
         {"HOME=" + a_posixuser.strHome, "USER=" + a_posixuser.strName, "LOGNAME=" + a_posixuser.strName,
          "SHELL=" + a_posixuser.strShell, "XDG_RUNTIME_DIR=/run/user/" + std::to_string(a_posixuser.u32Id)})
        a_vecstrEnvironment.push_back(str);
}
