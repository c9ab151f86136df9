#include "lumd/control.h"

#include "app/app.h"
#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"
#include "lumd/lumd.h"
#include "net/net.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr char log_module[] = "lumd";
constexpr char fifo_path[] = "/tmp/svcctl";
constexpr size_t read_max = 255;

struct request {
    std::string_view keyword;
    void (*act)(lumd *manager, const char *name);
};

constexpr request requests[] = {
    {"start", lumd_start_service},
    {"stop", lumd_stop_service},
};

void act_on_names(lumd *manager, const request &kind, std::string_view rest)
{
    for (rest = skip_space(rest); !rest.empty(); rest = skip_space(rest)) {
        const std::string_view word = span_of(rest, [](char c) { return !is_space(c); });
        char name[read_max + 1];
        copy_text(name, word);
        kind.act(manager, name);
        rest.remove_prefix(word.size());
    }
}

void handle_line(lumd *manager, std::string_view line)
{
    line = skip_space(line);
    for (const request &kind : requests) {
        if (line.starts_with(kind.keyword))
            return act_on_names(manager, kind, line.substr(kind.keyword.size()));
    }
}

void lumd_recvCallback(lumd *manager, int events, int fd, app_fd_handler *)
{
    if (events & APP_EV_READ) {
        char text[read_max + 1];
        const ssize_t length = read(fd, text, read_max);
        text[length > 0 ? length : 0] = '\0';
        log_trace(LOG_HERE, "read fifo: %s", text);
        if (length <= 0) {
            log_failed(LOG_HERE);
            return;
        }
        for (std::string_view rest = text; !rest.empty();)
            handle_line(manager, cut_until(rest, '\n'));
    }
    if (events & APP_EV_ERROR)
        log_trace(LOG_HERE, "%s", strerror(get_socket_error(fd)));
}

unique_fd open_fifo(int flags)
{
    unique_fd fd(open(fifo_path, flags | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
    struct stat status;
    if (fd && (fstat(fd.get(), &status) < 0 || !S_ISFIFO(status.st_mode))) {
        fd.reset();
        errno = ENOTSUP;
    }
    return fd;
}

// The owner of the FIFO controls the requests, so a foreign one is logged.
void tell_of_stranger(int fd)
{
    constexpr char func[] = "open_control_fifo";
    struct stat status;
    if (fstat(fd, &status) < 0)
        return;
    if (S_ISDIR(status.st_mode))
        log_trace(LOG_AS(func), "%s is a directory: remove it, then start again", fifo_path);
    else if (status.st_uid != geteuid())
        log_trace(LOG_AS(func), "%s belongs to user %u: remove it, then start again", fifo_path,
                  status.st_uid);
}

} // namespace

int open_control_fifo(lumd *manager)
{
    mkfifo(fifo_path, 0666);
    unique_fd reader = open_fifo(O_RDONLY);
    if (!reader && (errno == ENOTSUP || errno == ELOOP || errno == ENXIO)) {
        // Something other than a FIFO has the name, and no request could ever arrive.
        unlink(fifo_path);
        mkfifo(fifo_path, 0666);
        reader = open_fifo(O_RDONLY);
    }
    if (!reader) {
        const int error = errno;
        if (const unique_fd there{open(fifo_path, O_PATH | O_NOFOLLOW | O_CLOEXEC)})
            tell_of_stranger(there.get());
        errno = error;
        return -1;
    }
    tell_of_stranger(reader.get());
    // Our own writer keeps the reader from seeing an end of file when the last client closes.
    unique_fd writer = open_fifo(O_WRONLY);
    if (!writer || app_add_fd<lumd_recvCallback>(reader.get(), POLLIN, manager) < 0)
        return -1;
    manager->fifo_fd = reader.release();
    writer.release();
    return 0;
}
