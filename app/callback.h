// Callbacks with a typed context. The runtime calls every callback with the opaque pointer that was
// registered with it; typed<function>::call turns that pointer back into what it was, so that nobody casts by
// hand.
#pragma once

template <auto function>
struct typed;

template <typename Context, typename... Rest, void (*function)(Context *, Rest...)>
struct typed<function> {
    using context = Context;
    static void call(void *ctx, Rest... rest) { function(static_cast<Context *>(ctx), rest...); }

    // Names the function itself in a call stack.
    static const void *address() { return reinterpret_cast<const void *>(function); }
};

// A context is registered as a pointer to exactly this type: a pointer to a derived record converts first.
template <auto function>
using context_of = typename typed<function>::context;
