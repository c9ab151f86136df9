// Names of the functions of the running program, from its own ELF symbol table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// A function in [start, end). A table of them ends with a record without a name.
struct symbol {
    char *name;
    uintptr_t start;
    uintptr_t end;
};

// Highest end address of the process's mappings; 0 until they have been read.
extern uintptr_t stack_top;

// The main thread's stack. From a stack pointer in [stack_begin, stack_end), everything up to the end can
// be read.
extern uintptr_t stack_begin;
extern uintptr_t stack_end;

// Reads the mappings and the symbol table, once, at start-up. Errors go to standard error, and the program
// runs on without names.
void symbols_load();

// The function containing addr, or null if unknown or no table is loaded. The text lives as long as
// the process.
const char *symbol_lookup(const void *addr);

// Reads an executable of the same kind as the running program. Returns null and a table for symbols_free, or
// a line that says what is wrong with the file. Aborts if out of memory.
const char *symbols_read(std::span<const std::byte> file, symbol **table);
void symbols_free(symbol *table);
