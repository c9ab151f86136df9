// The network clock. The input is a series of pieces: a byte for the kind, a byte for the length, the data.
// Kinds: a datagram for one of the client's sockets, the same with the identifier of its DNS query, a span of
// time, arguments for a start.
#include "lumd/kinds.h"
#include "tests/fuzz/machine.h"
#include "tests/fuzz/manager.h"
#include "tests/fuzz/target.h"

#include <arpa/inet.h>

static char identifier[2];

static void start(svcent *entry, std::string text)
{
    char name[] = "ntp", *words[svcfg_exec_max + 1] = {name}, *rest = text.data();
    int count = 1;
    while (count < svcfg_exec_max && (words[count] = strtok_r(rest, " ", &rest)))
        ++count;
    words[count] = nullptr;
    entry->ops->start(entry, count, words, nullptr);
}

void take(std::string_view input)
{
    static const memory_file servers("nameserver 127.0.0.1\n");
    const sockaddr_in from = {AF_INET, htons(53), {htonl(INADDR_LOOPBACK)}, {}};
    machine = {{{"/etc/resolv.conf", servers.path}}, [](auto sent) { return sent.copy(identifier, 2) == 2; }};
    memcpy(&machine.from, &from, sizeof from);
    value_of_all = "time.example.com";
    service_info slot = {"n", &manager, nullptr, nullptr, {}, 0};
    svcent *entry = create_ntp_svcent(&slot, slot.name);
    while (input.size() >= 2) {
        const auto what = static_cast<uint8_t>(input[0]), length = static_cast<uint8_t>(input[1]);
        std::string piece(input.substr(2, length));
        const int kind = what % 4;
        uint32_t ms = 0;
        kind == 1 ? piece.replace(0, 2, identifier, 2) : piece;
        kind == 2 ? piece.copy(reinterpret_cast<char *>(&ms), sizeof ms) : 0;
        kind == 3 ? start(entry, piece) : void();
        machine.datagram = piece;
        machine.place = what / 4;
        machine.arrived = kind < 2;
        machine.now_us += ms * 1000LL;
        app_poll_once();
        input.remove_prefix(std::min<size_t>(2 + length, input.size()));
    }
    entry->ops->release(entry);
    scheduler_clear(&app_scheduler); // where the clock was set back, its timer stands still
    require(timer_run_expired() == -1);
}
