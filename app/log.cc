#include "app/log.h"

#include "app/keep_errno.h"
#include "app/memory.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string_view>
#include <unistd.h>

namespace {

constexpr size_t message_max = 254;
constexpr size_t line_max = 298;

int log_level = 0;
int log_fd = STDERR_FILENO;
std::atomic<void (*)(const void *, size_t)> log_copy;

// One line on its way out, cut at max characters. The daemon logs while others wait for it, so only the
// message itself is worth a format.
class log_line {
  public:
    explicit log_line(size_t max) : end_(text_ + max) {}

    log_line &operator<<(std::string_view part)
    {
        const size_t length = std::min(part.size(), static_cast<size_t>(end_ - at_));
        memcpy(at_, part.data(), length);
        at_ += length;
        return *this;
    }

    log_line &operator<<(int number)
    {
        char digits[12];
        const auto printed = std::to_chars(digits, digits + sizeof digits, number);
        return *this << std::string_view(digits, static_cast<size_t>(printed.ptr - digits));
    }

    // False when the format is wrong.
    __attribute__((format(printf, 2, 0))) bool print(const char *format, va_list args)
    {
        const size_t room = std::min(message_max, static_cast<size_t>(end_ - at_));
        const int length = vsnprintf(at_, room + 1, format, args);
        at_ += std::clamp(length, 0, static_cast<int>(room));
        return length >= 0;
    }

    void write() const
    {
        if (at_ != text_)
            log_write(text_, static_cast<size_t>(at_ - text_));
    }

  private:
    char text_[line_max + 1];
    char *at_ = text_;
    char *end_;
};

void log_mark(int level, std::string_view mark, const char *func, const char *file, int line,
              const char *reason = nullptr)
{
    if (level < log_level)
        return;
    const keep_errno unchanged;
    log_line text(message_max);
    text << mark << func << "(): " << file << ": " << line;
    if (reason)
        text << ": " << reason;
    text << "\n";
    text.write();
}

} // namespace

void log_trace(int level, const char *func, const char *file, int line, const char *format, ...)
{
    if (level < log_level)
        return;
    const keep_errno unchanged;
    log_line text(line_max);
    text << "  " << func << "(): " << file << ": " << line << ": ";
    va_list args;
    va_start(args, format);
    const bool printed = text.print(format, args);
    va_end(args);
    if (!printed)
        return;
    text << "\n";
    text.write();
}

void log_checkpoint(int level, const char *func, const char *file, int line)
{
    log_mark(level, "  CHECKPOINT: ", func, file, line);
}

void log_failed(int level, const char *func, const char *file, int line)
{
    log_mark(level, "  FAILED: ", func, file, line);
}

void log_syserror(int level, const char *func, const char *file, int line)
{
    log_mark(level, "  SYSERROR: ", func, file, line, strerror(errno));
}

void log_printf(int level, const char *format, ...)
{
    if (level < log_level)
        return;
    const keep_errno unchanged;
    log_line text(message_max);
    va_list args;
    va_start(args, format);
    text.print(format, args);
    va_end(args);
    text.write();
}

ssize_t log_write(const void *buffer, size_t length)
{
    if (const auto copy = log_copy.load(std::memory_order_relaxed))
        copy(buffer, length);
    return write(log_fd, buffer, length);
}

void log_set_copy(void (*copy)(const void *text, size_t length))
{
    log_copy = copy;
}

void log_flush()
{
    fsync(log_fd);
}

bool log_ready(int patience_ms)
{
    pollfd reader = {log_fd, POLLOUT, 0};
    return poll(&reader, 1, patience_ms) > 0;
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
    const keep_errno unchanged;
    char fixed[512];
    unique_text heap;
    const char *text = fixed;
    va_list args;
    va_start(args, format);
    int length = vsnprintf(fixed, sizeof fixed, format, args);
    va_end(args);
    if (length >= static_cast<int>(sizeof fixed)) {
        char *whole = nullptr;
        unchanged.restore(); // for %m
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
