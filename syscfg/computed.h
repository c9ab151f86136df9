// Values computed from the running system on a query.
#pragma once

#include <span>
#include <string_view>

// Writes the value of a computed variable (name without its "@") as text. 0, or -1 without one.
[[nodiscard]] int get_computed(std::string_view name, std::span<char> output);
