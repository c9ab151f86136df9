#include "syscfg/client.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr char server_path[] = "/tmp/.syscfg-server";
constexpr size_t longest_command = 32;
constexpr size_t max_query = 33; // with its "?"
constexpr size_t longest_error = SYSCFG_ERROR_SIZE - 1;
constexpr size_t command_size = 128;
constexpr size_t wait_size = 170;
constexpr size_t value_size = 162; // of an assignment, a query and an answer to one
constexpr size_t line_size = 161;

static_assert(sizeof(sockaddr_un) == 110);

// Prints one line with one write, independent of the program's streams.
void report(const char *step, const char *peer)
{
    const int error = errno;
    char line[256];
    const int length = snprintf(line, sizeof line, "syscfg: cannot %s%s: %m\n", step, peer);
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, static_cast<size_t>(length));
    errno = error;
}

int create_socket()
{
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        report("create socket", "");
    return fd;
}

void fill_address(sockaddr_un *address)
{
    memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
}

void fill_server_address(sockaddr_un *address)
{
    fill_address(address);
    memcpy(address->sun_path, server_path, sizeof server_path);
}

// The socket of one call. A call that does not wait for its answer uses a socket without a name, which gets
// none: the next call, under the same name, would take that answer for its own.
struct client_socket {
    sockaddr_un server;
    const int fd;

    explicit client_socket(bool takes_answer = true)
        : fd(takes_answer ? syscfg_client_open(&server) : create_socket())
    {
        if (!takes_answer)
            fill_server_address(&server);
    }
    client_socket(const client_socket &) = delete;
    client_socket &operator=(const client_socket &) = delete;
    ~client_socket()
    {
        const int error = errno;
        if (fd >= 0)
            close(fd);
        errno = error;
    }

    [[nodiscard]] int send(const void *request, size_t length, int flags = 0) const
    {
        const auto *to = reinterpret_cast<const sockaddr *>(&server);
        // A connected socket hears one server, so its request goes to that one, or fails.
        ssize_t sent = sendto(fd, request, length, flags, nullptr, 0);
        if (sent < 0 && errno == ENOTCONN)
            sent = sendto(fd, request, length, flags, to, sizeof server);
        return static_cast<int>(sent);
    }
    [[nodiscard]] int receive(void *reply, size_t size) const
    {
        errno = 0; // an empty answer is not a system error
        return static_cast<int>(recv(fd, reply, size, 0));
    }
    int send_or_report(const void *request, size_t length, int flags = 0) const
    {
        const int sent = send(request, length, flags);
        if (sent < 0)
            report("send to ", server_path);
        return sent;
    }
    int receive_or_report(void *reply, size_t size) const
    {
        const int received = receive(reply, size);
        if (received < 1)
            report("recv from ", server_path);
        return received;
    }
};

bool begins_with(const char *answer, int length, const char *word)
{
    const size_t word_length = strlen(word);
    return length >= 0 && static_cast<size_t>(length) >= word_length &&
           memcmp(answer, word, word_length) == 0;
}

int ok_or_failure(const char *answer, int length)
{
    return begins_with(answer, length, "!OK") ? 0 : -1;
}

// The length of the request, or -1 if it does not fit: a value that is cut is another value.
int format_assignment(char *out, size_t size, const char *verb, const char *name, const char *value)
{
    const int length = snprintf(out, size, "%s%s=%s", verb, name, value);
    if (length >= 0 && static_cast<size_t>(length) < size)
        return length;
    errno = EMSGSIZE;
    return -1;
}

// Sends an assignment and takes the answer into the same memory.
template <size_t size>
int request_assignment(const char *verb, const char *name, const char *value)
{
    char text[size];
    const int length = format_assignment(text, size, verb, name, value);
    if (length < 0)
        return -1;
    return ok_or_failure(text, syscfg_request(text, static_cast<size_t>(length), text, size));
}

// The text after the ">" of an answer; null for any other answer.
const char *query(const char *name, char (&text)[value_size + 1])
{
    memset(text, 0, sizeof text);
    snprintf(text, max_query + 1, "?%s", name);
    const int received = syscfg_request(text, strlen(text), text, value_size);
    if (!begins_with(text, received, ">"))
        return nullptr;
    text[received] = '\0';
    return text + 1;
}

// Splits a line of the list, ">NAME=VALUE" or ">NAME="VALUE"" and anything. False when it has no "=".
bool split_line(char *line, const char *&name, const char *&value)
{
    char *equals = strchr(line, '=');
    if (!equals)
        return false;
    *equals = '\0';
    name = line + 1;
    value = equals + 1;
    if (*value == '"') {
        ++value;
        if (char *quote = strchr(equals + 2, '"'))
            *quote = '\0';
    }
    return true;
}

} // namespace

int syscfg_client_open(sockaddr_un *address)
{
    const int fd = create_socket();
    if (fd < 0)
        return -1;
    // Any user can send to a name that is easy to guess. A socket that is connected before it gets its name
    // hears the server only. Without a server, sending fails later.
    fill_server_address(address);
    static_cast<void>(connect(fd, reinterpret_cast<const sockaddr *>(address), sizeof *address));
    fill_address(address);
    snprintf(address->sun_path + 1, sizeof address->sun_path - 1, ".syscfg-client-%d",
             static_cast<int>(getpid()));
    if (bind(fd, reinterpret_cast<const sockaddr *>(address), sizeof *address) < 0) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    fill_server_address(address);
    return fd;
}

int syscfg_request(const void *request, size_t length, void *reply, size_t reply_size)
{
    const client_socket client;
    if (client.fd < 0)
        return -1;
    const int sent = client.send_or_report(request, length);
    return sent < 0 ? sent : client.receive_or_report(reply, reply_size);
}

int syscfg_command(const char *command, char *error_text)
{
    if (error_text)
        *error_text = '\0';
    const size_t length = strnlen(command, longest_command + 1);
    if (length > longest_command) {
        errno = EMSGSIZE;
        return -1;
    }
    char text[command_size];
    text[0] = '%';
    memcpy(text + 1, command, length);
    const int received = syscfg_request(text, 1 + length, text, sizeof text);
    if (ok_or_failure(text, received) == 0)
        return 0;
    constexpr int reason_at = sizeof "!ERR " - 1;
    if (error_text && begins_with(text, received, "!ERR") && received > reason_at) {
        const size_t given = static_cast<size_t>(received - reason_at);
        const size_t taken = given < longest_error ? given : longest_error;
        memcpy(error_text, text + reason_at, taken);
        error_text[taken] = '\0';
    }
    return -1;
}

int syscfg_reload()
{
    return syscfg_command("reload", nullptr);
}

int syscfg_reset()
{
    return syscfg_command("reset", nullptr);
}

int syscfg_save()
{
    return syscfg_command("save", nullptr);
}

int syscfg_apply()
{
    return syscfg_command("apply", nullptr);
}

int syscfg_list(int (*callback)(void *context, const char *name, const char *value), void *context)
{
    const client_socket client;
    if (client.fd < 0 || client.send("%list", 5) < 0)
        return -1;
    bool wanted = true;
    for (;;) {
        char line[line_size + 1];
        const int received = client.receive(line, line_size);
        if (received < 0)
            return -1;
        line[received] = '\0';
        if (received == 3 && memcmp(line, "!OK", 3) == 0)
            return 0;
        if (line[0] != '>' || !wanted)
            continue;
        const char *name;
        const char *value;
        if (!split_line(line, name, value))
            return -1;
        wanted = callback(context, name, value) == 0;
    }
}

int syscfg_wait(const char *name, const char *value)
{
    return request_assignment<wait_size>("%wait ", name, value);
}

int syscfg_set_flags(const char *name, const char *value, int flags)
{
    const bool takes_answer = !(flags & SYSCFG_NOREPLY);
    const client_socket client(takes_answer);
    if (client.fd < 0)
        return -1;
    char text[value_size];
    const int length = format_assignment(text, sizeof text, "", name, value);
    // The server's own thread must not wait for the server to read.
    const int how = takes_answer ? 0 : MSG_DONTWAIT;
    if (length < 0 || client.send_or_report(text, static_cast<size_t>(length), how) < 0)
        return -1;
    if (!takes_answer)
        return 0;
    return ok_or_failure(text, client.receive_or_report(text, sizeof text));
}

int syscfg_set(const char *name, const char *value)
{
    return request_assignment<value_size>("", name, value);
}

const char *syscfg_get(const char *name)
{
    static char text[value_size + 1];
    return query(name, text);
}

int syscfg_get_r(const char *name, char *buffer, size_t size)
{
    char text[value_size + 1];
    const char *value = query(name, text);
    if (!value)
        return -1;
    const size_t taken = strlen(value) + 1;
    memcpy(buffer, value, taken < size ? taken : size);
    return 0;
}
