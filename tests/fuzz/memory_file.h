// Bytes as a file that has a path and no place on a disk.
#pragma once

#include "app/memory.h"

#include <cstdint>
#include <cstdio>
#include <sys/mman.h>

struct memory_file {
    unique_fd fd;
    char path[32];

    memory_file(const void *data, size_t size) : fd(memfd_create("fuzz", MFD_CLOEXEC))
    {
        snprintf(path, sizeof path, "/proc/self/fd/%d", fd.get());
        write(fd.get(), data, size) == static_cast<ssize_t>(size) ? void() : abort();
    }
};
