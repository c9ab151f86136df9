#include "lumd/proc_command.h"

#include "app/log.h"
#include "app/text.h"

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <strings.h>

namespace {

constexpr char log_module[] = "proc_se";

constexpr struct {
    std::string_view name;
    int number;
} signals[] = {
    {"SIGHUP", SIGHUP},       {"SIGINT", SIGINT},   {"SIGQUIT", SIGQUIT},   {"SIGILL", SIGILL},
    {"SIGTRAP", SIGTRAP},     {"SIGABRT", SIGABRT}, {"SIGBUS", SIGBUS},     {"SIGFPE", SIGFPE},
    {"SIGKILL", SIGKILL},     {"SIGUSR1", SIGUSR1}, {"SIGSEGV", SIGSEGV},   {"SIGUSR2", SIGUSR2},
    {"SIGPIPE", SIGPIPE},     {"SIGALRM", SIGALRM}, {"SIGTERM", SIGTERM},   {"SIGCHLD", SIGCHLD},
    {"SIGCONT", SIGCONT},     {"SIGSTOP", SIGSTOP}, {"SIGTSTP", SIGTSTP},   {"SIGTTIN", SIGTTIN},
    {"SIGTTOU", SIGTTOU},     {"SIGURG", SIGURG},   {"SIGXCPU", SIGXCPU},   {"SIGXFSZ", SIGXFSZ},
    {"SIGVTALRM", SIGVTALRM}, {"SIGPROF", SIGPROF}, {"SIGWINCH", SIGWINCH}, {"SIGIO", SIGIO},
    {"SIGPWR", SIGPWR},       {"SIGSYS", SIGSYS},   {"SIGRTMIN", 32},
};

constexpr uint64_t listed = [] {
    uint64_t bits = 0;
    for (const auto &signal : signals)
        bits |= uint64_t{1} << signal.number;
    return bits;
}();
constexpr uint64_t numbers_1_to_32 = (uint64_t{1} << 33) - 2;
static_assert(listed == (numbers_1_to_32 & ~(uint64_t{1} << SIGSTKFLT)), "every signal but SIGSTKFLT");

// Clamped, so that sums cannot overflow. No signal's number is near the limits.
long decimal(const char *text)
{
    constexpr long farthest = 1000;
    return std::clamp(strtol(text, nullptr, 10), -farthest, farthest);
}

bool has_prefix(const char *text, std::string_view prefix)
{
    return strncasecmp(text, prefix.data(), prefix.size()) == 0;
}

long signal_number(const char *spec)
{
    constexpr std::string_view from_first = "SIGRTMIN+";
    constexpr std::string_view from_last = "SIGRTMAX-";
    if (is_digit(*spec))
        return decimal(spec);
    if (has_prefix(spec, from_first))
        return SIGRTMIN + decimal(spec + from_first.size());
    if (has_prefix(spec, from_last))
        return SIGRTMAX - decimal(spec + from_last.size());
    for (const auto &signal : signals) {
        if (signal.name == spec)
            return signal.number;
    }
    return -1;
}

} // namespace

int parse_sigspec(const char *spec)
{
    const long number = signal_number(spec);
    if (number > 0 && number < SIGRTMAX)
        return static_cast<int>(number);
    log_trace(LOG_HERE, "signal num out of range");
    return -1;
}
