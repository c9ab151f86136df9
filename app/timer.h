// Timers. One process-wide list, earliest expiry first; the event loop runs those due and asks how long it
// may sleep.
//
// A timer is created unscheduled. timer_start schedules it; timer_stop or its last run unschedules it;
// timer_free frees it. Each run first counts down and re-schedules (from now: lateness is not caught up) or
// unschedules the timer, then calls back. So a callback may stop, restart or free its own timer and any
// other. Timers that expire at the same instant run in reverse order of their start.
//
// Expiry follows the wall clock, which the device sets from the network: a step forward makes due everything
// it skipped, a step back delays timers by its size. If the clock steps back during a run of due timers, the
// run ends at once and the loop begins another.
#pragma once

#include "app/callback.h"

#include <cstdint>

// Called by timer_run_expired on the loop's thread.
using timer_callback = void (*)(void *ctx);

struct timer {
    uint32_t period_ms; // 0 is due at once
    void *ctx;
    timer_callback callback;
    const char *name; // static text for diagnostics
};

// A new unscheduled timer for timer_free, or null if out of memory.
extern "C" timer *timer_new(uint32_t period_ms, void *ctx, timer_callback callback, const char *name);

// (Re)starts the period, for count runs; 0 or less: without end. Returns 0, or -1 for null, i.e. if timer_new
// ran out of memory.
extern "C" [[nodiscard]] int timer_start(timer *timer, int count);

// Returns -1 if the timer was not scheduled, or for null.
extern "C" int timer_stop(timer *timer);

// Stops and frees; null is fine.
extern "C" void timer_free(timer *timer);

// A timer inside its owner's record: made when first needed, stopped and freed with the owner. Callback and
// context stay those it was made with.
class unique_timer {
  public:
    unique_timer() = default;
    ~unique_timer() { timer_free(timer_); }
    unique_timer(const unique_timer &) = delete;
    unique_timer &operator=(const unique_timer &) = delete;

    // Makes the timer if needed and sets its period. name is static text. -1 if out of memory.
    template <auto callback>
    [[nodiscard]] int set(uint32_t period_ms, context_of<callback> *ctx, const char *name)
    {
        return set(period_ms, ctx, typed<callback>::call, name);
    }

    // The same, and (re)starts it for count runs, 0: without end.
    template <auto callback>
    [[nodiscard]] int start(uint32_t period_ms, context_of<callback> *ctx, const char *name, int count = 1)
    {
        return start(period_ms, ctx, typed<callback>::call, name, count);
    }
    [[nodiscard]] int start(int count = 1) { return timer_start(timer_, count); }
    void stop() { timer_stop(timer_); }

    // Stops and frees.
    void reset();

    // Null until the timer has been made.
    [[nodiscard]] const timer *get() const { return timer_; }

  private:
    int set(uint32_t period_ms, void *ctx, timer_callback callback, const char *name);
    int start(uint32_t period_ms, void *ctx, timer_callback callback, const char *name, int count);

    timer *timer_ = nullptr;
};

// Calls fn(ctx) once, delay_ms from now. It cannot be cancelled. -1 if out of memory.
int timer_call_later(uint32_t delay_ms, void *ctx, timer_callback fn);

// For the loop: runs due timers, returns the milliseconds until the next one, -1 without one.
int timer_run_expired();

// The process's interval timer (SIGALRM), separate from the list above. While started it owns SIGALRM; its
// callback runs in signal context. Times in milliseconds; results as of setitimer.
int itimer_start(uint32_t value_ms, uint32_t interval_ms);
int itimer_stop();
int itimer_set_callback(void *ctx, timer_callback fn);
