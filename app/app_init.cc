#include "app/app.h"
#include "app/log.h"

#include <csignal>
#include <cstdlib>
#include <unistd.h>

namespace {

constexpr char log_module[] = "app";
constexpr int last_closed_fd = 255;

// A write to a peer that has gone then fails with EPIPE where it was made.
void sigio_handler(int)
{
    signal(SIGPIPE, sigio_handler);
    log_trace(LOG_HERE, "SIGPIPE!");
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
