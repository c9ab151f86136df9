#include "lumd/kinds.h"

#include "app/log.h"
#include "lumd/proc_se.h"

#include <string_view>

namespace {

constexpr char log_module[] = "lumd";

struct builtin_kind {
    std::string_view name;
    svcent *(*create)(service_info *slot, const char *name);
    bool reports_start;
};

constexpr builtin_kind builtin_kinds[] = {
    {"watchdog", create_watchdog_svcent, false}, {"reboot", create_reboot_svcent, false},
    {"netmon", create_netmon_svcent, true},      {"ntp", create_ntp_svcent, false},
    {"sched", create_sched_svcent, true},
};

const builtin_kind *find_builtin(std::string_view first_word)
{
    for (const auto &kind : builtin_kinds) {
        if (kind.name == first_word)
            return &kind;
    }
    return nullptr;
}

svcent *create_builtin_svcent(service_info *slot, const char *name, const char *first_word)
{
    log_trace(LOG_HERE, "create %s svcent", name);
    const builtin_kind *kind = find_builtin(first_word);
    return kind ? kind->create(slot, name) : nullptr;
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

bool kind_reports_start(const char *first_word)
{
    const builtin_kind *kind = first_word ? find_builtin(first_word) : nullptr;
    return !kind || kind->reports_start;
}
