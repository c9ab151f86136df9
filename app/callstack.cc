#include "app/callstack.h"

#include "app/log.h"
#include "app/symbols.h"

#include <array>
#include <cstddef>

namespace {

std::array<const void *, 256> entries;
int depth;

// Calls nest this deep only through app_poll_once. Entries beyond the limit are counted, so that pops
// stay paired.
int beyond;

} // namespace

int logged_stack_push(const void *addr)
{
    if (depth == static_cast<int>(entries.size()))
        return depth + ++beyond;
    entries[static_cast<size_t>(depth++)] = addr;
    return depth;
}

void logged_stack_pop(const void *addr)
{
    if (beyond > 0)
        --beyond;
    else if (depth >= 1 && entries[static_cast<size_t>(depth - 1)] == addr)
        --depth;
}

void logged_stack_print()
{
    print_error("Logged Call Stack\n");
    beyond = 0;
    for (int i = 0; depth > 0; ++i) {
        const void *addr = entries[static_cast<size_t>(--depth)];
        const char *name = symbol_lookup(addr);
        print_error("\t%d: %s[%p]\n", i, name ? name : "???", addr);
    }
}
