// Event loops beside each other. Each is told to call on_ready() whenever fd can be read, to watch two
// further descriptors on which nothing ever happens, as the daemon does, and to hold timers that do not
// expire.
#pragma once

#include <cstdint>

struct loop {
    const char *name;
    void (*prepare)(int fd, const int *idle_fds, int timers);
    void (*run)();              // until on_ready ends the process
    void (*restart)(int timer); // stops it and starts it again
};

extern const loop loop_of_lumd, loop_of_libuv, loop_of_libevent, loop_of_libev;

void on_ready();

// All between one and two minutes, in no order.
constexpr uint32_t period_of(int timer)
{
    return 60000 + static_cast<uint32_t>(timer) * 7919 % 60000;
}
