#include "app/file.h"
#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"
#include "lumd/kinds.h"
#include "lumd/mii.h"
#include "lumd/script.h"

#include <array>
#include <cstdint>
#include <optional>
#include <sys/socket.h>

namespace {

constexpr char log_module[] = "netmon";
constexpr uint32_t check_period_ms = 2000;
constexpr uint32_t no_packet_period_ms = 120200;
constexpr int down_checks_after_start = -10; // a link takes its time to come up
constexpr int down_checks_ignored = 3;
constexpr int restarts_before_reboot = 5;
constexpr size_t statistics_line_max = 128;
constexpr size_t rx_packets_column = 1, tx_packets_column = 9, statistics_columns = 16;

enum netmon_flags { NETMON_NO_WATCH = 1 };

struct netmon_svcent : svcent {
    unique_timer check_timer;
    char device[16 + 1];
    unique_fd sock;
    int down_count;
    int flags;
    unique_timer nopkt_timer;
    uint32_t last_rx;
    uint32_t last_tx;
    int nopkt_armed;

    ~netmon_svcent() { log_trace(LOG_AS("netmon_release"), "netmon release!"); }
};

struct packet_counts {
    uint32_t rx, tx;
};

// No-packet restarts since a packet came in on any interface.
int restart_fail;

// The kernel's counters have up to 64 bits and are cut to 32 here, so their difference is compared.
bool has_risen(uint32_t from, uint32_t to)
{
    return static_cast<int32_t>(to - from) > 0;
}

void start_script(const char *name, const char *action)
{
    static_cast<void>(run_script(name, action, 0)); // logs its failures
}

// The counts of a line of the kernel's table; none if it is another interface's.
std::optional<packet_counts> parse_counts(const char *line, std::string_view device)
{
    std::string_view text = skip_space(line);
    const std::string_view name = span_of(text, [](char c) { return c != ':' && !is_space(c); });
    if (name != device || !text.substr(name.size()).starts_with(':'))
        return {};
    const char *at = name.data() + name.size() + 1;
    std::array<uint32_t, statistics_columns> columns;
    for (uint32_t &column : columns) {
        char *end;
        column = static_cast<uint32_t>(strtoull(at, &end, 0));
        at = end;
    }
    return packet_counts{columns[rx_packets_column], columns[tx_packets_column]};
}

// Starting a timer that exists cannot fail.
void check_started(int result)
{
    if (result < 0)
        log_failed(LOG_HERE);
}

void take_counts(netmon_svcent *entry, packet_counts now)
{
    if (has_risen(entry->last_tx, now.tx)) {
        if (!entry->nopkt_armed)
            check_started(entry->nopkt_timer.start(0));
        entry->nopkt_armed = 1;
    }
    if (entry->last_rx == 0)
        entry->last_rx = now.rx;
    if (has_risen(entry->last_rx, now.rx)) {
        entry->nopkt_timer.stop();
        entry->nopkt_armed = 0;
        restart_fail = 0;
    }
    entry->last_rx = now.rx;
    entry->last_tx = now.tx;
}

void checkpacket(netmon_svcent *entry)
{
    const unique_file table(fopen("/proc/net/dev", "re"));
    if (!table) {
        log_trace(LOG_HERE, "file cannot be opened\n");
        return;
    }
    char line[statistics_line_max + 1];
    while (fgets(line, sizeof line, table.get())) {
        if (const auto counts = parse_counts(line, entry->device)) {
            take_counts(entry, *counts);
            return;
        }
    }
}

void link_up(netmon_svcent *entry)
{
    entry->down_count = 0;
    if (entry->state == SVCENT_STARTED)
        return;
    log_trace(LOG_AS("netmon_check"), "link up!");
    start_script(entry->name.get(), "start");
    entry->state = SVCENT_STARTED;
    lumd_processServiceCallback(entry->owner, SVCENT_EV_STARTED);
}

void link_down(netmon_svcent *entry)
{
    if (entry->down_count <= down_checks_ignored) {
        ++entry->down_count;
        return;
    }
    if (entry->state == SVCENT_STOPPED)
        return;
    log_trace(LOG_AS("netmon_check"), "link down!");
    start_script(entry->name.get(), "stop");
    entry->state = SVCENT_STOPPED;
    lumd_processServiceCallback(entry->owner, SVCENT_EV_STOPPED);
}

void netmon_check(netmon_svcent *entry)
{
    if (entry->flags & NETMON_NO_WATCH) {
        entry->check_timer.reset();
        link_up(entry);
        return;
    }
    checkpacket(entry);
    check_started(entry->check_timer.start());
    switch (get_link_status(entry->device)) {
    case LINK_DOWN:
        link_down(entry);
        break;
    case LINK_UP:
        link_up(entry);
        break;
    case LINK_UNKNOWN:
        break;
    }
}

void no_pack_recv(netmon_svcent *entry)
{
    ++restart_fail;
    log_trace(LOG_HERE, "%s restart fail=%d", entry->device, restart_fail);
    entry->nopkt_armed = 0;
    entry->nopkt_timer.stop();
    start_script(entry->device, "restart");
    if (restart_fail > restarts_before_reboot) {
        log_trace(LOG_HERE, "no packet receive, rebooting...");
        lumd_start_service(entry->owner->owner, "reboot");
    }
}

// The device name, which follows the groups of option letters. Null, logged, when there is an error.
const char *parse_words(char *const *words, int &flags)
{
    constexpr char func[] = "netmon_start";
    for (; *words && **words == '-'; ++words) {
        for (const char *letter = *words + 1; *letter; ++letter) {
            if (*letter != 'n') {
                log_trace(LOG_AS(func), "unknown option: %c", *letter);
                return nullptr;
            }
            flags |= NETMON_NO_WATCH;
        }
    }
    if (!*words)
        log_trace(LOG_AS(func), "missing device name");
    return *words;
}

int netmon_start(netmon_svcent *entry, int argc, char *const *argv, const svcfg *)
{
    int flags = 0;
    const char *device = parse_words(argv + (argc > 0), flags);
    if (!device)
        return -1;
    copy_text(entry->device, device);
    if (!entry->sock)
        entry->sock.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!entry->sock)
        return -1;
    entry->flags = flags;
    if (!(flags & NETMON_NO_WATCH))
        entry->down_count = down_checks_after_start;
    if (entry->check_timer.set<netmon_check>(check_period_ms, entry, "netmon_check") < 0 ||
        entry->nopkt_timer.set<no_pack_recv>(no_packet_period_ms, entry, "no_pack_recv") < 0 ||
        entry->check_timer.start() < 0)
        return -1;
    entry->last_rx = 0;
    entry->last_tx = 0;
    return 0;
}

int netmon_stop(netmon_svcent *entry, char *const *)
{
    entry->state = SVCENT_STOPPED;
    entry->check_timer.stop();
    start_script(entry->name.get(), "stop");
    return 0;
}

int netmon_reload(netmon_svcent *entry, char *const *)
{
    start_script(entry->name.get(), "reload");
    return 0;
}

constexpr const svcent_ops &operations =
    operations_of<netmon_svcent, netmon_start, netmon_stop, netmon_reload, true>;

} // namespace

svcent *create_netmon_svcent(service_info *slot, const char *name)
{
    log_trace(LOG_HERE, "create netmon svcent");
    return new_svcent<netmon_svcent>(LOG_HERE, &operations, slot, name);
}
