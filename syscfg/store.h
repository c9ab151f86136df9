// The values: loading, saving and reporting changes.
//
// A setter validates, normalises and stores a value and marks its variable changed; nothing more happens
// until an apply reports all marked variables to the service manager at once and clears the marks. Values are
// loaded in this order, each over the one before: hardware information (once, at start-up), constants,
// defaults, saved values. A variable that gets its first value from constants or hardware information becomes
// read-only, so later sources do not change it. Saving writes every variable that has a value and may be
// saved to flash. A value with a quote or a line end would not load back as it was; it is logged and left
// out.
#pragma once

#include "syscfg/types.h"

// The flags that load_config gives to variables that have no value yet.
enum load_mode : uint16_t { LOAD_VALUES = 0, LOAD_CONSTANTS = VAR_NOSAVE | VAR_RDONLY };

constexpr size_t text_buffer_size = 65536;

// Shared by loading, saving and resetting; each use fills and consumes it before it returns.
extern char text_buffer[text_buffer_size + 1];

// Splits "name = value" or "name = "value" ..."; the results are terminated. -1 when there is no "=", no
// closing quote, or no room for the name or the value.
[[nodiscard]] int parse_assignment(std::string_view line, std::span<char> name_out,
                                   std::span<char> value_out);

// Loads name=value lines; text after the last line end is ignored. The buffer has room for one byte more.
// An undeclared name is reported, or becomes a variable of type add_type when that is not 0. Returns 0.
int load_config(syscfg *db, char *text, int length, load_mode mode, uint16_t add_type);

// Reads the default file and the vendor's; bytes read, or -1 without a default file.
[[nodiscard]] int load_defaults(syscfg *db, char *buffer, int buffer_size);

// Loads constants, defaults and saved values. The length of the saved text, or below 1 if flash has none.
int load_syscfg(syscfg *db);

// Writes all values to flash, then applies if asked. Bytes written, or -1.
int save_syscfg(syscfg *db, bool apply);

// Makes the defaults the saved values and loads them. 0 or above, or -1.
int reset_syscfg(syscfg *db);

// Reports the variables marked as changed and clears the marks, at most 1,023 a call. Returns 0.
int apply_syscfg(syscfg *db);
