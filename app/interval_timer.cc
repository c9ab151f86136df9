#include "app/keep_errno.h"
#include "app/timer.h"

#include <csignal>
#include <sys/time.h>

namespace {

void *volatile alarm_ctx;
volatile timer_callback alarm_callback;

void on_interval(int)
{
    const keep_errno unchanged;
    const timer_callback callback = alarm_callback;
    if (callback)
        callback(alarm_ctx);
    signal(SIGALRM, on_interval);
}

timeval from_milliseconds(uint32_t ms)
{
    return {static_cast<time_t>(ms / 1000), static_cast<suseconds_t>(ms % 1000 * 1000)};
}

} // namespace

int itimer_start(uint32_t value_ms, uint32_t interval_ms)
{
    signal(SIGALRM, on_interval);
    const itimerval value = {from_milliseconds(interval_ms), from_milliseconds(value_ms)};
    return setitimer(ITIMER_REAL, &value, nullptr);
}

int itimer_stop()
{
    const itimerval none = {};
    return setitimer(ITIMER_REAL, &none, nullptr);
}

int itimer_set_callback(void *ctx, timer_callback fn)
{
    // Otherwise a tick between the two stores would call the old function with the new context.
    alarm_callback = nullptr;
    alarm_ctx = ctx;
    alarm_callback = fn;
    signal(SIGALRM, on_interval);
    return 0;
}
