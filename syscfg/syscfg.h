// The configuration database as the service manager sees it: one object with three operations.
//
// init declares, loads and opens the server socket; from then on the set of variables is fixed and values
// change only through the socket. release keeps the database, which lives until the process ends. get gives
// the text of a variable, valid until it next changes, or null.
#pragma once

#include "syscfg/variables.h"

// A database for a listener, which sets its `changed` if it wants to be told; null (logged) when memory is
// out.
syscfg *create_syscfg(cfgdb *listener);
