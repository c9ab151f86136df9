#include "app/app.h"

#include "app/callstack.h"
#include "app/log.h"
#include "app/symbols.h"

#include <cstdlib>

scheduler app_scheduler;

namespace {

constexpr char log_module[] = "app";
constexpr int growth = 16;
constexpr int quit_mark = 0x00FF0000;
constexpr int last_timer_runs = 1000;

// Two parallel arrays, since poll wants its own contiguous.
pollfd *polled;
app_fd_handler *handlers;
int capacity;
int count;
int dirty; // slots freed since the last compaction
int quit;

int find_slot(int fd, const void *ctx, app_callback callback)
{
    for (int i = 0; i < count; ++i) {
        if (polled[i].fd == fd && handlers[i].ctx == ctx && handlers[i].callback == callback)
            return i;
    }
    return -1;
}

template <typename Item>
bool grow(Item *&items)
{
    void *larger = realloc(items, static_cast<size_t>(capacity + growth) * sizeof(Item));
    if (larger)
        items = static_cast<Item *>(larger);
    return larger != nullptr;
}

void free_slot(int slot)
{
    polled[slot].fd = -1;
    polled[slot].events = 0;
    ++dirty;
}

void compact()
{
    if (!dirty)
        return;
    int kept = 0;
    for (int i = 0; i < count; ++i) {
        if (polled[i].fd == -1)
            continue;
        polled[kept] = polled[i];
        handlers[kept] = handlers[i];
        ++kept;
    }
    count = kept;
    dirty = 0;
}

int translate(int revents)
{
    int events = 0;
    if (revents & (POLLIN | POLLPRI))
        events |= APP_EV_READ;
    if (revents & POLLOUT)
        events |= APP_EV_WRITE;
    if (revents & ~(POLLIN | POLLPRI | POLLOUT))
        events |= APP_EV_ERROR;
    return events;
}

void dispatch_sock_events(int nready)
{
    // A callback may add slots, which moves both arrays, or remove any: hold no reference across the call.
    for (int i = 0; nready != 0 && i < count; ++i) {
        if (polled[i].revents == 0 || polled[i].fd < 0)
            continue;
        const int fd = polled[i].fd;
        const int events = translate(polled[i].revents);
        if (events & APP_EV_ERROR)
            log_trace(LOG_HERE, "error: %d", fd);
        {
            const app_callback callback = handlers[i].callback;
            const logged_call running(handlers[i].function);
            callback(handlers[i].ctx, events, fd, &handlers[i]);
        }
        --nready;
        if (i < count)
            polled[i].revents = 0;
    }
}

int poll_slots(int timeout)
{
    return poll(polled, static_cast<nfds_t>(count), timeout);
}

} // namespace

int app_add_fd(int fd, int events, void *ctx, app_callback callback, const void *function)
{
    const int slot = find_slot(fd, ctx, callback);
    if (slot >= 0) {
        polled[slot].events = static_cast<short>(events);
        return slot;
    }
    if (count + 1 > capacity) {
        if (!grow(polled) || !grow(handlers))
            return -1;
        capacity += growth;
    }
    polled[count] = {fd, static_cast<short>(events), 0};
    if (!function)
        function = reinterpret_cast<const void *>(callback);
    handlers[count] = {ctx, callback, symbol_lookup(function), function};
    return ++count;
}

void app_remove_fd(int fd, void *ctx, app_callback callback)
{
    const int slot = find_slot(fd, ctx, callback);
    if (slot >= 0)
        free_slot(slot);
}

void app_remove_ctx(void *ctx)
{
    for (int i = 0; i < count; ++i) {
        if (polled[i].fd != -1 && handlers[i].ctx == ctx)
            free_slot(i);
    }
    scheduler_remove_ctx(&app_scheduler, ctx);
}

int app_run()
{
    while (!quit) {
        compact();
        const int ready = poll_slots(0);
        if (ready > 0)
            dispatch_sock_events(ready);
        else if (ready < 0)
            log_syserror(LOG_HERE);
        const int timeout = timer_run_expired();
        compact();
        const int woken = poll_slots(quit ? 0 : timeout);
        if (woken > 0)
            dispatch_sock_events(woken);
    }
    // Timers already due still run.
    for (int i = 0; i < last_timer_runs; ++i)
        timer_run_expired();
    return quit & 0xFFFF;
}

void app_quit(int code)
{
    quit = quit_mark | (code & 0xFFFF);
}

int app_poll_once()
{
    compact();
    const int ready = poll_slots(0);
    if (ready > 0)
        dispatch_sock_events(ready);
    return timer_run_expired();
}

int app_scheduler_add(void *ctx, scheduler_fn fn, int32_t priority)
{
    return scheduler_add(&app_scheduler, ctx, fn, priority);
}

int app_scheduler_remove(void *ctx, scheduler_fn fn)
{
    return scheduler_remove(&app_scheduler, ctx, fn);
}

void app_scheduler_remove_ctx(void *ctx)
{
    scheduler_remove_ctx(&app_scheduler, ctx);
}
