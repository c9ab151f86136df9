#include "syscfg/reply.h"

#include "app/clock.h"
#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <utility>

namespace {

constexpr char log_module[] = "syscfg";
constexpr int send_buffer = 4 * 1024 * 1024;
constexpr int64_t patience_us = 200000;
constexpr int64_t recovery = 8;
constexpr uid_t unknown_user = static_cast<uid_t>(-1);

// The socket before the last renewal. Clients that are connected to it take answers from nothing else, so
// their waits and lists go on through it.
int retired_fd = -1;

int64_t patience_left_us = patience_us;
int64_t last_wait_us;
bool names_users;      // the kernel names the sender of each request
int64_t full_since_us; // when our buffer filled up; 0 once it is half empty

const char *kind_of(mode_t mode)
{
    return S_ISDIR(mode) ? "a directory" : S_ISFIFO(mode) ? "a FIFO" : S_ISSOCK(mode) ? "a socket" : "a file";
}

// Frees the name for the socket. Another user's file there may be beyond our rights.
void remove_path()
{
    if (unlink(server_path) == 0 || errno == ENOENT)
        return;
    const int error = errno;
    const unique_fd there(open(server_path, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat found;
    if (there && fstat(there.get(), &found) == 0)
        log_trace(LOG_AS("open_server_socket"), "cannot remove %s, %s of user %u: %s", server_path,
                  kind_of(found.st_mode), static_cast<unsigned>(found.st_uid), strerror(error));
}

void set_buffer(int fd, int size)
{
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) < 0)
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

ssize_t send_to(int server_fd, const requester &to, std::string_view text, int flags)
{
    const auto *addr = reinterpret_cast<const sockaddr *>(&to.addr);
    const ssize_t sent = sendto(server_fd, text.data(), text.size(), flags, addr, to.len);
    if (sent >= 0 || errno != EPERM || retired_fd < 0)
        return sent;
    return sendto(retired_fd, text.data(), text.size(), flags, addr, to.len);
}

bool is_full_error(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK;
}

// True if unread answers take that part of our buffer: 1 all, 2 half.
bool has_taken(int server_fd, int divisor)
{
    int unread = 0;
    int size = 0;
    socklen_t length = sizeof size;
    return ioctl(server_fd, SIOCOUTQ, &unread) == 0 &&
           getsockopt(server_fd, SOL_SOCKET, SO_SNDBUF, &size, &length) == 0 && unread >= size / divisor;
}

// Waits for room until patience runs out. False if it did.
bool send_patiently(int server_fd, const requester &to, std::string_view text)
{
    int64_t now = monotonic_us();
    patience_left_us = std::min(patience_us, patience_left_us + (now - last_wait_us) / recovery);
    bool sent = false;
    // We cannot poll the client's socket, so the wait is a send with a timeout.
    while (!sent && patience_left_us > 0) {
        const timeval timeout = {0, static_cast<suseconds_t>(patience_left_us)};
        for (const int fd : {server_fd, retired_fd})
            setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
        sent = send_to(server_fd, to, text, 0) >= 0 || (!is_full_error(errno) && errno != EINTR);
        const int64_t before = now;
        now = monotonic_us();
        patience_left_us -= std::max<int64_t>(now - before, 1);
    }
    last_wait_us = now;
    return sent;
}

// True if our buffer has been full for as long as an answer waits. A client that reads one answer of every
// two keeps it full for all others.
bool stays_full()
{
    return full_since_us != 0 && monotonic_us() - full_since_us >= patience_us;
}

} // namespace

bool same_requester(const requester &a, const requester &b)
{
    return a.len == b.len && memcmp(&a.addr, &b.addr, a.len) == 0;
}

int open_server_socket()
{
    unique_fd sock(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    if (!sock)
        return -1;
    names_users = setsockopt(sock.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) == 0;
    // A few clients that do not read would use up the default.
    set_buffer(sock.get(), send_buffer);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    copy_text(addr.sun_path, server_path);
    remove_path();
    if (bind(sock.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr) < 0)
        return -1;
    return sock.release();
}

// The descriptor stays the same, so the loop and lists in progress need no change.
bool renew_server_socket(int server_fd)
{
    full_since_us = 0;
    const unique_fd fresh(open_server_socket());
    unique_fd retired(fcntl(server_fd, F_DUPFD_CLOEXEC, 0));
    if (!fresh || dup3(fresh.get(), server_fd, O_CLOEXEC) < 0) {
        log_syserror(LOG_HERE);
        return false;
    }
    // Its clients learn with their next request that they have to connect again. What they still wait for
    // needs room beside the unread answers.
    shutdown(retired.get(), SHUT_RD);
    set_buffer(retired.get(), 2 * send_buffer);
    retired = unique_fd(std::exchange(retired_fd, retired.release()));
    log_trace(LOG_HERE, "unread answers fill the socket, another one takes its place");
    return true;
}

// The credentials come first and fill the room, so descriptors sent by a stranger are dropped.
ssize_t receive_request(int server_fd, std::span<char> request, requester &from)
{
    iovec text = {request.data(), request.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
    msghdr message = {};
    message.msg_name = &from.addr;
    message.msg_namelen = sizeof from.addr;
    message.msg_iov = &text;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = names_users ? sizeof control : 0;
    const ssize_t length = recvmsg(server_fd, &message, MSG_DONTWAIT);
    if (length < 0)
        return -1;
    from.addr.sun_family = AF_UNIX;
    // The kernel counts a terminator behind a path that fills the address.
    from.len = std::min<socklen_t>(message.msg_namelen, sizeof from.addr);
    from.uid = unknown_user;
    const cmsghdr *sender = CMSG_FIRSTHDR(&message);
    if (sender && sender->cmsg_level == SOL_SOCKET && sender->cmsg_type == SCM_CREDENTIALS) {
        ucred credentials;
        memcpy(&credentials, CMSG_DATA(sender), sizeof credentials);
        from.uid = credentials.uid;
    }
    return length;
}

bool is_crowded(int server_fd)
{
    return has_taken(server_fd, 2);
}

bool try_reply(int server_fd, const requester &to, std::string_view text)
{
    const bool done = send_to(server_fd, to, text, MSG_DONTWAIT) >= 0 || !is_full_error(errno);
    if (full_since_us != 0 && !is_crowded(server_fd))
        full_since_us = 0;
    else if (full_since_us == 0 && !done && has_taken(server_fd, 1))
        full_since_us = monotonic_us();
    return done;
}

void reply(int server_fd, const requester &to, std::string_view text)
{
    if (try_reply(server_fd, to, text) || send_patiently(server_fd, to, text))
        return;
    if (stays_full() && renew_server_socket(server_fd))
        try_reply(server_fd, to, text);
}
