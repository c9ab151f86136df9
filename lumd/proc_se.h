// Services that are external programs.
//
// An entry is created (0), anew with every child, until its started-notice has run, which the manager gets
// one loop pass after the program was started; started (1) until the program's end has been seen, reported as
// event 2; stopped (2) then, or once a "stop" handler has taken charge of its end, which is not reported any
// more, unless the service was started again meanwhile and would stay down for good. A one-shot program
// counts as started when it has ended well.
#pragma once

#include "lumd/svcent.h"

// An entry for the program that first_word names (after a "-": one-shot), or null, logged.
svcent *create_process_svcent(service_info *slot, const char *name, const char *first_word);
