// The monotonic clock; setting the time of day does not move it.
#pragma once

#include <cstdint>
#include <ctime>

inline int64_t monotonic_us()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}
