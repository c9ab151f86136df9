#include "bench/loops.h"

#include <array>
#include <deque>
// libev's callbacks take the loop, which ours ignore, and its macros cast freely.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wstrict-aliasing"
#include <ev.h>

namespace {

std::array<ev_io, 3> watchers;
std::deque<ev_timer> timers;

void expired(struct ev_loop *, ev_timer *, int) {}

void ready(struct ev_loop *, ev_io *, int)
{
    on_ready();
}

void watch(ev_io &watcher, int fd)
{
    ev_io_init(&watcher, ready, fd, EV_READ);
    ev_io_start(EV_DEFAULT, &watcher);
}

void prepare(int fd, const int *idle_fds, int count)
{
    watch(watchers[0], fd);
    watch(watchers[1], idle_fds[0]);
    watch(watchers[2], idle_fds[1]);
    for (int i = 0; i < count; ++i) {
        ev_timer *started = &timers.emplace_back();
        ev_timer_init(started, expired, period_of(i) / 1e3, 0);
        ev_timer_start(EV_DEFAULT, started);
    }
}

void run()
{
    ev_run(EV_DEFAULT, 0);
}

void restart(int index)
{
    ev_timer *restarted = &timers[static_cast<size_t>(index)];
    ev_timer_stop(EV_DEFAULT, restarted);
    ev_timer_set(restarted, period_of(index) / 1e3, 0);
    ev_timer_start(EV_DEFAULT, restarted);
}

} // namespace

const loop loop_of_libev = {"libev", prepare, run, restart};
#pragma GCC diagnostic pop
