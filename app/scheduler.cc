#include "app/scheduler.h"

#include "app/callstack.h"
#include "app/memory.h"

namespace {

scheduler_call *unlink_call(scheduler *s, void *ctx, scheduler_fn fn)
{
    for (scheduler_call **at = &s->head; *at; at = &(*at)->next) {
        scheduler_call *call = *at;
        if (call->ctx == ctx && call->fn == fn) {
            *at = call->next;
            return call;
        }
    }
    return nullptr;
}

void insert_call(scheduler *s, scheduler_call *call)
{
    scheduler_call **at = &s->head;
    while (*at && (*at)->priority <= call->priority)
        at = &(*at)->next;
    call->next = *at;
    *at = call;
}

// If the timer cannot be allocated, the next addition tries again.
void start(scheduler *s)
{
    if (!s->timer)
        s->timer = timer_new(0, s, scheduler_callback, "scheduler_callback");
    static_cast<void>(timer_start(s->timer, -1));
}

} // namespace

void scheduler_init(scheduler *s)
{
    *s = {};
}

int scheduler_add(scheduler *s, void *ctx, scheduler_fn fn, int32_t priority, const void *function)
{
    scheduler_call *call = unlink_call(s, ctx, fn);
    if (!call)
        call = new_record<scheduler_call>();
    if (!call)
        return -1;
    *call = {priority, ctx, fn, nullptr, function ? function : reinterpret_cast<const void *>(fn)};
    const bool was_empty = !s->head;
    insert_call(s, call);
    if (was_empty || !s->timer)
        start(s);
    return 0;
}

int scheduler_remove(scheduler *s, void *ctx, scheduler_fn fn)
{
    scheduler_call *call = unlink_call(s, ctx, fn);
    if (!call)
        return -1;
    free(call);
    return 0;
}

void scheduler_remove_ctx(scheduler *s, void *ctx)
{
    for (scheduler_call **at = &s->head; *at;) {
        scheduler_call *call = *at;
        if (call->ctx == ctx) {
            *at = call->next;
            free(call);
        } else {
            at = &call->next;
        }
    }
}

int scheduler_stop(scheduler *s)
{
    if (s->timer)
        timer_stop(s->timer);
    return 0;
}

void scheduler_clear(scheduler *s)
{
    scheduler_stop(s);
    while (s->head) {
        scheduler_call *call = s->head;
        s->head = call->next;
        free(call);
    }
}

void scheduler_callback(void *ctx)
{
    auto *s = static_cast<scheduler *>(ctx);
    scheduler_call *call = s->head;
    if (!call) {
        scheduler_stop(s);
        return;
    }
    s->head = call->next;
    {
        const logged_call running(call->function);
        call->fn(call->ctx);
    }
    free(call);
    if (!s->head)
        scheduler_stop(s);
}
