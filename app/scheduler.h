// Deferred calls: fn(ctx) on a later pass of the loop, one call a pass, smallest priority first, in order of
// addition within a priority. A pair (ctx, fn) is queued at most once.
#pragma once

#include "app/timer.h"

#include <cstdint>

// Called from the loop's timers. May add and remove calls, including its own pair.
using scheduler_fn = void (*)(void *ctx);

struct scheduler_call {
    int32_t priority;
    void *ctx;
    scheduler_fn fn;
    scheduler_call *next;
    const void *function; // shown in a call stack
};

struct scheduler {
    struct timer *timer; // created at first use, then only started and stopped
    scheduler_call *head;
};

void scheduler_init(scheduler *s);

// Queues a call; a pair already queued moves to its new place. A call stack shows function, or fn if null.
// Returns 0, or -1 if out of memory, and nothing is queued.
[[nodiscard]] int scheduler_add(scheduler *s, void *ctx, scheduler_fn fn, int32_t priority,
                                const void *function = nullptr);

// -1 if the call is not queued.
int scheduler_remove(scheduler *s, void *ctx, scheduler_fn fn);

// Drops every call of ctx; required before ctx is freed.
void scheduler_remove_ctx(scheduler *s, void *ctx);

// Stops running calls but keeps them queued; or drops them all.
int scheduler_stop(scheduler *s);
void scheduler_clear(scheduler *s);

// The timer's callback: runs the first call.
void scheduler_callback(void *ctx);
