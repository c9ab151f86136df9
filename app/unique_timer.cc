#include "app/timer.h"

#include <utility>

void unique_timer::reset()
{
    timer_free(std::exchange(timer_, nullptr));
}

int unique_timer::set(uint32_t period_ms, void *ctx, timer_callback callback, const char *name)
{
    if (!timer_)
        timer_ = timer_new(period_ms, ctx, callback, name);
    if (!timer_)
        return -1;
    timer_->period_ms = period_ms;
    return 0;
}

int unique_timer::start(uint32_t period_ms, void *ctx, timer_callback callback, const char *name, int count)
{
    return set(period_ms, ctx, callback, name) < 0 ? -1 : start(count);
}
