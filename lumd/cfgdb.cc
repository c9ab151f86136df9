#include "lumd/cfgdb.h"

#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"
#include "syscfg/syscfg.h"

namespace {

constexpr char log_module[] = "cfgdb";

}

cfgdb *create_cfgdb(lumd *manager)
{
    auto *bridge = new_record<cfgdb>();
    if (!bridge) {
        log_failed(LOG_HERE);
        return nullptr;
    }
    bridge->owner = manager;
    return bridge;
}

int cfgdb_init(cfgdb *bridge)
{
    syscfg *db = create_syscfg(bridge);
    if (!db || db->ops->init(db) < 0) {
        log_failed(LOG_HERE);
        return -1;
    }
    bridge->syscfg = db;
    db->changed = cfgdb_processSyscfgChange;
    return 0;
}

const char *cfgdb_getSyscfg(cfgdb *bridge, const char *name)
{
    char copy[256];
    if (!copy_text(copy, name))
        log_failed(LOG_HERE);
    const std::string_view text = copy;
    const size_t colon = text.find(':');
    const std::string_view source = text.substr(0, colon);
    if (colon == text.npos || source == "syscfg")
        return bridge->syscfg->ops->get(bridge->syscfg, colon == text.npos ? copy : copy + colon + 1);
    if (source == "env")
        log_checkpoint(LOG_HERE);
    else
        log_failed(LOG_HERE);
    return nullptr;
}

void cfgdb_release(cfgdb *bridge)
{
    if (bridge->syscfg)
        bridge->syscfg->ops->release(bridge->syscfg);
    free(bridge);
}

void cfgdb_processSyscfgChange(cfgdb *bridge, const char *const *names, int count)
{
    log_trace(LOG_HERE, "lumd: %p", static_cast<void *>(bridge->owner));
    if (bridge->changed)
        bridge->changed(bridge->owner, names, count);
    log_checkpoint(LOG_HERE);
}
