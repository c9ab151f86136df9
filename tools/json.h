#pragma once

#include <cstdio>
#include <string_view>

// Writes text as a JSON string. Each byte that is not UTF-8 becomes U+FFFD.
void write_json_string(FILE *out, std::string_view text);
