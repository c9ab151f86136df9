#include "bench/loops.h"

#include <array>
#include <deque>
#include <uv.h>

namespace {

std::array<uv_poll_t, 3> polls;
std::deque<uv_timer_t> timers;

void expired(uv_timer_t *) {}

void ready(uv_poll_t *, int, int)
{
    on_ready();
}

void poll_for(uv_poll_t &poll, int fd)
{
    uv_poll_init(uv_default_loop(), &poll, fd);
    uv_poll_start(&poll, UV_READABLE, ready);
}

void prepare(int fd, const int *idle_fds, int count)
{
    poll_for(polls[0], fd);
    poll_for(polls[1], idle_fds[0]);
    poll_for(polls[2], idle_fds[1]);
    for (int i = 0; i < count; ++i) {
        uv_timer_init(uv_default_loop(), &timers.emplace_back());
        uv_timer_start(&timers.back(), expired, period_of(i), 0);
    }
}

void run()
{
    uv_run(uv_default_loop(), UV_RUN_DEFAULT);
}

void restart(int index)
{
    uv_timer_t *restarted = &timers[static_cast<size_t>(index)];
    uv_timer_stop(restarted);
    uv_timer_start(restarted, expired, period_of(index), 0);
}

} // namespace

const loop loop_of_libuv = {"libuv", prepare, run, restart};
