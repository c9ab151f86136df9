// The interface between the manager and the kinds of service.
//
// The manager drives every service through the four operations of its entry and never asks what kind it is. A
// kind reports back through lumd_processServiceCallback and reads its settings through svcent_getSyscfg. An
// entry is made at its slot's first start and kept over stops and restarts; only release ends it.
#pragma once

#include "app/log.h"
#include "app/memory.h"
#include "app/timer.h"
#include "lumd/svcfg.h"

#include <array>

struct svcent;

enum svcent_state : int { SVCENT_CREATED = 0, SVCENT_STARTED = 1, SVCENT_STOPPED = 2 };
enum svcent_event : int { SVCENT_EV_STARTED = 1, SVCENT_EV_STOPPED = 2 };

// The manager logs a negative result of start as a failure and ignores all other results. argv is ended by
// null and never null itself; a last word that lacks its closing quote is counted in argc, and is null.
// release withdraws everything that could still reach the entry, and frees it.
struct svcent_ops {
    int (*start)(svcent *entry, int argc, char *const *argv, const svcfg *m_cfg);
    int (*stop)(svcent *entry, char *const *argv);
    int (*reload)(svcent *entry, char *const *argv);
    int (*release)(svcent *entry);
    bool reports_start; // with event 1; without such reports, a service is up once start has returned
};

// The head of every entry; a kind's own record derives from it.
struct svcent {
    const svcent_ops *ops;
    unique_text name;
    svcent_state state; // written by the kind, read by the manager
    service_info *owner;
};

// An operation of a kind, as the table takes it: the entry turns back into the kind's own record.
template <auto function>
struct operation;

template <typename Entry, typename... Args, int (*function)(Entry *, Args...)>
struct operation<function> {
    static int call(svcent *entry, Args... args) { return function(static_cast<Entry *>(entry), args...); }
};

// Destroys the entry, and with it all that could still reach it.
template <typename Entry>
int release_entry(svcent *entry)
{
    free_record(static_cast<Entry *>(entry));
    return 0;
}

template <typename Entry, auto start, auto stop, auto reload, bool reports_start>
inline constexpr svcent_ops operations_of = {operation<start>::call, operation<stop>::call,
                                             operation<reload>::call, release_entry<Entry>, reports_start};

// Makes the entry of a slot if first_word, the first word of its exec line, is one of its kind; else null.
// Null, logged, also when memory is out.
using svcent_creator = svcent *(*)(service_info *slot, const char *name, const char *first_word);
using svcent_creators = std::array<svcent_creator, 2>; // asked in order

// One place of the service table; m_cfg is null in an empty one.
struct service_info {
    char name[svcfg_name_size];
    lumd *owner;
    unique_record<svcfg> m_cfg;
    ::svcent *svcent;
    unique_timer restart_timer;
    uint32_t awaited; // dependencies that were missing at a start and are not up yet, one bit a slot
};

// A kind's new record: its head is filled, the rest is zero. Null when memory is out, logged as a failure of
// the caller (LOG_HERE).
template <typename Entry>
Entry *new_svcent(int level, const char *func, const char *file, int line, const svcent_ops *ops,
                  service_info *slot, const char *name)
{
    auto *entry = new_record<Entry>();
    char *copy = entry ? new_text(name) : nullptr;
    if (!copy) {
        log_failed(level, func, file, line);
        free(entry); // owns nothing yet
        return nullptr;
    }
    entry->ops = ops;
    entry->name.reset(copy);
    entry->owner = slot;
    return entry;
}

// Calls of a kind to the manager.

// The service has started by itself, or stopped by itself (the manager then starts it again 2000 ms later).
void lumd_processServiceCallback(service_info *slot, svcent_event event);

// lumd_start_service starts the first service of that name, lumd_stop_service stops and releases all of them.
// An unknown name does nothing.
void lumd_start_service(lumd *manager, const char *name);
void lumd_stop_service(lumd *manager, const char *name);

// A configuration value ("NAME" or "syscfg:NAME"), the database's own until it changes; null when there is
// none.
const char *svcent_getSyscfg(const svcent *entry, const char *name);
