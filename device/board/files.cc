#include "device/board/files.h"

#include "device/board/board.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr off_t most_log_bytes = 1 << 18;
constexpr mode_t file_mode = 0644, directory_mode = 0755;
// Opening a FIFO or a terminal must not block.
constexpr int harmless = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

// A call that turns out not to be the board's must leave errno as it was.
class errno_scope {
  public:
    errno_scope() = default;
    ~errno_scope() { errno = before_; }
    errno_scope(const errno_scope &) = delete;
    errno_scope &operator=(const errno_scope &) = delete;

  private:
    int before_ = errno;
};

class path {
  public:
    explicit path(const char *name, const char *ending = "")
    {
        const int length = snprintf(text_, sizeof text_, "%s/%s%s", board_dir(), name, ending);
        if (length < 0 || static_cast<size_t>(length) >= sizeof text_)
            text_[0] = '\0'; // matches no file
    }
    [[nodiscard]] const char *get() const { return text_; }

  private:
    char text_[512];
};

void close_file(int fd)
{
    syscall(SYS_close, fd);
}

ssize_t write_bytes(int fd, const char *text, size_t size)
{
    return syscall(SYS_write, fd, text, size);
}

bool is_space(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && is_space(text.back()))
        text.remove_suffix(1);
    while (!text.empty() && is_space(text.front()))
        text.remove_prefix(1);
    return text;
}

} // namespace

int board_open_file(const char *name, int flags)
{
    const auto fd =
        static_cast<int>(syscall(SYS_openat, AT_FDCWD, path(name).get(), flags | harmless, file_mode));
    struct stat status;
    if (fd < 0 || (fstat(fd, &status) == 0 && S_ISREG(status.st_mode)))
        return fd;
    close_file(fd);
    errno = ENXIO;
    return -1;
}

bool board_is_file(int fd, const char *name)
{
    const errno_scope kept;
    struct stat open_one, named;
    return fstat(fd, &open_one) == 0 && S_ISREG(open_one.st_mode) && stat(path(name).get(), &named) == 0 &&
           open_one.st_dev == named.st_dev && open_one.st_ino == named.st_ino;
}

void board_note(const char *log, const char *format, ...)
{
    const errno_scope kept;
    char line[256];
    const int64_t now = board_now_us();
    int length = snprintf(line, sizeof line, "%lld.%06lld ", static_cast<long long>(now / 1000000),
                          static_cast<long long>(now % 1000000));
    va_list arguments;
    va_start(arguments, format);
    length += vsnprintf(line + length, sizeof line - static_cast<size_t>(length), format, arguments);
    va_end(arguments);
    length = std::min(length, static_cast<int>(sizeof line) - 1);
    line[length++] = '\n';
    const int fd = board_open_file(log, O_WRONLY | O_CREAT | O_APPEND);
    if (fd < 0)
        return;
    struct stat status;
    write_bytes(fd, line, static_cast<size_t>(length));
    if (fstat(fd, &status) == 0 && status.st_size > most_log_bytes)
        rename(path(log).get(), path(log, ".old").get());
    close_file(fd);
}

std::string_view board_setting(const char *name, std::span<char> buffer)
{
    const errno_scope kept;
    const int fd = board_open_file(name, O_RDONLY);
    const long length = fd < 0 ? -1 : syscall(SYS_read, fd, buffer.data(), buffer.size() - 1);
    if (fd >= 0)
        close_file(fd);
    const std::string_view text = trimmed({buffer.data(), static_cast<size_t>(std::max(length, 0L))});
    memmove(buffer.data(), text.data(), text.size());
    buffer[text.size()] = '\0';
    return {buffer.data(), text.size()};
}

bool board_has_directory(const char *name)
{
    const errno_scope kept;
    struct stat status;
    return stat(path(name).get(), &status) == 0 && S_ISDIR(status.st_mode);
}

int board_make_directory(const char *name)
{
    return mkdir(path(name).get(), directory_mode) < 0 && errno != EEXIST ? -1 : 0;
}

int board_write_file(const char *name, const char *text, int flags)
{
    const int fd = board_open_file(name, O_WRONLY | O_CREAT | flags);
    if (fd < 0)
        return errno == EEXIST ? 0 : -1;
    char line[128];
    const int length = snprintf(line, sizeof line, "%s\n", text);
    const ssize_t written = write_bytes(fd, line, static_cast<size_t>(length));
    close_file(fd);
    return written == length ? 0 : -1;
}
