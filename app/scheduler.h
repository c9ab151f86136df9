// Deferred calls: fn(ctx) on a later pass of the event loop, one call a pass, smallest priority first and in
// order of addition within one priority. A pair (ctx, fn) is queued at most once.
#pragma once

#include "app/timer.h"

#include <cstdint>

// Called by the loop's timer run. It may add and remove calls, its own pair included.
using scheduler_fn = void (*)(void *ctx);

struct scheduler_call {
    int32_t priority;
    void *ctx;
    scheduler_fn fn;
    scheduler_call *next;
    const void *function; // what a call stack names
};

struct scheduler {
    struct timer *timer; // created at first use, then only started and stopped
    scheduler_call *head;
};

void scheduler_init(scheduler *s);

// 0, or -1 when memory is out and nothing is queued. Queued before, the pair moves to its new place. function
// is what a call stack names, fn itself when null.
[[nodiscard]] int scheduler_add(scheduler *s, void *ctx, scheduler_fn fn, int32_t priority,
                                const void *function = nullptr);

// -1 when no such call is queued.
int scheduler_remove(scheduler *s, void *ctx, scheduler_fn fn);

// Drops every call of ctx, as its owner must before it is freed.
void scheduler_remove_ctx(scheduler *s, void *ctx);

// Stops running calls, which stay queued; or drops them all.
int scheduler_stop(scheduler *s);
void scheduler_clear(scheduler *s);

// The timer's callback: runs the first call.
void scheduler_callback(void *ctx);
