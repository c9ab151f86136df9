// ICMP (RFC 792) as bytes: the echo that we send, and what may be believed of what a raw IPv4 socket
// receives, which is everybody's ICMP, IP header first.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

// An echo request of this identifier, with its checksum, that carries zeros.
constexpr size_t icmp_echo_size = 56;
using icmp_echo_packet = std::array<uint8_t, icmp_echo_size>;
icmp_echo_packet icmp_build_echo(uint16_t id, uint16_t sequence);

// The value of the socket option IP_OPTIONS with which a packet records its route, nine addresses long.
constexpr std::array<uint8_t, 40> icmp_record_route = {1, 7, 39, 4};

// Whether a router says that our UDP datagram with these ports was on the road for too long, or its receiver
// that nothing listens there.
bool icmp_returns_datagram(std::span<const uint8_t> packet, uint16_t source_port, uint16_t dest_port);

// Entry index (from 0) of the route that the reply to an echo of this identifier has recorded. False when it
// is no such reply, or did not record as many.
bool icmp_find_route_entry(std::span<const uint8_t> packet, uint16_t id, int index,
                           std::array<uint8_t, 4> &address);
