#pragma once

#include <cstdio>
#include <span>
#include <string_view>

// Reads a resolv.conf up to its next line "nameserver ADDRESS": what follows the keyword and its white space,
// up to the end of the line, as a part of the buffer line, which ends with a zero. Longer lines come in
// pieces that fit. False at the end of the file.
[[nodiscard]] bool next_name_server(FILE *list, std::span<char> line, std::string_view &address);
