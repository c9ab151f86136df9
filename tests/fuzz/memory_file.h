// Bytes as a file with a path but no place on disk.
#pragma once

#include "app/memory.h"
#include "tests/fuzz/target.h"

#include <cstdio>
#include <sys/mman.h>

struct memory_file {
    unique_fd fd;
    char path[32];

    explicit memory_file(std::string_view data) : fd(memfd_create("fuzz", MFD_CLOEXEC))
    {
        snprintf(path, sizeof path, "/proc/self/fd/%d", fd.get());
        require(write(fd.get(), data.data(), data.size()) == static_cast<ssize_t>(data.size()));
    }
};
