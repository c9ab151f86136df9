// Names of the functions of the running program.
#pragma once

// The function that contains addr, or null when no symbol table is loaded or none contains it.
// The text lives as long as the process.
const char *symbol_lookup(const void *addr);
