#include "app/log.h"

#include "app/keep_errno.h"
#include "app/memory.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

constexpr char log_module[] = "log";
constexpr size_t message_max = 254;
constexpr size_t line_max = 298;

// A text waits max_naps naps for its reader in all.
constexpr timespec nap = {0, 10'000'000};
constexpr int max_naps = 20;

// An output and how well its reader keeps up.
struct output {
    int fd;
    int own = -1;                     // the same, reopened so that no write blocks; or -1
    std::atomic<unsigned> lost{};     // texts lost since the last one that got through
    std::atomic<bool> is_cut = false; // a part of the last lost text was written
};
static_assert(std::atomic<unsigned>::is_always_lock_free, "used in signal handlers");

output standard_output = {STDOUT_FILENO};
output standard_error = {STDERR_FILENO};
output log_file = {-1};
output *log_output = &standard_error;

int log_level = 0;
std::atomic<void (*)(const void *, size_t)> log_copy;

// A line being built, cut at max characters. Clients wait while the daemon logs, so only the message itself
// goes through a format.
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

    // False if the format is wrong.
    __attribute__((format(printf, 2, 0))) bool print(const char *format, va_list args)
    {
        const size_t room = std::min(message_max, static_cast<size_t>(end_ - at_));
        const int length = vsnprintf(at_, room + 1, format, args);
        at_ += std::clamp(length, 0, static_cast<int>(room));
        return length >= 0;
    }

    [[nodiscard]] std::string_view text() const { return {text_, static_cast<size_t>(at_ - text_)}; }

    void write() const
    {
        if (at_ != text_)
            log_write(text_, text().size());
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

ssize_t write_both(int fd, std::string_view first, std::string_view second)
{
    if (first.empty())
        return write(fd, second.data(), second.size());
    const auto part = [](std::string_view of) { return iovec{const_cast<char *>(of.data()), of.size()}; };
    const iovec parts[] = {part(first), part(second)};
    return writev(fd, parts, 2);
}

// Returns -1 with EAGAIN if there is no room now. Without a descriptor of our own, another writer of the same
// pipe may take the room that poll saw, or a terminal may need more: the write then blocks.
ssize_t write_now(const output &to, std::string_view first, std::string_view second)
{
    if (to.own >= 0) {
        const ssize_t written = write_both(to.own, first, second);
        if (written >= 0 || errno != EBADF) // closed in a child before its exec
            return written;
    }
    pollfd reader = {to.fd, POLLOUT, 0};
    const timespec at_once = {};
    const int ready = ppoll(&reader, 1, &at_once, nullptr);
    if (ready > 0 || (ready < 0 && errno != EINTR))
        return write_both(to.fd, first, second);
    errno = EAGAIN;
    return -1;
}

// Returns the length of text, or -1 if its end was lost. The text takes over the count of lost texts that it
// reports: a signal handler may log in between.
ssize_t write_text(output &to, std::string_view text)
{
    const auto length = static_cast<ssize_t>(text.size());
    unsigned lost = to.lost > 0 ? to.lost.exchange(0) : 0;
    log_line notice(message_max);
    if (lost > 0)
        notice << (to.is_cut ? "\n  " : "  ") << __func__ << "(): " << log_module << ": " << __LINE__
               << ": lines lost: " << static_cast<int>(lost) << "\n";
    std::string_view before = notice.text();
    for (int naps = lost > 0 ? 0 : max_naps; !before.empty() || !text.empty();) {
        const ssize_t written = write_now(to, before, text.substr(0, PIPE_BUF - before.size()));
        if (written > 0) {
            const size_t of_notice = std::min(before.size(), static_cast<size_t>(written));
            before.remove_prefix(of_notice);
            text.remove_prefix(static_cast<size_t>(written) - of_notice);
            lost = before.empty() ? 0 : lost;
            to.is_cut = !before.empty() || !text.empty();
        } else if (written < 0 && errno == EAGAIN && naps-- > 0) {
            nanosleep(&nap, nullptr);
        } else {
            to.lost += lost + (written < 0 && errno == EAGAIN ? 1 : 0);
            return -1;
        }
    }
    return length;
}

// The whole text, however long.
__attribute__((format(printf, 2, 0))) void print(output &to, const char *format, va_list args)
{
    const keep_errno unchanged;
    char fixed[512];
    unique_text heap;
    const char *text = fixed;
    va_list again;
    va_copy(again, args);
    int length = vsnprintf(fixed, sizeof fixed, format, args);
    if (length >= static_cast<int>(sizeof fixed)) {
        char *whole = nullptr;
        unchanged.restore(); // for %m
        const int whole_length = vasprintf(&whole, format, again);
        heap.reset(whole_length < 0 ? nullptr : whole);
        text = heap ? heap.get() : fixed;
        length = heap ? whole_length : static_cast<int>(sizeof fixed) - 1;
    }
    va_end(again);
    if (length > 0)
        write_text(to, {text, static_cast<size_t>(length)});
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
    return write_text(*log_output, {static_cast<const char *>(buffer), length});
}

void log_set_copy(void (*copy)(const void *text, size_t length))
{
    log_copy = copy;
}

void log_flush()
{
    fsync(log_output->fd);
}

void log_start()
{
    for (output *each : {&standard_output, &standard_error}) {
        struct stat status;
        const bool may_wait =
            fstat(each->fd, &status) == 0 && (S_ISFIFO(status.st_mode) || isatty(each->fd) == 1);
        if (!may_wait || each->own >= 0)
            continue;
        char path[32];
        snprintf(path, sizeof path, "/proc/self/fd/%d", each->fd);
        const unique_fd own(open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        each->own = fcntl(own.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    }
}

int log_open(const char *path)
{
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return -1;
    log_file.fd = fd;
    log_output = &log_file;
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
    va_list args;
    va_start(args, format);
    print(standard_error, format, args);
    va_end(args);
}

void print_output(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    print(standard_output, format, args);
    va_end(args);
}
