// The types of variables: from a text to a value.
#pragma once

#include "syscfg/variables.h"

// Results of a type's set operation besides 0 and -1.
constexpr int value_refused = -22;
constexpr int value_no_memory = -12;

// The value of a variable in the form that option asks for; null without such a variable. The text is the
// database's, or in buffer.
const char *get_value(const syscfg *db, std::string_view name, const char *option, std::span<char> buffer);
