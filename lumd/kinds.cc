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

svcent *create_builtin_svcent(service_info *slot, const char *name, const char *first_word)
{
    log_trace(LOG_HERE, "create %s svcent", name);
    for (const auto &kind : builtin_kinds) {
        if (kind.name == first_word)
            return kind.create(slot, name);
    }
    return nullptr;
}

using svcent_creator = svcent *(*)(service_info *slot, const char *name, const char *first_word);

constexpr svcent_creator creators[] = {create_builtin_svcent, create_process_svcent};

} // namespace

svcent *create_svcent(service_info *slot, const char *name, const char *first_word)
{
    if (!first_word)
        return nullptr;
    for (const svcent_creator create : creators) {
        if (svcent *entry = create(slot, name, first_word))
            return entry;
    }
    return nullptr;
}
