// Values that are worked out from the running system at the moment of a query.
#pragma once

#include <span>
#include <string_view>

// Writes the value of a computed variable (name without its "@") as text; 0, or -1 when there is none.
int get_computed(std::string_view name, std::span<char> output);
