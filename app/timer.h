// Timers. One process-wide list holds what is scheduled, earliest expiry first; the event loop runs what is
// due and asks how long it may sleep.
//
// A timer is created unscheduled, scheduled by timer_start, unscheduled by timer_stop or by its last run, and
// ended by timer_free. Each run first counts down and re-schedules (measured from now: lateness is not caught
// up) or unschedules the timer, then calls back; so a callback may stop, restart or free its own timer, and
// any other. Timers that expire at the same instant run in the reverse order of their start.
//
// Expiry is by the wall clock, which the device sets from the network: a step forward makes due what would
// have fallen due within it, a step back delays by its size. A run of due timers in which the clock was set
// back ends at once, and the loop begins another.
#pragma once

#include "app/callback.h"

#include <cstdint>

// Called by timer_run_expired on the loop's thread.
using timer_callback = void (*)(void *ctx);

struct timer {
    uint32_t period_ms; // 0 is due at once
    void *ctx;
    timer_callback callback;
    const char *name; // static text, for diagnostics
};

// A new unscheduled timer for timer_free, or null when memory is out.
extern "C" timer *timer_new(uint32_t period_ms, void *ctx, timer_callback callback, const char *name);

// (Re)starts the period: count runs from now on, without end for 0 and below. 0, or -1 for null, which
// timer_new returns when memory is out.
extern "C" [[nodiscard]] int timer_start(timer *timer, int count);

// -1 when the timer was not scheduled, or for null.
extern "C" int timer_stop(timer *timer);

// Stops and frees; null is allowed.
extern "C" void timer_free(timer *timer);

// A timer that lives in its owner's record: made when it is first needed, stopped and freed with the owner.
// It keeps the callback and the context it was made with.
class unique_timer {
  public:
    unique_timer() = default;
    ~unique_timer() { timer_free(timer_); }
    unique_timer(const unique_timer &) = delete;
    unique_timer &operator=(const unique_timer &) = delete;

    // Makes the timer if there is none, and sets its period. name is static text. -1 when memory is out.
    template <auto callback>
    [[nodiscard]] int set(uint32_t period_ms, context_of<callback> *ctx, const char *name)
    {
        return set(period_ms, ctx, typed<callback>::call, name);
    }

    // The same, and (re)starts it: count runs, without end for 0.
    template <auto callback>
    [[nodiscard]] int start(uint32_t period_ms, context_of<callback> *ctx, const char *name, int count = 1)
    {
        return start(period_ms, ctx, typed<callback>::call, name, count);
    }
    [[nodiscard]] int start(int count = 1) { return timer_start(timer_, count); }
    void stop() { timer_stop(timer_); }

    // Stops and frees.
    void reset();

    // Null as long as the timer has not been made.
    [[nodiscard]] const timer *get() const { return timer_; }

  private:
    int set(uint32_t period_ms, void *ctx, timer_callback callback, const char *name);
    int start(uint32_t period_ms, void *ctx, timer_callback callback, const char *name, int count);

    timer *timer_ = nullptr;
};

// Calls fn(ctx) once, delay_ms from now. There is no handle and no way back. -1 when memory is out.
int timer_call_later(uint32_t delay_ms, void *ctx, timer_callback fn);

// For the loop: runs what is due, returns the milliseconds until the next timer, -1 without one.
int timer_run_expired();

// The process interval timer (SIGALRM), apart from the list above. While started it owns SIGALRM; its
// callback runs in signal context. Times in milliseconds; results as of setitimer.
int itimer_start(uint32_t value_ms, uint32_t interval_ms);
int itimer_stop();
int itimer_set_callback(void *ctx, timer_callback fn);
