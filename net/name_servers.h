#pragma once

#include <cstdio>
#include <span>
#include <string_view>

// Reads a resolv.conf up to its next line "nameserver ADDRESS". address is the rest of that line, in the
// buffer line and followed by a zero. An overlong line is read in pieces. False at the end of the file.
[[nodiscard]] bool next_name_server(FILE *list, std::span<char> line, std::string_view &address);
