// A reply to a name server's client, after one byte that tells the type asked for; and a name to ask for.
#include "net/dns_message.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr uint8_t id[2] = {0x12, 0x34};
    constexpr size_t room = 1024;
    if (size == 0 || size > dns_message_max + 1)
        return 0;
    const std::span<const uint8_t> reply(data + 1, size - 1);
    dns_query_buffer packet;
    if (dns_build_query(packet, id, {reinterpret_cast<const char *>(data), size}, data[0], 1) > packet.size())
        abort();
    dns_answer answer;
    if (dns_find_answer(reply, id, data[0], RESOLVER_IN, answer)) {
        char *out = new char[room - 1]; // the last one is for the terminator
        if (answer.length >= room || dns_decode(reply, answer, data[0], {out, room - 1}) >= room)
            abort();
        delete[] out;
    }
    return 0;
}
