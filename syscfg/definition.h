// Declarations of variables: the definition file's grammar.
#pragma once

#include "syscfg/variables.h"

// Reads one definition file and those it includes; bad lines are logged and skipped. -1 if path cannot be
// opened. A file that is still being read is not included again; nesting, files and lines are bounded.
int parse_definition(syscfg *db, const char *path, char *line_buffer, size_t buffer_size);
