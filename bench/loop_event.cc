#include "bench/loops.h"

#include <event2/event.h>
#include <vector>

namespace {

event_base *base;
std::vector<event *> timers;

void expired(evutil_socket_t, short, void *) {}

void ready(evutil_socket_t, short, void *)
{
    on_ready();
}

void start(int index)
{
    const timeval period = {period_of(index) / 1000,
                            static_cast<suseconds_t>(period_of(index) % 1000 * 1000)};
    event_add(timers[static_cast<size_t>(index)], &period);
}

void prepare(int fd, const int *idle_fds, int count)
{
    base = event_base_new();
    for (const int watched : {fd, idle_fds[0], idle_fds[1]})
        event_add(event_new(base, watched, EV_READ | EV_PERSIST, ready, nullptr), nullptr);
    for (int i = 0; i < count; ++i) {
        timers.push_back(event_new(base, -1, 0, expired, nullptr));
        start(i);
    }
}

void run()
{
    event_base_dispatch(base);
}

void restart(int index)
{
    event_del(timers[static_cast<size_t>(index)]);
    start(index);
}

} // namespace

const loop loop_of_libevent = {"libevent", prepare, run, restart};
