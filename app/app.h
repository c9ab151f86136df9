// The runtime: one thread, one loop; everything else is a callback of the loop.
//
// The loop owns a table of slots (descriptor, context, callback), which it hands to poll, and the timer list
// of app/timer.h. One pass: a poll without waiting and the callbacks of ready descriptors; all due timers; a
// poll that waits until the next timer and the callbacks of what became ready. Slots are called in the order
// of their registration.
//
// A callback may add and remove slots, including its own. A removed slot is not called again, even if it was
// ready in the same poll; its place is reclaimed before the next poll. An added slot is first called after
// the next poll. A descriptor in error or hung up is reported on every pass until its owner removes it; the
// loop itself removes and closes nothing.
#pragma once

#include "app/callback.h"
#include "app/scheduler.h"

#include <poll.h>

// Events of a descriptor; APP_EV_ERROR may come alone or with the others.
enum app_event { APP_EV_READ = 1, APP_EV_WRITE = 4, APP_EV_ERROR = 8 };

struct app_fd_handler;

// Called by the loop when fd is ready. The handler record stays valid until the callback adds a descriptor.
using app_callback = void (*)(void *ctx, int events, int fd, app_fd_handler *handler);

struct app_fd_handler {
    void *ctx;
    app_callback callback;
    const char *name;     // the callback's function; null if unknown
    const void *function; // shown in a call stack: the callback, or the function it stands for
};

// Calls deferred to a later pass of the loop (see app/scheduler.h).
extern scheduler app_scheduler;

// Starts the runtime; the first call of a program. options is its option table (app/app_options.h), which
// must live as long as the process, or null; appname names its configuration files. Returns 0. The process
// ends if an option lacks its value or the value of a long option is bad; see app_opt_parse.
struct app_option;
int app_init(int argc, char **argv, const app_option *options, const char *appname);

// Calls back on events (a poll mask) of fd. Adding the same (fd, ctx, callback) again only changes the mask.
// Returns the index of an existing slot, else the new number of slots; -1 if out of memory. A call stack
// shows function, or the callback if null.
[[nodiscard]] int app_add_fd(int fd, int events, void *ctx, app_callback callback,
                             const void *function = nullptr);

// The same with a typed context; callback is a void (Context *, int events, int fd, app_fd_handler *).
template <auto callback>
[[nodiscard]] int app_add_fd(int fd, int events, context_of<callback> *ctx)
{
    return app_add_fd(fd, events, ctx, typed<callback>::call, typed<callback>::address());
}

// Removes one slot, or all slots and deferred calls of ctx. Closes nothing; a slot that is gone is no error.
void app_remove_fd(int fd, void *ctx, app_callback callback);
void app_remove_ctx(void *ctx);

template <auto callback>
void app_remove_fd(int fd, context_of<callback> *ctx)
{
    app_remove_fd(fd, ctx, typed<callback>::call);
}

// Runs until app_quit and returns the low 16 bits of its code.
int app_run();
void app_quit(int code);

// One pass without waiting, for code that must make progress inside a callback. Returns
// like timer_run_expired.
int app_poll_once();

// Deferred calls on app_scheduler.
[[nodiscard]] int app_scheduler_add(void *ctx, scheduler_fn fn, int32_t priority);
int app_scheduler_remove(void *ctx, scheduler_fn fn);
void app_scheduler_remove_ctx(void *ctx);

template <auto fn>
[[nodiscard]] int app_scheduler_add(context_of<fn> *ctx, int32_t priority)
{
    return scheduler_add(&app_scheduler, ctx, typed<fn>::call, priority, typed<fn>::address());
}

template <auto fn>
void app_scheduler_remove(context_of<fn> *ctx)
{
    scheduler_remove(&app_scheduler, ctx, typed<fn>::call);
}
