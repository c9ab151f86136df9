// The front before the C library: a program started with LD_PRELOAD finds the board in the directory
// BOARD_DIR. Programs that it starts in turn do not.
#include "device/board/board.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/timex.h>
#include <unistd.h>

namespace {

// Where long has 32 bits, large files need this flag.
constexpr int large_file = sizeof(long) == 4 ? 0400000 : 0;

__attribute__((constructor)) void alone()
{
    unsetenv("LD_PRELOAD");
}

#ifdef SYS_clock_adjtime64
constexpr long clock_read_call = SYS_clock_adjtime64;
#else
constexpr long clock_read_call = SYS_clock_adjtime;
#endif

// Reading the clock is allowed.
int change_clock(const char *call, timex *change, clockid_t clock)
{
    if (change->modes == 0)
        return static_cast<int>(syscall(clock_read_call, clock, change));
    board_set_clock(call, change->offset, 0);
    return TIME_OK;
}

} // namespace

const char *board_dir()
{
    const char *dir = getenv("BOARD_DIR");
    return dir ? dir : "/board";
}

int64_t board_now_us()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

void board_pause_ms(int64_t ms)
{
    timespec left = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000 * 1000000)};
    while (nanosleep(&left, &left) < 0 && errno == EINTR)
        ;
}

extern "C" {

int open(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const mode_t mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(args, mode_t) : 0;
    va_end(args);
    const int fd = board_open(path);
    return fd != BOARD_NOT_MINE
               ? fd
               : static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags | large_file, mode));
}

ssize_t write(int fd, const void *data, size_t size)
{
    const ssize_t done = board_write(fd, data, size);
    return done != BOARD_NOT_MINE ? done : syscall(SYS_write, fd, data, size);
}

int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list args;
    va_start(args, request);
    void *argument = va_arg(args, void *);
    va_end(args);
    const int done = board_ioctl(fd, request, argument);
    return done != BOARD_NOT_MINE ? done : static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}

int close(int fd)
{
    board_close(fd);
    return static_cast<int>(syscall(SYS_close, fd));
}

int kill(pid_t pid, int sig) noexcept
{
    const int done = board_kill(pid, sig);
    return done != BOARD_NOT_MINE ? done : static_cast<int>(syscall(SYS_kill, pid, sig));
}

unsigned sleep(unsigned seconds)
{
    return board_sleep(seconds);
}

int settimeofday(const timeval *to, const struct timezone *) noexcept
{
    return to ? board_set_clock("settimeofday", to->tv_sec, to->tv_usec) : 0;
}

int clock_settime(clockid_t, const timespec *to) noexcept
{
    return board_set_clock("clock_settime", to->tv_sec, to->tv_nsec / 1000);
}

int stime(const time_t *to) noexcept
{
    return board_set_clock("stime", *to, 0);
}

int adjtime(const timeval *by, timeval *left) noexcept
{
    if (left)
        *left = {};
    return by ? board_set_clock("adjtime", by->tv_sec, by->tv_usec) : 0;
}

int adjtimex(timex *change) noexcept
{
    return change_clock("adjtimex", change, CLOCK_REALTIME);
}

int clock_adjtime(clockid_t clock, timex *change) noexcept
{
    return change_clock("clock_adjtime", change, clock);
}

} // extern "C"
