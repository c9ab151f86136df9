// ask REQUEST [SECONDS]: sends one request to the configuration server and waits for its answer, for people
// at the device's shell and for its scripts. Values go to standard output, "!OK" and "!ERR..." to standard
// error. Exit status: 0 done, 1 refused by the server, 2 usage, 5 no answer in time, 6 no daemon.
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <optional>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using clock_type = std::chrono::steady_clock;

enum exit_code { code_done = 0, code_refused = 1, code_usage = 2, code_late = 5, code_no_daemon = 6 };

constexpr std::string_view server_path = "/tmp/.syscfg-server";
constexpr int default_seconds = 5;
constexpr int longest_seconds = 86400;
constexpr size_t longest_request = 1024;
constexpr size_t longest_reply = 8192;

int fail(exit_code code, const char *what)
{
    std::fprintf(stderr, "ask: %s\n", what);
    return code;
}

std::optional<int> read_seconds(std::string_view text)
{
    int seconds = 0;
    const auto [end, error] = std::from_chars(text.begin(), text.end(), seconds);
    if (error != std::errc() || end != text.end() || seconds < 1 || seconds > longest_seconds)
        return std::nullopt;
    return seconds;
}

// The server answers to the sender's name, so the socket needs one; the abstract kind leaves no file behind.
bool bind_own_name(int fd)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const int length = std::snprintf(address.sun_path + 1, sizeof address.sun_path - 1, ".ask-%d",
                                     static_cast<int>(getpid()));
    const auto size =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + static_cast<size_t>(length));
    return bind(fd, reinterpret_cast<const sockaddr *>(&address), size) == 0;
}

bool connect_server(int fd)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    server_path.copy(address.sun_path, sizeof address.sun_path - 1);
    return connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

// A full queue of the server holds the sender no longer than the answer may take.
bool send_request(int fd, std::string_view request, int seconds)
{
    const timeval limit = {seconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    return send(fd, request.data(), request.size(), 0) == static_cast<ssize_t>(request.size());
}

void print_value(std::string_view text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
    if (!text.ends_with('\n'))
        std::fputc('\n', stdout);
}

// The exit code when this reply is the last one.
std::optional<exit_code> take_reply(std::string_view reply, bool is_query)
{
    if (reply.starts_with('>')) {
        print_value(reply.substr(1));
        if (is_query)
            return code_done;
        return std::nullopt;
    }
    std::fprintf(stderr, "%.*s\n", static_cast<int>(reply.size()), reply.data());
    return reply == "!OK" ? code_done : code_refused;
}

int receive_replies(int fd, bool is_query, clock_type::time_point deadline)
{
    char buffer[longest_reply];
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock_type::now()).count();
        pollfd wait = {fd, POLLIN, 0};
        if (left <= 0 || poll(&wait, 1, static_cast<int>(left)) == 0)
            return fail(code_late, "no answer in time");
        const ssize_t length = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (length < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (length <= 0)
            return fail(code_no_daemon, "the daemon has gone");
        if (const auto code = take_reply({buffer, static_cast<size_t>(length)}, is_query))
            return *code;
    }
}

int ask(std::string_view request, int seconds)
{
    const auto deadline = clock_type::now() + std::chrono::seconds(seconds);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || !bind_own_name(fd))
        return fail(code_no_daemon, std::strerror(errno));
    if (!connect_server(fd))
        return fail(code_no_daemon, "no daemon answers at /tmp/.syscfg-server");
    if (!send_request(fd, request, seconds)) {
        const bool is_full = errno == EAGAIN;
        return fail(is_full ? code_late : code_no_daemon, std::strerror(errno));
    }
    return receive_replies(fd, request.starts_with('?'), deadline);
}

} // namespace

int main(int argc, char **argv)
{
    const auto seconds = argc == 3 ? read_seconds(argv[2]) : std::optional(default_seconds);
    if (argc < 2 || argc > 3 || !seconds)
        return fail(code_usage, "usage: ask REQUEST [SECONDS], such as: ask '?HOSTNAME' or ask '%list' 10");
    const std::string_view request = argv[1];
    if (request.empty() || request.size() > longest_request)
        return fail(code_usage, "a request is 1 to 1024 bytes long");
    return ask(request, *seconds);
}
