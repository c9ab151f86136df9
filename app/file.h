// Reading the device's small text files.
#pragma once

#include "app/memory.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

// Opens a regular file for reading; empty, with errno set, for anything else. A FIFO or a device in place of
// a configuration file could block the only thread or never end.
inline unique_fd open_regular(const char *path)
{
    unique_fd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status;
    if (fd && fstat(fd.get(), &status) < 0)
        fd.reset();
    if (fd && !S_ISREG(status.st_mode)) {
        fd.reset();
        errno = EINVAL;
    }
    return fd;
}

// The same, as a stream.
inline unique_file open_regular_file(const char *path)
{
    unique_fd fd = open_regular(path);
    unique_file file(fd ? fdopen(fd.get(), "r") : nullptr);
    if (file)
        fd.release();
    return file;
}
