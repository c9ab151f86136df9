// The runtime: one thread, one loop, and everything a callback of it.
//
// The loop owns a table of slots (descriptor, context, callback) that it hands to poll, and the timer list of
// app/timer.h. One pass is: a poll that does not wait and the callbacks of what is ready; all due timers; a
// poll that waits until the next timer and the callbacks of what became ready. Slots keep the order of their
// registration, which is the order of the calls.
//
// A callback may add and remove slots, its own included. What it removes is not called any more, even if it
// was ready in the same poll; its place is reclaimed before the next poll. What it adds is first called after
// a poll of its own. A descriptor in error or hung up is reported on every pass until its owner removes it;
// the loop removes and closes nothing by itself.
#pragma once

#include "app/callback.h"
#include "app/scheduler.h"

#include <poll.h>

// What happened to a descriptor; APP_EV_ERROR may come with either of the others or alone.
enum app_event { APP_EV_READ = 1, APP_EV_WRITE = 4, APP_EV_ERROR = 8 };

struct app_fd_handler;

// Called by the loop when fd is ready. The handler record stays valid until the callback adds a descriptor.
using app_callback = void (*)(void *ctx, int events, int fd, app_fd_handler *handler);

struct app_fd_handler {
    void *ctx;
    app_callback callback;
    const char *name;     // of the callback's function, null when it is not known
    const void *function; // what a call stack names: the callback, or what it stands for
};

// Calls deferred to a later pass of the loop (see app/scheduler.h).
extern scheduler app_scheduler;

// Starts the runtime; first call of a program. options is its table of options (app/app_options.h), which
// lives as long as the process, or null when it has none; appname names its configuration files. Returns 0;
// ends the process when the command line is wrong.
struct app_option;
int app_init(int argc, char **argv, const app_option *options, const char *appname);

// Calls back on events (a poll mask) of fd. The same (fd, ctx, callback) again only changes the mask. Returns
// the slot's index when it existed, else the new number of slots; -1 when memory is out.
// function is what a call stack names, the callback itself when null.
[[nodiscard]] int app_add_fd(int fd, int events, void *ctx, app_callback callback,
                             const void *function = nullptr);

// The same with a typed context: callback is a void (Context *, int events, int fd, app_fd_handler *).
template <auto callback>
[[nodiscard]] int app_add_fd(int fd, int events, context_of<callback> *ctx)
{
    return app_add_fd(fd, events, ctx, typed<callback>::call, typed<callback>::address());
}

// Withdraws one slot, or all slots and all deferred calls of ctx. Closes nothing; what is gone is no error.
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

// One pass that does not wait, for code that must make progress inside a callback. Returns as
// timer_run_expired.
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
