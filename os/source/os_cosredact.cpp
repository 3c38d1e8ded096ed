// os_cosredact.cpp: decides whether host names are redacted, and redacts them.
#include "os_cosredact.h"

#include "os_cosenv.h"
#include "os_cosstring.h"
#include "os_scope.h"

#include <atomic>
#include <cstring>

enum class Redaction
{
    Undecided,
    Off,
    On,
};

static std::atomic<Redaction> g_redaction{Redaction::Undecided};
static std::atomic<OsInHouseProc> g_osinhouseproc{nullptr};

void OsStringSetInHouseTest(OsInHouseProc a_osinhouseproc)
{
    g_osinhouseproc.store(a_osinhouseproc);
}

static Redaction DecideRedaction()
{
    char szValue[16] = {};
    if (OsEnvGet("MVR_REDACT", "", sizeof szValue, szValue) == EOSSTS_SUCCESS && *szValue)
        return StrToInt64(szValue) != 0 ? Redaction::On : Redaction::Off;
    const OsInHouseProc osinhouseproc = g_osinhouseproc.load();
    return osinhouseproc && osinhouseproc() ? Redaction::Off : Redaction::On;
}

static bool IsRedacting()
{
    // The in-house test uses the network, which logs host names through here: these are redacted.
    static thread_local bool t_blDeciding = false;

    Redaction redaction = g_redaction.load(std::memory_order_relaxed);
    if (redaction != Redaction::Undecided || t_blDeciding)
        return redaction != Redaction::Off;

    t_blDeciding = true;
    const ScopeGuard decided([] { t_blDeciding = false; });
    const Redaction redactionMine = DecideRedaction();
    const bool blFirst = g_redaction.compare_exchange_strong(redaction, redactionMine);
    return (blFirst ? redactionMine : redaction) == Redaction::On;
}

const char* Redact(const char* a_szText)
{
    if (!a_szText || !*a_szText)
        return "";
    return std::strchr(a_szText, '.') && IsRedacting() ? "(redacted)" : a_szText;
}
