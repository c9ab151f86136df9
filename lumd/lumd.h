// The service manager: a table of 32 services in the order of their files, and what moves them.
//
// A slot is filled when its file is read, and stays filled. Its entry (svcent) is made at the first start,
// kept over stops and restarts, and ended only by a stop with release. A slot without an entry is a service
// that has not been requested: no event and no configuration change starts it.
//
// Three things move services. Requests come from the control FIFO. Events come from the kinds: a started
// service starts those that wait for it; one that stopped by itself is stopped with what depends on it and
// started again 2000 ms later, without a limit. Changed variables start or stop the services whose conditions
// name them, and reload those that watch them.
//
// Starting goes through missing dependencies first and leaves the service until each of them has reported
// that it has started, or has been started if its kind reports nothing; a dependency that has an entry, in
// any state, is not missing. Stopping goes through running dependents first. Dependencies may form cycles and
// kinds may report from inside their own start: in one outermost start or stop, every slot is started or
// stopped at most once.
#pragma once

#include "lumd/svcent.h"

#include <cstdint>
#include <span>
#include <string_view>

struct cfgdb;

constexpr int lumd_slots = 32;

// The slots that the outermost start (or stop) under way has handled, one bit a slot.
struct lumd_pass {
    uint32_t handled;
    int depth;
};

struct lumd {
    service_info svcs[lumd_slots];
    ::cfgdb *cfgdb;
    int fifo_fd;
    svcent_creators creators; // set before the first start
    lumd_pass starting;
    lumd_pass stopping;
};

// The filled slots, which come first in the table; and the first slot of that name, or null.
std::span<service_info> lumd_used_slots(lumd *manager);
service_info *lumd_find_slot(lumd *manager, std::string_view name);

// An empty manager, or null (logged) when memory is out.
lumd *lumd_create();

// Reads every file of a colon-separated list, creates the database and opens the control FIFO; starts
// nothing. 0, or -1, logged, when no file gave a service, or the database or the FIFO cannot be had.
[[nodiscard]] int lumd_init(lumd *manager, const char *path_list);

// Reads one file behind the slot last_index. The new last index, or -1, logged.
[[nodiscard]] int lumd_parse_conf(lumd *manager, const char *path, int last_index);

// Fills the lists of dependents and links all names to their slots.
void lumd_init_service_infos(lumd *manager);

// Starts or stops one slot; failures are logged. release also ends the entry.
void lumd_do_start(service_info *slot, const char *name);
void lumd_do_stop(service_info *slot, int release);

// The restart timer's callback.
void lumd_restart_service(service_info *slot);

// Variables whose values have just changed (lumd_changes.cc); the names are the caller's.
void lumd_processSyscfgChange(lumd *manager, const char *const *names, int count);
