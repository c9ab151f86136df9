// Event loops to compare. Each must call on_ready() whenever fd can be read, watch two more descriptors on
// which nothing ever happens, as the daemon does, and hold timers that do not expire.
#pragma once

#include <cstdint>

struct loop {
    const char *name;
    void (*prepare)(int fd, const int *idle_fds, int timers);
    void (*run)();              // never returns: on_ready ends the process
    void (*restart)(int timer); // stops and starts it
};

extern const loop loop_of_lumd, loop_of_libuv, loop_of_libevent, loop_of_libev;

void on_ready();

// Periods between one and two minutes, in no order.
constexpr uint32_t period_of(int timer)
{
    return 60000 + static_cast<uint32_t>(timer) * 7919 % 60000;
}
