// Names of the functions of the running program, from its own ELF symbol table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// One function; it lies in [start, end). A table of them ends with a record without name.
struct symbol {
    char *name;
    uintptr_t start;
    uintptr_t end;
};

// The highest end address of all mappings of the process, 0 until they have been read.
extern uintptr_t stack_top;

// The main thread's stack: what lies above a stack pointer in [stack_begin, stack_end) can be read, up to its
// end.
extern uintptr_t stack_begin;
extern uintptr_t stack_end;

// Reads the mappings and the symbol table; once, at start-up. What is wrong with them goes to standard error,
// and the program runs on without names.
void symbols_load();

// The function that contains addr, or null when no symbol table is loaded or none contains it.
// The text lives as long as the process.
const char *symbol_lookup(const void *addr);

// Reads an executable of the running program's own kind. Returns null and a table to give to symbols_free, or
// what is wrong with the file, one line. Aborts when memory is out.
const char *symbols_read(std::span<const std::byte> file, symbol **table);
void symbols_free(symbol *table);
