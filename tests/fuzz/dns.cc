// The first byte is the type asked for, the rest a name server's reply. The whole is also a name to ask for.
#include "net/dns_message.h"
#include "tests/fuzz/target.h"

void take(std::string_view input)
{
    constexpr uint8_t id[2] = {0x12, 0x34};
    constexpr size_t room = 1024;
    if (input.empty() || input.size() > max_dns_message + 1)
        return;
    const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t *>(input.data()), input.size());
    const uint8_t type = bytes[0];
    const auto reply = bytes.subspan(1);
    dns_query_buffer packet;
    require(dns_build_query(packet, id, input, type, 1) <= packet.size());
    dns_answer answer;
    if (dns_find_answer(reply, id, type, RESOLVER_IN, answer)) {
        char *out = new char[room - 1]; // the last byte is for the terminator
        require(answer.length < room && dns_decode(reply, answer, type, {out, room - 1}) < room);
        delete[] out;
    }
}
