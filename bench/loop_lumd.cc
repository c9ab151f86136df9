#include "app/app.h"
#include "bench/loops.h"

#include <cstddef>
#include <vector>

namespace {

std::vector<timer *> timers;

void expired(void *) {}

void ready(void *, int, int, app_fd_handler *)
{
    on_ready();
}

void prepare(int fd, const int *idle_fds, int count)
{
    static_cast<void>(app_add_fd(fd, POLLIN, &timers, ready));
    for (int i = 0; i < 2; ++i)
        static_cast<void>(app_add_fd(idle_fds[i], POLLIN, &timers, ready));
    for (int i = 0; i < count; ++i) {
        timers.push_back(timer_new(period_of(i), nullptr, expired, "expired"));
        static_cast<void>(timer_start(timers.back(), 1));
    }
}

void run()
{
    app_run();
}

void restart(int index)
{
    timer *restarted = timers[static_cast<std::size_t>(index)];
    timer_stop(restarted);
    static_cast<void>(timer_start(restarted, 1));
}

} // namespace

const loop loop_of_lumd = {"lumd", prepare, run, restart};
