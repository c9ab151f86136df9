// The kinds of service.
#pragma once

#include "lumd/svcent.h"

// All of them, in the order in which they are asked for an entry: the built-in kinds, then programs.
extern const svcent_creators all_kinds;

// The entry of the built-in kind of that name; null when there is none.
svcent *create_builtin_svcent(service_info *slot, const char *name, const char *first_word);

// The built-in kinds, by the first word of their exec lines. Each makes an entry for the slot, or null,
// logged, when memory is out.
svcent *create_watchdog_svcent(service_info *slot, const char *name); // watchdog
svcent *create_reboot_svcent(service_info *slot, const char *name);   // reboot
svcent *create_netmon_svcent(service_info *slot, const char *name);   // netmon [-n] INTERFACE
svcent *create_ntp_svcent(service_info *slot, const char *name);      // ntp [OPTION...]
svcent *create_sched_svcent(service_info *slot, const char *name);    // sched WHEN PROGRAM
