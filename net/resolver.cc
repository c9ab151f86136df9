#include "net/resolver.h"

#include "app/app.h"
#include "app/file.h"
#include "app/log.h"
#include "app/text.h"
#include "net/name_servers.h"
#include "net/net.h"
#include "net/sockaddr.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>

namespace {

constexpr char log_module[] = "resolver";
constexpr size_t max_servers = 16;
constexpr size_t max_line = 1024;
constexpr uint16_t dns_port = 53;
constexpr uint32_t first_wait_ms = 1000;
constexpr int last_pass = 4;
constexpr int delivery_priority = 128;
constexpr int max_ipv4_walk = 16;

std::array<in_addr, max_servers> servers;
size_t server_count;

// The state of the file when it was read. Some file systems keep times in whole seconds only, so the time
// alone could miss a change.
struct {
    ino_t inode;
    off_t size;
    timespec modified;
} seen;

unique_fd open_server_list()
{
    unique_fd file = open_regular("/etc/resolv.conf");
    return file ? std::move(file) : open_regular("resolv.conf");
}

bool has_changed(int file)
{
    struct stat now;
    return fstat(file, &now) == 0 &&
           (now.st_ino != seen.inode || now.st_size != seen.size ||
            now.st_mtim.tv_sec != seen.modified.tv_sec || now.st_mtim.tv_nsec != seen.modified.tv_nsec);
}

void add_server(const char *text)
{
    uint8_t octets[sizeof(in_addr)];
    if (server_count == max_servers || parse_ipv4(text, octets) < 0)
        return;
    in_addr &server = servers[server_count++];
    memcpy(&server, octets, sizeof server);
    if (server.s_addr == INADDR_ANY) // this machine; it answers from its loopback address
        server.s_addr = htonl(INADDR_LOOPBACK);
}

// False, with the list unchanged, when the file cannot be read.
bool read_servers(unique_fd list)
{
    struct stat now;
    if (!list || fstat(list.get(), &now) < 0)
        return false;
    const unique_file file(fdopen(list.get(), "r"));
    if (!file)
        return false;
    list.release();
    server_count = 0;
    seen = {now.st_ino, now.st_size, now.st_mtim};
    char line[max_line + 1];
    for (std::string_view address; next_name_server(file.get(), line, address);)
        add_server(address.data());
    return true;
}

bool is_server(const ipv4_endpoint &from)
{
    for (size_t i = 0; i < server_count; ++i) {
        if (sockaddr_cmp(ipv4_endpoint(servers[i], dns_port).get(), from.get()) == 0)
            return true;
    }
    return false;
}

bool is_dotted_quad(const char *name, uint8_t *out)
{
    const std::string_view text = name;
    return span_of(text, [](char c) { return is_digit(c) || c == '.'; }).size() == text.size() &&
           parse_ipv4(name, out) == 0;
}

void resolver_callback(resolver *res, int events, int fd, app_fd_handler *handler);

void stop_waiting(resolver *res)
{
    app_remove_fd<resolver_callback>(res->sock.get(), res);
    res->timer.stop();
}

void report(resolver *res, resolver_status status)
{
    if (res->callback)
        res->callback(res->ctx, res, status);
}

void resolver_deliver(resolver *res)
{
    report(res, RESOLVER_ANSWERED);
}

// Tries every server; -1 when none could be sent to.
int resolver_send_requests(const resolver *res, std::span<const uint8_t> packet)
{
    size_t sent = 0;
    for (size_t i = 0; i < server_count; ++i) {
        const ipv4_endpoint to(servers[i], dns_port);
        if (sendto(res->sock.get(), packet.data(), packet.size(), 0, to.get(), to.size()) < 0)
            log_syserror(LOG_HERE);
        else
            ++sent;
    }
    if (sent > 0 || server_count == 0)
        return 0;
    log_failed(LOG_HERE);
    return -1;
}

int resolver_build_and_send_query(resolver *res)
{
    dns_query_buffer packet;
    const size_t length = dns_build_query(packet, res->id, res->name, res->qtype, res->qclass);
    if (length == 0) {
        log_failed(LOG_HERE);
        return -1;
    }
    if (resolver_send_requests(res, {packet.data(), length}) < 0)
        return -1;
    ++res->attempts;
    return 0;
}

void resolver_timeout_callback(resolver *res);

int start_timer(resolver *res, uint32_t period_ms)
{
    return res->timer.start<resolver_timeout_callback>(period_ms, res, "resolver_timeout_callback");
}

void resolver_timeout_callback(resolver *res)
{
    if (res->attempts > last_pass) {
        report(res, RESOLVER_NO_ANSWER);
        return;
    }
    // A pass that reaches no server does not count: the next one repeats it.
    static_cast<void>(resolver_build_and_send_query(res));
    static_cast<void>(start_timer(res, static_cast<uint32_t>(res->attempts) * 1000)); // exists, so it starts
}

// True when the reply answers the question; stores the result.
bool take_reply(resolver *res, std::span<const uint8_t> reply)
{
    dns_answer answer;
    if (!dns_find_answer(reply, res->id, res->qtype, res->qclass, answer) ||
        answer.length >= resolver_result_size)
        return false;
    const size_t length = dns_decode(reply, answer, res->qtype, res->result);
    res->result[length] = '\0';
    res->result_len = static_cast<int>(length);
    return true;
}

void resolver_callback(resolver *res, int, int fd, app_fd_handler *)
{
    std::array<uint8_t, max_dns_message> message;
    ipv4_endpoint from;
    socklen_t from_length = from.size();
    const ssize_t length =
        recvfrom(fd, message.data(), message.size(), MSG_DONTWAIT, from.get(), &from_length);
    if (length < 0 && errno == EAGAIN) // the kernel dropped it for a wrong checksum
        return;
    log_trace(LOG_HERE, "received: %d", static_cast<int>(length));
    if (length >= 0 && !is_server(from)) {
        log_failed(LOG_HERE);
        return;
    }
    if (length < static_cast<ssize_t>(dns_header_size)) {
        log_failed(LOG_HERE);
        stop_waiting(res);
        return;
    }
    if (!take_reply(res, {message.data(), static_cast<size_t>(length)})) {
        log_failed(LOG_HERE);
        return;
    }
    log_trace(LOG_HERE, "result_len: %d", res->result_len);
    stop_waiting(res);
    report(res, RESOLVER_ANSWERED);
}

bool wait_for_answer(resolver *res)
{
    return start_timer(res, first_wait_ms) == 0 &&
           app_add_fd<resolver_callback>(res->sock.get(), POLLIN, res) >= 0;
}

} // namespace

int _resolver_init()
{
    server_count = 0;
    seen = {};
    if (!read_servers(open_server_list())) {
        log_trace(LOG_HERE, "cannot open resolv.conf");
        return -1;
    }
    return static_cast<int>(server_count);
}

int resolver_init(resolver *res, uint16_t qtype, uint16_t qclass)
{
    resolver_release(res);
    res->qtype = qtype;
    res->qclass = qclass;
    unique_fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock) {
        log_syserror(LOG_HERE);
        return -1;
    }
    const ipv4_endpoint any;
    if (bind(sock.get(), any.get(), any.size()) < 0 || fcntl(sock.get(), F_SETFL, O_NONBLOCK) < 0) {
        log_syserror(LOG_HERE);
        return -1;
    }
    res->sock = std::move(sock);
    return 0;
}

void resolver_set_callback(resolver *res, void *ctx, resolver_answer fn)
{
    res->ctx = ctx;
    res->callback = fn;
}

int resolver_query(resolver *res, const char *name)
{
    if (strlen(name) >= sizeof res->name) {
        log_failed(LOG_HERE);
        return -1;
    }
    stop_waiting(res);
    app_scheduler_remove<resolver_deliver>(res);
    res->attempts = 0;
    copy_text(res->name, name);
    uint8_t address[4];
    if (is_dotted_quad(res->name, address)) {
        memcpy(res->result, address, sizeof address);
        res->result[sizeof address] = '\0';
        res->result_len = sizeof address;
        if (app_scheduler_add<resolver_deliver>(res, delivery_priority) == 0)
            return 0;
        log_failed(LOG_HERE);
        return -1;
    }
    unique_fd list = open_server_list();
    if (has_changed(list.get()))
        read_servers(std::move(list));
    res->result_len = -1;
    seed_random();
    for (uint8_t &byte : res->id)
        byte = static_cast<uint8_t>(rand());
    if (resolver_build_and_send_query(res) < 0) {
        log_failed(LOG_HERE);
        return -1;
    }
    if (!wait_for_answer(res)) {
        log_failed(LOG_HERE);
        stop_waiting(res);
        return -1;
    }
    return 0;
}

int resolver_result(const resolver *res, void *buf, int cap)
{
    if (cap < res->result_len)
        return -1;
    if (res->result_len > 0)
        memcpy(buf, res->result, static_cast<size_t>(res->result_len));
    return res->result_len;
}

resolver::~resolver()
{
    app_remove_ctx(this);
}

void resolver_release(resolver *res)
{
    std::destroy_at(res);
    std::construct_at(res);
}

int parse_ipv4(const char *text, uint8_t *out)
{
    memset(out, 0, 4);
    int dots = 0;
    for (int i = 0; i < max_ipv4_walk && (is_digit(text[i]) || text[i] == '.'); ++i) {
        if (text[i] == '.') {
            if (++dots > 3)
                return 0;
            continue;
        }
        const int value = out[dots] * 10 + (text[i] - '0');
        if (value > UINT8_MAX)
            return -1;
        out[dots] = static_cast<uint8_t>(value);
    }
    return dots == 3 ? 0 : -1;
}
