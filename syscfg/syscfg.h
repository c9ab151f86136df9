// The configuration database as the service manager sees it: one object with three operations.
//
// init declares and loads the variables and opens the server socket. From then on the set of variables is
// fixed and values change only through the socket. release keeps the database, which lives until the process
// ends. get returns the text of a variable, valid until it next changes, or null.
#pragma once

#include "syscfg/variables.h"

// A database for a listener, which sets `changed` to be told of changes. Null (logged) without memory.
[[nodiscard]] syscfg *create_syscfg(cfgdb *listener);
