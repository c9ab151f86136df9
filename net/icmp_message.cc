#include "net/icmp_message.h"

#include "net/wire.h"

#include <algorithm>

namespace {

constexpr size_t ip_header_size = 20;
constexpr size_t icmp_header_size = 8, udp_header_size = 8;
constexpr size_t ip_protocol_at = 9;
constexpr uint8_t ip_version = 4, protocol_udp = 17;
constexpr uint8_t echo_reply = 0, unreachable = 3, echo_request = 8, time_exceeded = 11;
constexpr uint8_t port_unreachable = 3, in_transit = 0;
constexpr size_t id_at = 4, sequence_at = 6;
constexpr uint8_t option_none = 1, option_record_route = 7;
constexpr size_t route_pointer_at = 2, route_at = 3, route_entry_size = 4;
constexpr size_t first_pointer = route_at + 1; // pointers count from 1

using bytes = std::span<const uint8_t>;

void put_number(std::span<uint8_t> message, size_t at, uint16_t number)
{
    message[at] = static_cast<uint8_t>(number >> 8);
    message[at + 1] = static_cast<uint8_t>(number);
}

// RFC 1071, for an even number of bytes.
uint16_t checksum(bytes message)
{
    uint32_t sum = 0;
    for (size_t at = 0; at + 1 < message.size(); at += 2)
        sum += number_at(message, at);
    while (sum > UINT16_MAX)
        sum = (sum & UINT16_MAX) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

// The length of the IP header at the front; 0 when it is cut or not IPv4.
size_t ip_header_length(bytes packet)
{
    if (packet.size() < ip_header_size || packet[0] >> 4 != ip_version)
        return 0;
    const size_t length = static_cast<size_t>(packet[0] & 0x0F) * 4;
    return length >= ip_header_size && length <= packet.size() ? length : 0;
}

// The Record Route option, behind the no-operation that we send before it; empty when it is missing or cut.
bytes route_option(bytes options)
{
    while (!options.empty() && options[0] == option_none)
        options = options.subspan(1);
    if (options.size() < route_at || options[0] != option_record_route || options[1] < route_at ||
        options[1] > options.size())
        return {};
    return options.first(options[1]);
}

// Routers set the pointer, so it is not trusted beyond the room that the option has.
size_t entries_recorded(bytes route)
{
    const size_t pointer = route[route_pointer_at];
    const size_t claimed = pointer < first_pointer ? 0 : (pointer - first_pointer) / route_entry_size;
    return std::min(claimed, (route.size() - route_at) / route_entry_size);
}

} // namespace

icmp_echo_packet icmp_build_echo(uint16_t id, uint16_t sequence)
{
    icmp_echo_packet packet = {echo_request};
    put_number(packet, id_at, id);
    put_number(packet, sequence_at, sequence);
    put_number(packet, 2, checksum(packet));
    return packet;
}

bool icmp_returns_datagram(bytes packet, uint16_t source_port, uint16_t dest_port)
{
    const size_t header = ip_header_length(packet);
    const bytes icmp = packet.subspan(header);
    if (header == 0 || icmp.size() <= icmp_header_size + ip_header_size)
        return false;
    if (!(icmp[0] == unreachable && icmp[1] == port_unreachable) &&
        !(icmp[0] == time_exceeded && icmp[1] == in_transit))
        return false;
    const bytes returned = icmp.subspan(icmp_header_size);
    const size_t returned_header = ip_header_length(returned);
    if (returned_header == 0 || returned[ip_protocol_at] != protocol_udp)
        return false;
    const bytes udp = returned.subspan(returned_header);
    return udp.size() >= udp_header_size && number_at(udp, 0) == source_port &&
           number_at(udp, 2) == dest_port;
}

bool icmp_find_route_entry(bytes packet, uint16_t id, int index, std::array<uint8_t, 4> &address)
{
    const size_t header = ip_header_length(packet);
    if (header <= ip_header_size || index < 0)
        return false;
    const bytes icmp = packet.subspan(header);
    if (icmp.size() < icmp_header_size || icmp[0] != echo_reply || number_at(icmp, id_at) != id)
        return false;
    const bytes route = route_option(packet.subspan(ip_header_size, header - ip_header_size));
    const auto entry = static_cast<size_t>(index);
    if (route.empty() || entry >= entries_recorded(route))
        return false;
    std::ranges::copy(route.subspan(route_at + entry * route_entry_size, route_entry_size), address.begin());
    return true;
}
