// The link of an Ethernet interface, as its PHY reports it.
#pragma once

#include <cstdint>

// Reads one register of the PHY at that address (names are cut at 7 characters). 0 and the value, -1 when no
// socket can be had, -2 when the read fails.
[[nodiscard]] int mii_read(const char *device, uint16_t phy, uint16_t reg, uint16_t *value);

enum link_status : int { LINK_UNKNOWN = -1, LINK_DOWN = 0, LINK_UP = 1 };

// Of the first PHY of 1 to 31 that offers and advertises 100 Mbit/s full duplex; unknown when there is none
// or a read fails.
[[nodiscard]] link_status get_link_status(const char *device);
