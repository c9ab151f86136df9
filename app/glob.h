// Shell-like patterns over names.
#pragma once

#include <string_view>

// True if pattern matches all of name: '*' is any run of characters, '?' exactly one, others themselves.
bool glob_match(std::string_view pattern, std::string_view name);
