// Services that are external programs.
//
// An entry's state is created (0) from the start of each child until the started-notice, one loop pass later,
// tells the manager; then started (1) until the program ends, which is reported as event 2; then stopped (2).
// A "stop" handler sets it to stopped at once, and the end that follows is not reported, unless the service
// was started again in between: without the report it would stay down for good. A one-shot program counts as
// started when it has ended with status 0.
#pragma once

#include "lumd/svcent.h"

// An entry for the program that first_word names (after a "-": one-shot), or null, logged.
svcent *create_process_svcent(service_info *slot, const char *name, const char *first_word);
