// The kernel's routing table, line by line.
#pragma once

#include "app/file.h"

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

// One line of the table. Addresses are in network byte order but compare as plain numbers.
struct route {
    std::array<char, 32> interface; // "*" for a route that refuses
    uint32_t destination, gateway, mask;
    bool is_complete; // flags, references, use and metric are numbers, too
};

// False when the line is cut or junk.
[[nodiscard]] bool parse_route(std::string_view line, route &out);

struct route_table {
    static constexpr char path[] = "/proc/net/route";
    unique_file file = open_regular_file(path); // null with a reason in errno
    bool is_at_heading = true;

    // Reads the next line except the heading; an overlong line comes in pieces. False at the end.
    [[nodiscard]] bool next(std::span<char> line);
};
