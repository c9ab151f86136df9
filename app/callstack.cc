#include "app/callstack.h"

#include <array>
#include <cstddef>

namespace {

std::array<const void *, 256> entries;
int depth;

// Calls nest this deep only through app_poll_once. What is beyond is counted, so that pops stay paired.
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
