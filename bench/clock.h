// The clock shared by the benchmark and the programs it starts.
#pragma once

#include <cstdint>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

// What a started program reports, in one write.
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
