// The kinds of service, and who makes the entry of a slot.
#pragma once

#include "lumd/svcent.h"

// The entry of the first kind that knows first_word, the first word of the slot's exec line: a built-in kind
// of that name, else a program. Null when there is none, or no word.
svcent *create_svcent(service_info *slot, const char *name, const char *first_word);

// False for the kinds that never report event 1: a service of theirs is up once it has been started.
bool kind_reports_start(const char *first_word);

// The built-in kinds, by the first word of their exec lines. Each makes an entry for the slot, or null,
// logged, when memory is out.
svcent *create_watchdog_svcent(service_info *slot, const char *name); // watchdog
svcent *create_reboot_svcent(service_info *slot, const char *name);   // reboot
svcent *create_netmon_svcent(service_info *slot, const char *name);   // netmon [-n] INTERFACE
svcent *create_ntp_svcent(service_info *slot, const char *name);      // ntp [OPTION...]
svcent *create_sched_svcent(service_info *slot, const char *name);    // sched WHEN PROGRAM
