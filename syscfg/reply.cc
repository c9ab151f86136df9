#include "syscfg/reply.h"

#include "app/clock.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>

namespace {

constexpr int64_t patience_us = 200000;
constexpr int64_t recovery = 8;

int64_t patience_left_us = patience_us;
int64_t last_wait_us;

ssize_t send_to(int server_fd, const requester &to, std::string_view text, int flags)
{
    return sendto(server_fd, text.data(), text.size(), flags, reinterpret_cast<const sockaddr *>(&to.addr),
                  to.len);
}

} // namespace

bool same_requester(const requester &a, const requester &b)
{
    return a.len == b.len && memcmp(&a.addr, &b.addr, a.len) == 0;
}

bool try_reply(int server_fd, const requester &to, std::string_view text)
{
    return send_to(server_fd, to, text, MSG_DONTWAIT) >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
}

// The socket of the requester is not ours to poll, so the wait is a send with a time-out.
void reply(int server_fd, const requester &to, std::string_view text)
{
    if (try_reply(server_fd, to, text))
        return;
    int64_t now = monotonic_us();
    patience_left_us = std::min(patience_us, patience_left_us + (now - last_wait_us) / recovery);
    bool done = false;
    while (!done && patience_left_us > 0) {
        const timeval timeout = {0, static_cast<suseconds_t>(patience_left_us)};
        setsockopt(server_fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
        done = send_to(server_fd, to, text, 0) >= 0 || errno != EINTR;
        const int64_t before = now;
        now = monotonic_us();
        patience_left_us -= std::max<int64_t>(now - before, 1);
    }
    last_wait_us = now;
}
