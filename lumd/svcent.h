// What the manager and the kinds of service know of each other.
//
// The manager drives every service through the four operations of its entry and never asks what kind it is. A
// kind reports back through lumd_processServiceCallback and reads its settings through svcent_getSyscfg. An
// entry is made at its slot's first start and kept over stops and restarts; only release ends it.
#pragma once

#include "app/log.h"
#include "app/memory.h"
#include "app/timer.h"
#include "lumd/svcfg.h"

struct svcent;

enum svcent_state { SVCENT_CREATED = 0, SVCENT_STARTED = 1, SVCENT_STOPPED = 2 };
enum svcent_event { SVCENT_EV_STARTED = 1, SVCENT_EV_STOPPED = 2 };

// Only start's result counts: negative is a failure that the manager logs. argv is ended by null and never
// null itself; a last word that lacks its closing quote is counted in argc, and null. release withdraws all
// that could still reach the entry and frees it.
struct svcent_ops {
    int (*start)(svcent *entry, int argc, char *const *argv, const svcfg *m_cfg);
    int (*stop)(svcent *entry, char *const *argv);
    int (*reload)(svcent *entry, char *const *argv);
    int (*release)(svcent *entry);
};

// The head of every entry; a kind's own record derives from it.
struct svcent {
    const svcent_ops *ops;
    char *name; // own
    int state;  // kept by the kind, only read by the manager
    service_info *owner;
};

// One place of the service table; m_cfg is null in an empty one.
struct service_info {
    char name[svcfg_name_size];
    lumd *owner;
    svcfg *m_cfg;
    ::svcent *svcent;
    timer *restart_timer;
    uint32_t awaited; // dependencies that were missing and are not up yet, one bit a slot
};

// A kind's new record with its head filled, zero otherwise. When memory is out: null, and the failure is on
// the log as that of the caller (LOG_HERE). free_svcent ends it.
template <typename Entry>
Entry *new_svcent(int level, const char *func, const char *file, int line, const svcent_ops *ops,
                  service_info *slot, const char *name)
{
    auto *entry = new_record<Entry>();
    char *copy = entry ? new_text(name) : nullptr;
    if (!copy) {
        log_failed(level, func, file, line);
        free(entry);
        return nullptr;
    }
    static_cast<svcent &>(*entry) = {ops, copy, SVCENT_CREATED, slot};
    return entry;
}

template <typename Entry>
void free_svcent(Entry *entry)
{
    free(entry->name);
    free(entry);
}

// Calls of a kind to the manager.

// The service has started by itself, or stopped by itself (the manager then starts it again 2000 ms later).
void lumd_processServiceCallback(service_info *slot, int event);

// Start the first, or stop and release every, service of that name; an unknown name does nothing.
void lumd_start_service(lumd *manager, const char *name);
void lumd_stop_service(lumd *manager, const char *name);

// A configuration value ("NAME" or "syscfg:NAME"), the database's own until it changes; null when there is
// none.
const char *svcent_getSyscfg(const svcent *entry, const char *name);
