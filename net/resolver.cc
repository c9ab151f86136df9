#include "net/resolver.h"

#include "app/app.h"
#include "app/file.h"
#include "app/log.h"
#include "app/text.h"
#include "net/net.h"
#include "net/sockaddr.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr char log_module[] = "resolver";
constexpr size_t servers_max = 16;
constexpr size_t line_max = 1024;
constexpr uint16_t dns_port = 53;
constexpr uint32_t first_wait_ms = 1000;
constexpr int last_pass = 4;
constexpr int delivery_priority = 128;
constexpr int ipv4_walk_max = 16;
constexpr std::string_view nameserver = "nameserver";

std::array<sockaddr_in, servers_max> servers;
size_t server_count;

// The file that the list was read from, as it was then. Some file systems keep whole seconds only.
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

void add_server(std::string_view line)
{
    if (!line.starts_with(nameserver) || server_count == servers_max)
        return;
    sockaddr_in server = {};
    server.sin_family = AF_INET;
    server.sin_port = htons(dns_port);
    const std::string_view address = skip_space(line.substr(nameserver.size()));
    if (parse_ipv4(address.data(), reinterpret_cast<uint8_t *>(&server.sin_addr)) < 0)
        return;
    if (server.sin_addr.s_addr == INADDR_ANY) // this machine; it answers from its loopback address
        server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    servers[server_count++] = server;
}

// False, with the list as it was, if the file cannot be read.
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
    char line[line_max + 1];
    while (fgets(line, sizeof line, file.get()))
        add_server(skip_space(line));
    return true;
}

bool is_asked(const sockaddr_in &from)
{
    for (size_t i = 0; i < server_count; ++i) {
        if (sockaddr_cmp(generic(servers[i]), generic(from)) == 0)
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

void resolver_callback(void *ctx, int events, int fd, app_fd_handler *handler);

void stop_waiting(resolver *res)
{
    app_remove_fd(res->sock, res, resolver_callback);
    if (res->timer)
        timer_stop(res->timer);
}

void report(resolver *res, int status)
{
    if (res->callback)
        res->callback(res->ctx, res, status);
}

void resolver_deliver(void *ctx)
{
    report(static_cast<resolver *>(ctx), RESOLVER_ANSWERED);
}

// -1 if no server of the list could be sent to.
int resolver_send_requests(const resolver *res, std::span<const uint8_t> packet)
{
    size_t sent = 0;
    for (size_t i = 0; i < server_count; ++i) {
        if (sendto(res->sock, packet.data(), packet.size(), 0, generic(servers[i]), sizeof servers[i]) < 0)
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

void resolver_timeout_callback(void *ctx)
{
    auto *res = static_cast<resolver *>(ctx);
    if (res->attempts > last_pass) {
        report(res, RESOLVER_NO_ANSWER);
        return;
    }
    resolver_build_and_send_query(res);
    res->timer->period_ms = static_cast<uint32_t>(res->attempts) * 1000;
    static_cast<void>(timer_start(res->timer, 1));
}

// True when the reply answers the question; the result is stored then.
bool take_reply(resolver *res, std::span<const uint8_t> reply)
{
    dns_answer answer;
    if (!dns_find_answer(reply, res->id, res->qtype, res->qclass, answer) ||
        answer.length >= resolver_result_size) {
        log_failed(LOG_AS("resolver_callback"));
        return false;
    }
    const size_t length = dns_decode(reply, answer, res->qtype, res->result);
    res->result[length] = '\0';
    res->result_len = static_cast<int>(length);
    log_trace(LOG_AS("resolver_callback"), "result_len: %d", res->result_len);
    return true;
}

void resolver_callback(void *ctx, int, int fd, app_fd_handler *)
{
    auto *res = static_cast<resolver *>(ctx);
    std::array<uint8_t, dns_message_max> message;
    sockaddr_in from = {};
    socklen_t from_length = sizeof from;
    const ssize_t length = recvfrom(fd, message.data(), message.size(), MSG_DONTWAIT,
                                    reinterpret_cast<sockaddr *>(&from), &from_length);
    if (length < 0 && errno == EAGAIN) // its checksum was wrong
        return;
    log_trace(LOG_HERE, "received: %d", static_cast<int>(length));
    if (length >= 0 && !is_asked(from)) {
        log_failed(LOG_HERE);
        return;
    }
    if (length < static_cast<ssize_t>(dns_header_size)) {
        log_failed(LOG_HERE);
        stop_waiting(res);
        return;
    }
    if (!take_reply(res, {message.data(), static_cast<size_t>(length)}))
        return;
    stop_waiting(res);
    report(res, RESOLVER_ANSWERED);
}

bool wait_for_answer(resolver *res)
{
    if (!res->timer)
        res->timer = timer_new(first_wait_ms, res, resolver_timeout_callback, "resolver_timeout_callback");
    if (!res->timer)
        return false;
    res->timer->period_ms = first_wait_ms;
    static_cast<void>(timer_start(res->timer, 1));
    return app_add_fd(res->sock, POLLIN, res, resolver_callback) >= 0;
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
    *res = {};
    res->qtype = qtype;
    res->qclass = qclass;
    res->sock = -1;
    unique_fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock) {
        log_syserror(LOG_HERE);
        return -1;
    }
    sockaddr_in any = {};
    any.sin_family = AF_INET;
    if (bind(sock.get(), generic(any), sizeof any) < 0 || fcntl(sock.get(), F_SETFL, O_NONBLOCK) < 0) {
        log_syserror(LOG_HERE);
        return -1;
    }
    res->sock = sock.release();
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
    app_scheduler_remove(res, resolver_deliver);
    res->attempts = 0;
    copy_text(res->name, name);
    uint8_t address[4];
    if (is_dotted_quad(res->name, address)) {
        memcpy(res->result, address, sizeof address);
        res->result[sizeof address] = '\0';
        res->result_len = sizeof address;
        if (app_scheduler_add(res, resolver_deliver, delivery_priority) == 0)
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

void resolver_release(resolver *res)
{
    app_remove_ctx(res);
    timer_free(res->timer);
    const unique_fd closed(res->sock);
    *res = {};
    res->sock = -1;
}

int parse_ipv4(const char *text, uint8_t *out)
{
    memset(out, 0, 4);
    int dots = 0;
    for (int i = 0; i < ipv4_walk_max && (is_digit(text[i]) || text[i] == '.'); ++i) {
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
