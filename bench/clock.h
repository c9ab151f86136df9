// The clock by which the benchmark and the programs it has started understand each other.
#pragma once

#include <cstdint>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

// What a started program tells of itself, in one write.
struct start_report {
    int64_t at_ns;
    int64_t pid;
};

inline int64_t monotonic_ns()
{
    timespec now;
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}
