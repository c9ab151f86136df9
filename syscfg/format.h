// Query options: the form in which a variable's value is shown.
#pragma once

#include "syscfg/variables.h"

// The get operations of types (see var_type): the variable has a value, and there is an option.
const char *get_string(const syscfg_var *var, const char *option, std::span<char> buffer);
const char *get_integer(const syscfg_var *var, const char *option, std::span<char> buffer);
const char *get_bool(const syscfg_var *var, const char *option, std::span<char> buffer);
const char *get_mac(const syscfg_var *var, const char *option, std::span<char> buffer);

// Space becomes '+', other than letters, digits, '.', '_', '-' becomes %XX; cut before what does not fit.
void url_escape(std::string_view text, std::span<char> out);
