// Replaces the machine under a target, through --wrap: files, sockets and a clock that exist only here.
// Nothing else can be opened, bound, sent to or set; nothing can be started or signalled.
#pragma once
#include "app/app.h"
#include "tests/fuzz/memory_file.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <string>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/timerfd.h>

struct {
    std::map<std::string, std::string> files;      // the in-memory path that opens each
    bool (*sent)(std::string_view data) = nullptr; // false: no room
    int64_t now_us = 1LL << 50;
    bool arrived = false; // a datagram on the socket in slot `place` of the loop
    size_t place = 0;
    std::string_view datagram = {};
    sockaddr_storage from = {};
    int last_opened = -1, starts = 0;
} machine;

// clang-format off
extern "C" {
int fail(int error) { errno = error; return -1; }
int __wrap_access(const char *, int) { return 0; }
int __wrap_bind(int, const sockaddr *, socklen_t) { return 0; }
int __wrap_kill(pid_t, int) { abort(); }
int __wrap_mkfifo(const char *, mode_t) { return fail(EEXIST); }
int __wrap_setsockopt(int, int, int, const void *, socklen_t) { return 0; }
int __wrap_socket(int, int, int) { return eventfd(0, EFD_CLOEXEC); }
void __wrap_sync() {}
time_t __wrap_time(time_t *) { return static_cast<time_t>(machine.now_us / 1000000); }
int __wrap_timerfd_create(int, int) { return eventfd(1 << 30, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC); } // due
int __wrap_timerfd_settime(int, int, const itimerspec *, itimerspec *) { return 0; }
int __wrap_unlink(const char *) { return fail(EPERM); }
pid_t __wrap_vfork() { ++machine.starts; return fail(EAGAIN); }

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...)
{
    const auto file = machine.files.find(path);
    const std::string there = file == machine.files.end() ? path : file->second;
    const bool here = there.starts_with("/proc/self/fd/");
    return machine.last_opened = here ? __real_open(there.c_str(), flags & ~O_NOFOLLOW) : fail(ENOENT);
}
// Writing the log would take most of the time.
ssize_t __real_write(int fd, const void *data, size_t size);
ssize_t __wrap_write(int fd, const void *data, size_t size)
{
    return fd == STDERR_FILENO ? static_cast<ssize_t>(size) : __real_write(fd, data, size);
}
ssize_t __wrap_sendto(int, const char *data, size_t size, int, const sockaddr *, socklen_t)
{
    return !machine.sent || machine.sent({data, size}) ? static_cast<ssize_t>(size) : fail(EAGAIN);
}
ssize_t __wrap_recv(int, char *buffer, size_t size, int)
{
    return std::exchange(machine.arrived, false) ? ssize_t(machine.datagram.copy(buffer, size)) : fail(EAGAIN);
}
ssize_t __wrap_recvfrom(int fd, char *buffer, size_t size, int flags, void *from, socklen_t *length)
{
    memcpy(from, &machine.from, *length);
    return __wrap_recv(fd, buffer, size, flags);
}
int __real_poll(pollfd *fds, nfds_t count, int timeout);
int __wrap_poll(pollfd *fds, nfds_t count, int)
{
    __real_poll(fds, count, 0);
    if (machine.arrived && count > 0)
        fds[machine.place % count].revents = POLLIN;
    return static_cast<int>(std::count_if(fds, fds + count, [](auto &slot) { return slot.revents != 0; }));
}
int __wrap_gettimeofday(timeval *now, void *)
{
    const int64_t us = machine.now_us++;
    return *now = {time_t(us / 1000000), suseconds_t(us % 1000000)}, 0;
}
int __wrap_settimeofday(const timeval *now, const void *)
{
    require(now->tv_sec >= 0 && now->tv_usec >= 0 && now->tv_usec < 1000000);
    return machine.now_us = now->tv_sec * 1000000LL + now->tv_usec, 0;
}
}
// clang-format on
