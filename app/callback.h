// Callbacks with a typed context. The runtime calls every callback with the opaque pointer it was registered
// with; typed<function>::call restores the pointer's type, so that no caller casts by hand.
#pragma once

template <auto function>
struct typed;

template <typename Context, typename... Rest, void (*function)(Context *, Rest...)>
struct typed<function> {
    using context = Context;
    static void call(void *ctx, Rest... rest) { function(static_cast<Context *>(ctx), rest...); }

    // A call stack shows the function itself, not this template.
    static const void *address() { return reinterpret_cast<const void *>(function); }
};

// The context must be a pointer to exactly this type; convert a pointer to a derived record first.
template <auto function>
using context_of = typename typed<function>::context;
