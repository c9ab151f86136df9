// The kinds of service, and who makes the entry of a slot.
#pragma once

#include "lumd/svcent.h"

// The entry of the first kind that knows first_word, the first word of the slot's exec line: a built-in kind
// of that name, else a program. Null when there is none, or no word.
svcent *create_svcent(service_info *slot, const char *name, const char *first_word);
