// Three bytes, the identifier of the probes and the number of the try or entry, then what a raw ICMP
// socket received.
#include "net/icmp_message.h"
#include "tests/fuzz/target.h"

#include <algorithm>
#include <cstring>

void take(std::string_view input)
{
    constexpr size_t longest_ip_header = 60, shortest_return = 20 + 8 + 20 + 8;
    if (input.size() < 3)
        return;
    const auto *data = reinterpret_cast<const uint8_t *>(input.data());
    const auto id = static_cast<uint16_t>(data[0] << 8 | data[1]);
    const std::span<const uint8_t> packet(data + 3, input.size() - 3);
    const auto header = packet.first(std::min(packet.size(), longest_ip_header));
    std::array<uint8_t, 4> address;
    require(!icmp_find_route_entry(packet, id, data[2], address) ||
            memmem(header.data(), header.size(), address.data(), address.size()));
    require(!icmp_returns_datagram(packet, id | 0x8000, 20000 + data[2]) || packet.size() >= shortest_return);
}
