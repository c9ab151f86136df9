#include "app/glob.h"
#include "app/log.h"
#include "lumd/cfgdb.h"
#include "lumd/lumd.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace {

constexpr char log_module[] = "lumd";

// Starts or stops the slot if the condition's variable is among the changed ones.
void process_condition(service_info *slot, const svcfg_condition &condition,
                       std::span<const char *const> names)
{
    constexpr char func[] = "lumd_processSyscfgChange";
    log_trace(LOG_AS(func), "\tprocess dependent var : %s", condition.name.get());
    for (const char *name : names) {
        if (strcmp(name, condition.name.get()) != 0)
            continue;
        const char *current = cfgdb_getSyscfg(slot->owner->cfgdb, condition.name.get());
        log_trace(LOG_AS(func), "var value: %s, get syscfg: %s",
                  condition.value ? condition.value.get() : "(null)", current ? current : "(null)");
        if (!current)
            continue;
        if (condition.value && strcmp(current, condition.value.get()) != 0)
            lumd_do_stop(slot, 0);
        else if (condition.value)
            lumd_do_start(slot, slot->name);
        return;
    }
}

bool watches(const service_info *slot, std::span<const char *const> names)
{
    for (const char *pattern : slot->m_cfg->syscfg_patterns) {
        log_trace(LOG_AS("lumd_reload_service"), "checking %s", pattern);
        if (std::any_of(names.begin(), names.end(),
                        [pattern](const char *name) { return glob_match(pattern, name); }))
            return true;
    }
    return false;
}

void lumd_do_reload(service_info *slot)
{
    if (!slot->svcent) {
        log_failed(LOG_HERE);
        return;
    }
    slot->svcent->ops->reload(slot->svcent, svcfg_find_command(slot->m_cfg.get(), "reload"));
}

void lumd_reload_service(lumd *manager, std::span<const char *const> names)
{
    for (service_info &slot : lumd_used_slots(manager)) {
        log_trace(LOG_HERE, "processing service %s", slot.name);
        if (watches(&slot, names))
            lumd_do_reload(&slot);
    }
}

} // namespace

void lumd_processSyscfgChange(lumd *manager, const char *const *names, int count)
{
    const std::span<const char *const> changed(names, static_cast<size_t>(count));
    for (service_info &slot : lumd_used_slots(manager)) {
        if (!slot.svcent)
            continue;
        log_trace(LOG_HERE, "process service %s dependent syscfg", slot.name);
        for (const svcfg_condition &condition : slot.m_cfg->dsyscfg)
            process_condition(&slot, condition, changed);
    }
    lumd_reload_service(manager, changed);
}
