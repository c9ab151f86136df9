#include "syscfg/reply.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <sys/socket.h>
#include <sys/time.h>

namespace {

constexpr int64_t patience_us = 200000;

int64_t patience_left_us;

int64_t monotonic_us()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

ssize_t send_to(int server_fd, const requester &to, std::string_view text, int flags)
{
    return sendto(server_fd, text.data(), text.size(), flags, reinterpret_cast<const sockaddr *>(&to.addr),
                  to.len);
}

} // namespace

bool try_reply(int server_fd, const requester &to, std::string_view text)
{
    return send_to(server_fd, to, text, MSG_DONTWAIT) >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
}

// The socket of the requester is not ours to poll, so the wait is a send with a time-out.
void reply(int server_fd, const requester &to, std::string_view text)
{
    bool sent = try_reply(server_fd, to, text);
    while (!sent && patience_left_us > 0) {
        const timeval timeout = {0, static_cast<suseconds_t>(patience_left_us)};
        setsockopt(server_fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
        const int64_t begin = monotonic_us();
        sent = send_to(server_fd, to, text, 0) >= 0 || errno != EINTR;
        patience_left_us -= std::max<int64_t>(monotonic_us() - begin, 1);
    }
}

void reply_begin()
{
    patience_left_us = patience_us;
}
