#include "app/app.h"
#include "app/log.h"

#include <csignal>
#include <cstdlib>
#include <unistd.h>

namespace {

constexpr char log_module[] = "app";
constexpr int last_closed_fd = 255;

// A write to a peer that has gone then fails with EPIPE where it was made. When it was the log's reader that
// has gone, our own line raises the signal anew: ignoring it for a moment discards that one.
void sigio_handler(int)
{
    log_trace(LOG_HERE, "SIGPIPE!");
    signal(SIGPIPE, SIG_IGN);
    signal(SIGPIPE, sigio_handler);
}

void app_atexit()
{
    log_trace(LOG_HERE, "exiting ...");
    log_flush();
    for (int fd = 0; fd <= last_closed_fd; ++fd) {
        fsync(fd);
        close(fd);
    }
}

} // namespace

int app_init(int, char **, const app_option *, const char *)
{
    scheduler_init(&app_scheduler);
    signal(SIGPIPE, sigio_handler);
    atexit(app_atexit);
    return 0;
}
