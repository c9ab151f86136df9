#include "app/timer.h"

#include "app/memory.h"

#include <algorithm>
#include <climits>
#include <sys/time.h>

namespace {

// 64-bit seconds even where time_t has 32: the device must outlive 2038.
struct instant {
    int64_t sec;
    int32_t usec;

    auto operator<=>(const instant &) const = default;
};

// The list links are part of the timer, so restarting one takes no memory and no search.
struct timer_entry : timer {
    instant expires;
    int32_t runs_left; // 0: until stopped
    timer_entry *next;
    timer_entry **link; // the pointer that leads here; null if not scheduled
};

struct later_call {
    void *ctx;
    timer_callback fn;
    struct timer *timer;
};

constexpr int32_t usec_per_sec = 1000000;

timer_entry *head;

// How often the clock was seen stepping back. Such a step ends the pass: measured by the time at its start, a
// periodic timer would stay due for as long as the clock was set back.
unsigned steps_back;

instant wall_clock()
{
    static instant last;
    timeval read;
    gettimeofday(&read, nullptr);
    const instant now = {read.tv_sec, static_cast<int32_t>(read.tv_usec)};
    if (now < last)
        ++steps_back;
    last = now;
    return now;
}

instant expiry(instant now, uint32_t period_ms)
{
    instant at = {now.sec + period_ms / 1000, now.usec + static_cast<int32_t>(period_ms % 1000) * 1000};
    if (at.usec >= usec_per_sec) {
        at.usec -= usec_per_sec;
        ++at.sec;
    }
    return at;
}

int milliseconds_until(instant then, instant now)
{
    int64_t sec = then.sec - now.sec;
    int32_t usec = then.usec - now.usec;
    if (usec < 0) {
        usec += usec_per_sec;
        --sec;
    }
    // A clock set back can put the next timer years away; poll takes an int.
    return static_cast<int>(std::min<int64_t>(sec, INT_MAX / 1000 - 1) * 1000 + usec / 1000);
}

timer_entry *entry_of(timer *timer)
{
    return static_cast<timer_entry *>(timer);
}

void schedule(timer_entry *entry)
{
    entry->expires = expiry(wall_clock(), entry->period_ms);
    timer_entry **at = &head;
    while (*at && (*at)->expires < entry->expires)
        at = &(*at)->next;
    entry->next = *at;
    entry->link = at;
    *at = entry;
    if (entry->next)
        entry->next->link = &entry->next;
}

// False if it was not scheduled.
bool unschedule(timer_entry *entry)
{
    if (!entry->link)
        return false;
    *entry->link = entry->next;
    if (entry->next)
        entry->next->link = entry->link;
    entry->link = nullptr;
    return true;
}

void run_head()
{
    timer_entry *due = head;
    const timer_callback callback = due->callback;
    void *ctx = due->ctx;
    unschedule(due);
    if (due->runs_left == 0 || --due->runs_left > 0)
        schedule(due);
    callback(ctx);
}

void run_later_call(void *ctx)
{
    auto *call = static_cast<later_call *>(ctx);
    call->fn(call->ctx);
    timer_free(call->timer);
    free(call);
}

} // namespace

timer *timer_new(uint32_t period_ms, void *ctx, timer_callback callback, const char *name)
{
    auto *created = new_record<timer_entry>();
    if (created)
        static_cast<timer &>(*created) = {period_ms, ctx, callback, name};
    return created;
}

int timer_start(timer *timer, int count)
{
    if (!timer)
        return -1;
    timer_entry *entry = entry_of(timer);
    unschedule(entry);
    entry->runs_left = std::max(count, 0);
    schedule(entry);
    return 0;
}

int timer_stop(timer *timer)
{
    return timer && unschedule(entry_of(timer)) ? 0 : -1;
}

void timer_free(timer *timer)
{
    if (!timer)
        return;
    timer_stop(timer);
    free(entry_of(timer));
}

int timer_call_later(uint32_t delay_ms, void *ctx, timer_callback fn)
{
    auto *call = new_record<later_call>();
    if (!call)
        return -1;
    *call = {ctx, fn, timer_new(delay_ms, call, run_later_call, "call_back")};
    if (timer_start(call->timer, 1) == 0)
        return 0;
    free(call);
    return -1;
}

int timer_run_expired()
{
    const instant now = wall_clock();
    const unsigned steps_before = steps_back;
    while (head && now >= head->expires && steps_back == steps_before)
        run_head();
    if (!head)
        return -1;
    return steps_back == steps_before ? milliseconds_until(head->expires, now) : 0;
}
