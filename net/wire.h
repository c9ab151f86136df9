// Numbers in network byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// The number that begins at that byte. The caller has checked that message holds all of it.
template <typename Number = uint16_t>
constexpr Number number_at(std::span<const uint8_t> message, size_t at)
{
    Number number = 0;
    for (size_t i = 0; i < sizeof number; ++i)
        number = static_cast<Number>(number << 8 | message[at + i]);
    return number;
}
