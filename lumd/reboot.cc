#include "app/log.h"
#include "app/memory.h"
#include "lumd/kinds.h"
#include "lumd/script.h"

#include <csignal>
#include <unistd.h>

namespace {

constexpr char log_module[] = "reboot";
constexpr uint32_t check_period_ms = 1000;
constexpr unsigned ask_period_s = 60;
constexpr pid_t init_pid = 1;

struct reboot_svcent : svcent {
    pid_t pid; // of the script, -1 when it could not be started
    unique_timer timer;
};

// A signal ends a sleep early.
void sleep_whole(unsigned seconds)
{
    while (seconds > 0)
        seconds = sleep(seconds);
}

// The script has ended and the device is still up. From here on only the reboot matters.
[[noreturn]] void insist()
{
    for (;;) {
        sleep_whole(ask_period_s);
        kill(init_pid, SIGHUP);
    }
}

void reboot_callback(reboot_svcent *entry)
{
    lumd_stop_service(entry->owner->owner, "watchdog");
    print_error("Rebooting...\n");
    if (entry->pid < 0 || kill(entry->pid, 0) < 0)
        insist();
}

int reboot_start(reboot_svcent *entry, int, char *const *, const svcfg *)
{
    entry->pid = run_script("reboot", nullptr, 0);
    if (entry->timer.start<reboot_callback>(check_period_ms, entry, "reboot_callback", 0) < 0)
        log_failed(LOG_HERE);
    return 0;
}

int cannot_be_undone(svcent *, char *const *)
{
    return -1;
}

// The timer keeps running, and it needs the entry.
int keep_entry(svcent *)
{
    return 0;
}

constexpr svcent_ops operations = {operation<reboot_start>::call, cannot_be_undone, cannot_be_undone,
                                   keep_entry, false};

} // namespace

svcent *create_reboot_svcent(service_info *slot, const char *name)
{
    log_trace(LOG_HERE, "create reboot svcent");
    return new_svcent<reboot_svcent>(LOG_HERE, &operations, slot, name);
}
