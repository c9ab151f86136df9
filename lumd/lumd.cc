#include "lumd/lumd.h"

#include "app/log.h"
#include "app/memory.h"
#include "lumd/cfgdb.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace {

constexpr char log_module[] = "lumd";
constexpr uint32_t restart_delay_ms = 2000;

static_assert(lumd_slots <= 32, "lumd_pass has one bit a slot");

uint32_t slot_bit(const service_info *slot)
{
    return 1U << slot->m_cfg->index;
}

// A start or stop, perhaps inside another one. The outermost begins with nothing handled.
class pass_scope {
  public:
    explicit pass_scope(lumd_pass &pass) : pass_(pass)
    {
        if (pass_.depth++ == 0)
            pass_.handled = 0;
    }
    ~pass_scope() { --pass_.depth; }
    pass_scope(const pass_scope &) = delete;
    pass_scope &operator=(const pass_scope &) = delete;

    // False when the slot has been handled in this pass before.
    bool take(const service_info *slot)
    {
        const bool first = !(pass_.handled & slot_bit(slot));
        pass_.handled |= slot_bit(slot);
        return first;
    }

  private:
    lumd_pass &pass_;
};

// The links up to the first that has no slot.
std::span<const svcfg_link> linked(std::span<const svcfg_link> links)
{
    const auto end =
        std::find_if(links.begin(), links.end(), [](const svcfg_link &link) { return !link.info; });
    return links.first(static_cast<size_t>(end - links.begin()));
}

// Starts the dependencies that have no entry yet. True when there were none. One that cannot be created is
// not awaited; it is tried again whenever another dependency comes up.
bool dependencies_ready(service_info *slot)
{
    bool ready = true;
    for (const svcfg_link &link : linked(slot->m_cfg->depend)) {
        service_info *dependency = link.info;
        if (dependency->svcent)
            continue;
        log_trace(LOG_AS("lumd_do_start"), "start service : %s", dependency->name);
        ready = false;
        slot->awaited |= slot_bit(dependency);
        lumd_do_start(dependency, dependency->name);
        if (!dependency->svcent)
            slot->awaited &= ~slot_bit(dependency);
    }
    return ready;
}

bool conditions_hold(const service_info *slot)
{
    constexpr char func[] = "lumd_do_start";
    for (const svcfg_condition &condition : slot->m_cfg->dsyscfg) {
        log_trace(LOG_AS(func), "dsyscfg var name: \"%s\"", condition.name.get());
        if (!condition.value)
            continue;
        log_trace(LOG_AS(func), "dsyscfg var value: \"%s\"", condition.value.get());
        const char *current = cfgdb_getSyscfg(slot->owner->cfgdb, condition.name.get());
        if (!current) {
            log_failed(LOG_AS(func));
            return false;
        }
        log_trace(LOG_AS(func), " %s=\"%s\"", condition.name.get(), current);
        if (strcmp(current, condition.value.get()) != 0)
            return false;
    }
    return true;
}

void stop_dependents(const service_info *slot, int release)
{
    for (const svcfg_link &link : linked(slot->m_cfg->depended)) {
        if (link.info->svcent && link.info->svcent->state == SVCENT_STARTED)
            lumd_do_stop(link.info, release);
    }
}

void release_entry(service_info *slot)
{
    slot->restart_timer.reset();
    slot->svcent->ops->release(slot->svcent);
    slot->svcent = nullptr;
    slot->awaited = 0;
}

void dependency_is_up(const service_info *slot, service_info *dependent)
{
    dependent->awaited &= ~slot_bit(slot);
    if (dependent->svcent && dependent->svcent->state != SVCENT_STARTED && !dependent->awaited)
        lumd_do_start(dependent, dependent->name);
}

void start_dependents(const service_info *slot)
{
    for (const svcfg_link &link : linked(slot->m_cfg->depended)) {
        log_trace(LOG_AS("lumd_processServiceCallback"), "depended service: %s", link.info->name);
        dependency_is_up(slot, link.info);
    }
}

// The service has been started and will not report it.
void start_waiting_dependents(const service_info *slot)
{
    for (const svcfg_link &link : linked(slot->m_cfg->depended)) {
        if (link.info->awaited & slot_bit(slot))
            dependency_is_up(slot, link.info);
    }
}

void schedule_restart(service_info *slot)
{
    constexpr char func[] = "lumd_processServiceCallback";
    log_trace(LOG_AS(func), "service %s stopped, schedule to restart", slot->name);
    if (slot->restart_timer.start<lumd_restart_service>(restart_delay_ms, slot, "lumd_restart_service") < 0)
        log_failed(LOG_AS(func));
}

svcent *create_svcent(service_info *slot, const char *name)
{
    const char *first_word = slot->m_cfg->argv.words()[0];
    for (const svcent_creator create : slot->owner->creators) {
        svcent *entry = create ? create(slot, name, first_word) : nullptr;
        if (entry)
            return entry;
    }
    return nullptr;
}

} // namespace

lumd *lumd_create()
{
    log_trace(LOG_HERE, "Create lumd");
    auto *manager = new_record<lumd>();
    if (!manager)
        log_failed(LOG_HERE);
    return manager;
}

std::span<service_info> lumd_used_slots(lumd *manager)
{
    const auto end = std::find_if(std::begin(manager->svcs), std::end(manager->svcs),
                                  [](const service_info &slot) { return !slot.m_cfg; });
    return {std::begin(manager->svcs), end};
}

service_info *lumd_find_slot(lumd *manager, std::string_view name)
{
    for (service_info &slot : lumd_used_slots(manager)) {
        if (name == slot.name)
            return &slot;
    }
    return nullptr;
}

void lumd_do_start(service_info *slot, const char *name)
{
    if (!slot->m_cfg) {
        log_failed(LOG_HERE);
        return;
    }
    pass_scope pass(slot->owner->starting);
    // Stored before the dependencies are started, so that a cycle finds this slot with its entry.
    if (!slot->svcent)
        slot->svcent = create_svcent(slot, name);
    if (!slot->svcent) {
        log_failed(LOG_HERE);
        return;
    }
    const bool ready = dependencies_ready(slot);
    if (!conditions_hold(slot) || !ready || !slot->svcent)
        return;
    // Not taken earlier: a dependency that reports from inside its own start comes back to this slot, and
    // must be able to start it.
    if (!pass.take(slot))
        return;
    slot->awaited = 0;
    const svcent_ops *ops = slot->svcent->ops;
    if (ops->start(slot->svcent, slot->m_cfg->argc, slot->m_cfg->argv.words(), slot->m_cfg.get()) < 0)
        log_failed(LOG_HERE);
    else if (!ops->reports_start)
        start_waiting_dependents(slot);
}

void lumd_do_stop(service_info *slot, int release)
{
    if (!slot->svcent || !slot->m_cfg) {
        log_failed(LOG_HERE);
        return;
    }
    pass_scope pass(slot->owner->stopping);
    // Taken first, so that a cycle of dependents does not stop this slot twice.
    if (!pass.take(slot))
        return;
    stop_dependents(slot, release);
    log_trace(LOG_HERE, "stop service : %s", slot->name);
    slot->svcent->ops->stop(slot->svcent, svcfg_find_command(slot->m_cfg.get(), "stop"));
    if (release)
        release_entry(slot);
}

void lumd_start_service(lumd *manager, const char *name)
{
    print_error("start service: %s\n", name);
    if (service_info *slot = lumd_find_slot(manager, name))
        lumd_do_start(slot, slot->name);
}

void lumd_stop_service(lumd *manager, const char *name)
{
    for (service_info &slot : lumd_used_slots(manager)) {
        if (strcmp(slot.name, name) == 0)
            lumd_do_stop(&slot, 1);
    }
}

void lumd_restart_service(service_info *slot)
{
    if (!slot->svcent) {
        log_failed(LOG_HERE);
        return;
    }
    log_trace(LOG_HERE, "restart service: %s", slot->name);
    lumd_do_start(slot, slot->name);
}

void lumd_processServiceCallback(service_info *slot, svcent_event event)
{
    log_trace(LOG_HERE, "SERVICE: %s callback", slot->name);
    switch (event) {
    case SVCENT_EV_STARTED:
        start_dependents(slot);
        break;
    case SVCENT_EV_STOPPED:
        lumd_do_stop(slot, 0);
        schedule_restart(slot);
        break;
    default:
        log_failed(LOG_HERE);
    }
}

const char *svcent_getSyscfg(const svcent *entry, const char *name)
{
    return cfgdb_getSyscfg(entry->owner->owner->cfgdb, name);
}
