// ICMP (RFC 792) as bytes: builds the echo that we send and checks received packets. A raw IPv4 socket gets
// every ICMP packet that reaches the device, each with its IP header.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

// An echo request with this identifier, its checksum, and zeros as data.
constexpr size_t icmp_echo_size = 56;
using icmp_echo_packet = std::array<uint8_t, icmp_echo_size>;
icmp_echo_packet icmp_build_echo(uint16_t id, uint16_t sequence);

// The value of the socket option IP_OPTIONS that makes a packet record its route, up to nine addresses.
constexpr std::array<uint8_t, 40> icmp_record_route = {1, 7, 39, 4};

// True when a router reports that the time to live of our UDP datagram with these ports ran out, or the
// receiver reports that nothing listens there.
bool icmp_returns_datagram(std::span<const uint8_t> packet, uint16_t source_port, uint16_t dest_port);

// Gets entry index (from 0) of the route recorded in the reply to an echo with this identifier. False when
// the packet is no such reply or recorded fewer entries.
bool icmp_find_route_entry(std::span<const uint8_t> packet, uint16_t id, int index,
                           std::array<uint8_t, 4> &address);
