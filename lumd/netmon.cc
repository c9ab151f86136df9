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
    timer *check_timer;
    char device[16 + 1];
    int sock;
    int down_count;
    int flags;
    timer *nopkt_timer;
    uint32_t last_rx;
    uint32_t last_tx;
    int nopkt_armed;
};

struct packet_counts {
    uint32_t rx, tx;
};

// No-packet restarts since a packet came in on any interface.
int restart_fail;

netmon_svcent *as_netmon(void *entry)
{
    return static_cast<netmon_svcent *>(static_cast<svcent *>(entry));
}

// Counters have 64 bits, wherever long has 32; what is compared is how far they have moved.
bool has_risen(uint32_t from, uint32_t to)
{
    return static_cast<int32_t>(to - from) > 0;
}

// The counts of a line of the kernel's table, when it is that of the device.
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

void take_counts(netmon_svcent *entry, packet_counts now)
{
    if (has_risen(entry->last_tx, now.tx)) {
        if (!entry->nopkt_armed)
            timer_start(entry->nopkt_timer, -1);
        entry->nopkt_armed = 1;
    }
    if (entry->last_rx == 0)
        entry->last_rx = now.rx;
    if (has_risen(entry->last_rx, now.rx)) {
        timer_stop(entry->nopkt_timer);
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
    run_script(entry->name, "start", 0);
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
    run_script(entry->name, "stop", 0);
    entry->state = SVCENT_STOPPED;
    lumd_processServiceCallback(entry->owner, SVCENT_EV_STOPPED);
}

void netmon_check(void *ctx)
{
    netmon_svcent *entry = as_netmon(ctx);
    if (entry->flags & NETMON_NO_WATCH) {
        timer_free(std::exchange(entry->check_timer, nullptr));
        link_up(entry);
        return;
    }
    checkpacket(entry);
    timer_start(entry->check_timer, 1);
    switch (get_link_status(entry->device)) {
    case 0:
        link_down(entry);
        break;
    case 1:
        link_up(entry);
        break;
    default:
        break;
    }
}

void no_pack_recv(void *ctx)
{
    netmon_svcent *entry = as_netmon(ctx);
    ++restart_fail;
    log_trace(LOG_HERE, "%s restart fail=%d", entry->device, restart_fail);
    entry->nopkt_armed = 0;
    timer_stop(entry->nopkt_timer);
    run_script(entry->device, "restart", 0);
    if (restart_fail > restarts_before_reboot) {
        log_trace(LOG_HERE, "no packet receive, rebooting...");
        lumd_start_service(entry->owner->owner, "reboot");
    }
}

// The device name, behind groups of option letters; null, logged, when something is wrong.
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

// The timer in its place, made when there is none.
bool have_timer(timer *&place, uint32_t period_ms, netmon_svcent *entry, timer_callback callback,
                const char *name)
{
    if (!place)
        place = timer_new(period_ms, entry, callback, name);
    return place != nullptr;
}

int netmon_start(svcent *base, int argc, char *const *argv, const svcfg *)
{
    netmon_svcent *entry = as_netmon(base);
    int flags = 0;
    const char *device = parse_words(argv + (argc > 0), flags);
    if (!device)
        return -1;
    copy_text(entry->device, device);
    if (entry->sock < 0)
        entry->sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (entry->sock < 0)
        return -1;
    entry->flags = flags;
    if (!(flags & NETMON_NO_WATCH))
        entry->down_count = down_checks_after_start;
    if (!have_timer(entry->check_timer, check_period_ms, entry, netmon_check, "netmon_check") ||
        !have_timer(entry->nopkt_timer, no_packet_period_ms, entry, no_pack_recv, "no_pack_recv"))
        return -1;
    timer_start(entry->check_timer, 1);
    entry->last_rx = 0;
    entry->last_tx = 0;
    return 0;
}

int netmon_stop(svcent *base, char *const *)
{
    netmon_svcent *entry = as_netmon(base);
    entry->state = SVCENT_STOPPED;
    if (entry->check_timer)
        timer_stop(entry->check_timer);
    run_script(entry->name, "stop", 0);
    return 0;
}

int netmon_reload(svcent *base, char *const *)
{
    run_script(base->name, "reload", 0);
    return 0;
}

int netmon_release(svcent *base)
{
    netmon_svcent *entry = as_netmon(base);
    log_trace(LOG_HERE, "netmon release!");
    timer_free(entry->check_timer);
    timer_free(entry->nopkt_timer);
    const unique_fd closed(entry->sock);
    free_svcent(entry);
    return 0;
}

constexpr svcent_ops operations = {netmon_start, netmon_stop, netmon_reload, netmon_release};

} // namespace

svcent *create_netmon_svcent(service_info *slot, const char *name)
{
    log_trace(LOG_HERE, "create netmon svcent");
    auto *entry = new_svcent<netmon_svcent>(LOG_HERE, &operations, slot, name);
    if (!entry)
        return nullptr;
    entry->sock = -1;
    return entry;
}
