#pragma once

#include <cstdio>
#include <string_view>

// Writes text as a JSON string. Bytes that are not UTF-8 become U+FFFD, one each.
void write_json_string(FILE *out, std::string_view text);
