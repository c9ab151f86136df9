#include "lumd/kinds.h"

#include "app/log.h"
#include "lumd/proc_se.h"

#include <string_view>

namespace {

constexpr char log_module[] = "lumd";

struct builtin_kind {
    std::string_view name;
    svcent *(*create)(service_info *slot, const char *name);
};

constexpr builtin_kind builtin_kinds[] = {
    {"watchdog", create_watchdog_svcent}, {"reboot", create_reboot_svcent}, {"netmon", create_netmon_svcent},
    {"ntp", create_ntp_svcent},           {"sched", create_sched_svcent},
};

} // namespace

svcent *create_builtin_svcent(service_info *slot, const char *name, const char *first_word)
{
    if (!first_word)
        return nullptr;
    log_trace(LOG_HERE, "create %s svcent", name);
    for (const auto &kind : builtin_kinds) {
        if (kind.name == first_word)
            return kind.create(slot, name);
    }
    return nullptr;
}

constinit const svcent_creators all_kinds = {create_builtin_svcent, create_process_svcent};
