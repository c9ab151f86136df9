#include "app/log.h"

#include "app/memory.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr size_t message_size = 255;
constexpr size_t line_size = 299;

int log_level = 0;
int log_fd = STDERR_FILENO;

// Callers log a failure and go on to look at its errno.
class errno_keeper {
  public:
    ~errno_keeper() { restore(); }
    void restore() const { errno = saved_; }

  private:
    int saved_ = errno;
};

void write_cut(const char *buffer, int length, size_t size)
{
    if (length > 0)
        log_write(buffer, std::min(static_cast<size_t>(length), size - 1));
}

void log_mark(int level, const char *mark, const char *func, const char *file, int line,
              const char *reason = nullptr)
{
    if (level < log_level)
        return;
    errno_keeper keeper;
    char text[message_size];
    const int length = snprintf(text, sizeof text, "  %s: %s(): %s: %d%s%s\n", mark, func, file, line,
                                reason ? ": " : "", reason ? reason : "");
    write_cut(text, length, sizeof text);
}

} // namespace

void log_trace(int level, const char *func, const char *file, int line, const char *format, ...)
{
    if (level < log_level)
        return;
    errno_keeper keeper;
    char message[message_size] = "";
    va_list args;
    va_start(args, format);
    const int message_length = vsnprintf(message, sizeof message, format, args);
    va_end(args);
    if (message_length < 0)
        return;
    char text[line_size];
    const int length = snprintf(text, sizeof text, "  %s(): %s: %d: %s\n", func, file, line, message);
    write_cut(text, length, sizeof text);
}

void log_checkpoint(int level, const char *func, const char *file, int line)
{
    log_mark(level, "CHECKPOINT", func, file, line);
}

void log_failed(int level, const char *func, const char *file, int line)
{
    log_mark(level, "FAILED", func, file, line);
}

void log_syserror(int level, const char *func, const char *file, int line)
{
    log_mark(level, "SYSERROR", func, file, line, strerror(errno));
}

void log_printf(int level, const char *format, ...)
{
    if (level < log_level)
        return;
    errno_keeper keeper;
    char text[message_size];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(text, sizeof text, format, args);
    va_end(args);
    write_cut(text, length, sizeof text);
}

ssize_t log_write(const void *buffer, size_t length)
{
    return write(log_fd, buffer, length);
}

void log_flush()
{
    fsync(log_fd);
}

int log_open(const char *path)
{
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return -1;
    log_fd = fd;
    return 0;
}

int log_set_level(int level)
{
    if (level > 0)
        log_level = level;
    return log_level;
}

void print_error(const char *format, ...)
{
    errno_keeper keeper;
    char fixed[512];
    unique_text heap;
    const char *text = fixed;
    va_list args;
    va_start(args, format);
    int length = vsnprintf(fixed, sizeof fixed, format, args);
    va_end(args);
    if (length >= static_cast<int>(sizeof fixed)) {
        char *whole = nullptr;
        keeper.restore(); // for %m
        va_start(args, format);
        const int whole_length = vasprintf(&whole, format, args);
        va_end(args);
        heap.reset(whole_length < 0 ? nullptr : whole);
        text = heap ? heap.get() : fixed;
        length = heap ? whole_length : static_cast<int>(sizeof fixed) - 1;
    }
    if (length > 0 && write(STDERR_FILENO, text, static_cast<size_t>(length)) < 0)
        return;
}
