#include "app/app.h"
#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"
#include "lumd/kinds.h"
#include "net/net.h"
#include "net/resolver.h"
#include "net/wire.h"
#include "syscfg/client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr char log_module[] = "ntp";
constexpr char default_server[] = LUMD_NTP_SERVER;
constexpr int default_server_interval_s = 36000;
constexpr int default_server_probes = 4;
constexpr int usual_interval_s = 600;
constexpr int longest_interval_s = UINT32_MAX / 1000;
constexpr int unsynchronised_interval_s = 60;
constexpr uint32_t reply_wait_ms = 5000;
constexpr uint32_t lost_query_ms = 20000; // more than the resolver takes before it gives up
constexpr uint16_t ntp_port = 123;
constexpr uint8_t client_request = 0x1B; // version 3, mode 3
constexpr size_t packet_size = 48;
constexpr size_t transmit_seconds_at = 40, transmit_fraction_at = 44;
constexpr uint32_t epoch_1970 = 2208988800U;
constexpr uint32_t fractions_per_us = 4295;
constexpr size_t host_name_max = 256;
constexpr size_t words_max = svcfg_exec_max;

enum ntp_sync : int { NTP_FAILED = -1, NTP_NEVER = 0, NTP_SYNCHRONISED = 1 };

struct ntp_svcent : svcent {
    unique_fd sock;
    int probe_count; // tries a cycle, 0 without limit
    char hostname[host_name_max + 1];
    int interval; // seconds from a success to the next cycle
    int tries;    // of this cycle
    uint16_t local_port;
    ::resolver resolver;
    sockaddr_in server;
    unique_timer retry_timer;
    std::array<uint8_t, packet_size> reply;
    ntp_sync sync;
    bool told; // NTP_SYNC has been set, since the last reply if there was one

    ~ntp_svcent() { close_sockets(); }
    void close_sockets();
};

void ntp_svcent::close_sockets()
{
    app_remove_ctx(this);
    sock.reset();
    retry_timer.stop();
    resolver_release(&resolver);
}

// ---- cycles -------------------------------------------------------------------------------------------

void ntp_retry(ntp_svcent *entry);

void arm_retry(ntp_svcent *entry, uint32_t period_ms)
{
    if (entry->retry_timer.start<ntp_retry>(period_ms, entry, "ntp_retry") < 0)
        log_failed(LOG_HERE);
}

void ntp_schedule(ntp_svcent *entry)
{
    const int interval = std::clamp(entry->interval, 1, longest_interval_s);
    const bool is_done = entry->sync == NTP_SYNCHRONISED && entry->told;
    const int seconds = is_done ? interval : std::min(interval, unsynchronised_interval_s);
    entry->tries = -1;
    arm_retry(entry, static_cast<uint32_t>(seconds) * 1000);
}

// The database's server runs in this thread and cannot answer now, so no reply is requested. False when its
// socket is full or missing.
bool publish()
{
    return syscfg_set_flags("NTP_SYNC", "1", SYSCFG_NOREPLY) == 0;
}

void ntp_resolverCallback(ntp_svcent *entry, resolver *, resolver_status status);

// Opening the socket may have failed last time.
void open_resolver(ntp_svcent *entry)
{
    resolver_release(&entry->resolver);
    if (resolver_init(&entry->resolver, RESOLVER_A, RESOLVER_IN) < 0)
        log_failed(LOG_AS("ntp_start"));
    resolver_set_callback<ntp_resolverCallback>(&entry->resolver, entry);
}

// The timer covers queries that fail at once or end without a callback.
void begin_try(ntp_svcent *entry)
{
    if (!entry->resolver.sock)
        open_resolver(entry);
    arm_retry(entry, lost_query_ms);
    if (resolver_query(&entry->resolver, entry->hostname) < 0)
        arm_retry(entry, reply_wait_ms);
}

void ntp_retry(ntp_svcent *entry)
{
    if (entry->probe_count != 0 && entry->tries >= entry->probe_count) {
        log_trace(LOG_HERE, "get ntp failed");
        if (entry->sync == NTP_NEVER)
            entry->sync = NTP_FAILED;
        if (!entry->told)
            entry->told = publish();
        ntp_schedule(entry);
        return;
    }
    ++entry->tries;
    begin_try(entry);
}

// ---- the exchange -------------------------------------------------------------------------------------

void tryServer(ntp_svcent *entry)
{
    std::array<uint8_t, resolver_result_size> answer = {};
    const int length = resolver_result(&entry->resolver, answer.data(), static_cast<int>(answer.size()));
    log_trace(LOG_HERE, "resolver result: len=%d\n", length);
    if (length < static_cast<int>(sizeof entry->server.sin_addr))
        return;
    print_output("resolver result: addr = %d.%d.%d.%d\n", answer[0], answer[1], answer[2], answer[3]);
    entry->server = {};
    entry->server.sin_family = AF_INET;
    entry->server.sin_port = htons(ntp_port);
    memcpy(&entry->server.sin_addr, answer.data(), sizeof entry->server.sin_addr);
    const std::array<uint8_t, packet_size> request = {client_request};
    const auto *to = reinterpret_cast<const sockaddr *>(&entry->server);
    if (sendto(entry->sock.get(), request.data(), request.size(), MSG_DONTWAIT, to, sizeof entry->server) !=
        static_cast<ssize_t>(request.size()))
        log_syserror(LOG_HERE);
}

void ntp_resolverCallback(ntp_svcent *entry, resolver *, resolver_status status)
{
    if (status != RESOLVER_ANSWERED) {
        log_trace(LOG_HERE, "resolver error\n");
        ntp_retry(entry);
        return;
    }
    tryServer(entry);
    arm_retry(entry, reply_wait_ms);
}

timeval ntp_to_timeval(const std::array<uint8_t, packet_size> &reply)
{
    const uint32_t seconds = number_at<uint32_t>(reply, transmit_seconds_at) - epoch_1970;
    const uint32_t microseconds = number_at<uint32_t>(reply, transmit_fraction_at) / fractions_per_us;
    return {static_cast<time_t>(seconds), static_cast<suseconds_t>(microseconds)};
}

void take_time(ntp_svcent *entry)
{
    const timeval now = ntp_to_timeval(entry->reply);
    if (settimeofday(&now, nullptr) < 0)
        log_syserror(LOG_AS("ntp_recvCallback"));
    entry->retry_timer.stop();
    entry->sync = NTP_SYNCHRONISED;
    entry->told = publish();
    ntp_schedule(entry);
}

// False when the callback is done.
bool receive(ntp_svcent *entry)
{
    constexpr char func[] = "ntp_recvCallback";
    const ssize_t length = recv(entry->sock.get(), entry->reply.data(), entry->reply.size(), MSG_DONTWAIT);
    if (length < 0 && errno == EAGAIN)
        return false;
    if (length < 0)
        print_output("Can't receive: %s\n", strerror(errno));
    else if (length == 0)
        log_trace(LOG_AS(func), "Unexpected EOF");
    else if (length == static_cast<ssize_t>(packet_size))
        take_time(entry);
    return length < static_cast<ssize_t>(packet_size);
}

void ntp_recvCallback(ntp_svcent *entry, int events, int fd, app_fd_handler *)
{
    if ((events & APP_EV_READ) && !receive(entry))
        return;
    if (events & APP_EV_ERROR)
        log_trace(LOG_HERE, "%s", strerror(get_socket_error(fd)));
}

// ---- start and stop -----------------------------------------------------------------------------------

// "$(NAME)" stands for the value of that variable.
void set_hostname(ntp_svcent *entry, std::string_view text)
{
    text = text.substr(0, host_name_max);
    if (text.empty())
        return;
    if (!text.starts_with('$')) {
        copy_text(entry->hostname, text);
        return;
    }
    const size_t end = text.find(')', 2);
    if (end == text.npos)
        return;
    char name[host_name_max + 1];
    copy_text(name, text.substr(2, end - 2));
    const char *value = svcent_getSyscfg(entry, name);
    copy_text(entry->hostname, value ? value : "");
    if (value)
        log_trace(LOG_AS("ntp_start"), "host name: %s", entry->hostname);
}

int number_of(const char *text)
{
    return static_cast<int>(std::clamp<long>(strtol(text, nullptr, 10), INT_MIN, INT_MAX));
}

// False, with a message, for an unknown option or one without its value.
bool parse_options(ntp_svcent *entry, int argc, char *const *argv)
{
    // A copy, because getopt reorders the words.
    std::array<char *, words_max + 1> words = {};
    int count = 0;
    // A last word that lacks its closing quote is counted, but null.
    for (; count < std::min(argc, static_cast<int>(words_max)) && argv[count]; ++count)
        words[static_cast<size_t>(count)] = argv[count];
    optind = 0;
    for (int option; (option = getopt(count, words.data(), "c:h:i:p:")) != -1;) {
        switch (option) {
        case 'c':
            entry->probe_count = number_of(optarg);
            break;
        case 'h':
            set_hostname(entry, optarg);
            break;
        case 'i':
            entry->interval = number_of(optarg);
            break;
        case 'p':
            entry->local_port = static_cast<uint16_t>(number_of(optarg));
            break;
        default:
            print_error("unknown option: -%c\n", option);
            return false;
        }
    }
    return true;
}

bool configure(ntp_svcent *entry, int argc, char *const *argv)
{
    entry->probe_count = 0;
    entry->hostname[0] = '\0';
    entry->interval = usual_interval_s;
    entry->local_port = 0;
    if (!parse_options(entry, argc, argv))
        return false;
    if (!entry->hostname[0]) {
        copy_text(entry->hostname, default_server);
        entry->interval = default_server_interval_s;
        entry->probe_count = default_server_probes;
    }
    log_trace(LOG_AS("ntp_start"),
              "Configuration:\n  -c probe_count %d\n  -h hostname    %s\n  -i interval    %d\n"
              "  -p local_port  %d\n",
              entry->probe_count, entry->hostname, entry->interval, entry->local_port);
    return true;
}

// None on failure, with a message on standard output.
unique_fd open_socket(uint16_t port)
{
    const auto failed = [](const char *what) {
        print_output("Can't %s: %s\n", what, strerror(errno));
        return unique_fd();
    };
    unique_fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock)
        return failed("create socket");
    const int on = 1;
    if (setsockopt(sock.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0)
        return failed("set socket reuse");
    sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_port = htons(port);
    if (bind(sock.get(), reinterpret_cast<const sockaddr *>(&local), sizeof local) < 0)
        return failed("bind socket");
    return sock;
}

int ntp_start(ntp_svcent *entry, int argc, char *const *argv, const svcfg *)
{
    log_trace(LOG_HERE, "start ntp");
    entry->close_sockets();
    if (!configure(entry, argc, argv))
        return -1;
    unique_fd sock = open_socket(entry->local_port);
    if (!sock)
        return -1;
    if (app_add_fd<ntp_recvCallback>(sock.get(), POLLIN, entry) < 0) {
        log_failed(LOG_HERE);
        return -1;
    }
    entry->sock = std::move(sock);
    entry->tries = 0;
    static_cast<void>(_resolver_init()); // logged; a query tries again
    begin_try(entry);
    return 0;
}

int ntp_stop(ntp_svcent *entry, char *const *)
{
    entry->close_sockets();
    return 0;
}

int ntp_reload(ntp_svcent *, char *const *)
{
    return -1;
}

constexpr const svcent_ops &operations = operations_of<ntp_svcent, ntp_start, ntp_stop, ntp_reload, false>;

} // namespace

svcent *create_ntp_svcent(service_info *slot, const char *name)
{
    log_trace(LOG_HERE, "create ntp svcent");
    auto *entry = new_svcent<ntp_svcent>(LOG_HERE, &operations, slot, name);
    if (!entry)
        return nullptr;
    entry->interval = usual_interval_s;
    static_cast<void>(_resolver_init()); // logged; each start tries again
    return entry;
}
