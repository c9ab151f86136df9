#include "app/bugreport.h"

#include "app/log.h"
#include "app/memory.h"
#include "net/net.h"
#include "net/sockaddr.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int smtp_port = 25;
constexpr int connect_error = 76;
constexpr size_t history_max = 4096;
constexpr std::string_view body_end = "\n\n.\r\n";

struct {
    std::atomic<uint64_t> count; // of all bytes ever added
    char ring[history_max];
} bugreport_history = {};
static_assert(decltype(bugreport_history.count)::is_always_lock_free, "used in signal handlers");

// Holds a reply, or the report being sent.
char line_buffer[8192];
constexpr size_t reply_max = sizeof line_buffer - 1;

struct step {
    const char *sent;     // null: the report itself
    const char *expected; // start of the reply
    int tag;
    int write_error, read_error, reply_error;
};
constexpr step dialogue[] = {
    {"", "220", 80, 0, 81, 87},
    {"HELO " LUMD_BUGREPORT_DOMAIN "\r\n", "250", 97, 93, 98, 104},
    {"MAIL FROM:<" LUMD_BUGREPORT_MAILBOX ">\r\n", "250", 114, 110, 115, 121},
    {"RCPT TO:<" LUMD_BUGREPORT_MAILBOX ">\r\n", "250", 131, 127, 132, 138},
    {"DATA\r\n", "354", 148, 144, 149, 155},
    {nullptr, "250", 193, 189, 194, 200},
};
constexpr int quit_tag = 205;

int connect_to_server()
{
    ipv4_endpoint server;
    constexpr socklen_t len = ipv4_endpoint::size();
    // The built-in address was checked at build time.
    if (get_host_addr(LUMD_BUGREPORT_DOMAIN, server.get(), len) < 0)
        static_cast<void>(sockaddr_parse(LUMD_BUGREPORT_SERVER, server.get(), &len));
    server.in.sin_port = htons(smtp_port);
    return tcp_connect(-1, server.get(), len);
}

// The report in the line buffer, cut to leave room for its end mark.
std::string_view assemble_body()
{
    size_t used = 0;
    const auto add = [&used](std::string_view part) {
        used += part.copy(line_buffer + used, sizeof line_buffer - body_end.size() - used);
    };
    const uint64_t count = bugreport_history.count;
    const std::string_view ring(bugreport_history.ring, history_max);
    if (count > history_max) {
        add(ring.substr(count % history_max));
        add(ring.substr(0, count % history_max));
    } else {
        add(ring.substr(0, static_cast<size_t>(count)));
    }
    add("\n\n");
    for (char **variable = environ; variable && *variable; ++variable) {
        add(*variable);
        add("\n");
    }
    used += body_end.copy(line_buffer + used, body_end.size());
    return {line_buffer, used};
}

// A server that has gone fails this call instead of raising SIGPIPE.
bool send_text(int fd, std::string_view text)
{
    return send(fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

int connection_failed(unique_fd &connection, int number)
{
    connection.reset();
    print_error("bugreport: E%.3d: connection error\n", number);
    return -1;
}

int run_step(unique_fd &connection, const step &step)
{
    std::string_view text;
    if (step.sent) {
        text = step.sent;
    } else {
        text = assemble_body();
        fwrite(text.data(), 1, text.size(), stderr);
    }
    if (!text.empty() && !send_text(connection.get(), text))
        return connection_failed(connection, step.write_error);
    const ssize_t length = tcp_gets(connection.get(), line_buffer, reply_max, step.tag);
    if (length < 0)
        return connection_failed(connection, step.read_error);
    line_buffer[length] = '\0';
    if (strncmp(line_buffer, step.expected, strlen(step.expected)) == 0)
        return 0;
    connection.reset();
    print_error("bugreport: E%.3d: server error: %s\n", step.reply_error, line_buffer);
    return -1;
}

} // namespace

// Bytes are claimed before they are copied, so a signal handler in between takes the following ones.
void bugreport_append(const void *text, size_t length)
{
    uint64_t at = bugreport_history.count.fetch_add(length);
    std::string_view rest(static_cast<const char *>(text), length);
    if (length > history_max) {
        at += length - history_max;
        rest.remove_prefix(length - history_max);
    }
    const auto start = static_cast<size_t>(at % history_max);
    const size_t to_end = rest.copy(bugreport_history.ring + start, history_max - start);
    rest.copy(bugreport_history.ring, history_max, to_end);
}

void bugreport_enable()
{
    log_set_copy(bugreport_append);
}

int bugreport_send()
{
    unique_fd connection(connect_to_server());
    if (!connection) {
        print_error("bugreport: E%.3d cannot connect to server!\n", connect_error);
        return -1;
    }
    for (const step &step : dialogue) {
        if (run_step(connection, step) < 0)
            return -1;
    }
    send_text(connection.get(), "QUIT\r\n");
    tcp_gets(connection.get(), line_buffer, reply_max, quit_tag);
    return 0;
}

ssize_t tcp_gets(int fd, char *buffer, size_t max, int tag)
{
    print_error("tcp_gets(): %d\n", tag);
    for (size_t length = 0; length < max; ++length) {
        if (read(fd, buffer + length, 1) != 1)
            return -1;
        if (buffer[length] == '\n') {
            buffer[length] = '\0';
            print_error("tcp_gets(): %s\n", buffer);
            return static_cast<ssize_t>(length);
        }
    }
    return static_cast<ssize_t>(max);
}
