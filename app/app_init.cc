#include "app/app.h"
#include "app/app_options.h"
#include "app/crash.h"
#include "app/log.h"
#include "app/symbols.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr char log_module[] = "app";

// Once SIGPIPE is handled, a write to a peer that has gone fails with EPIPE at its caller. If it was the
// log's reader that has gone, our own line raises the signal again: ignoring it for a moment discards
// that one.
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
    close_descriptors();
}

void install_handlers()
{
    signal(SIGPIPE, sigio_handler);
    for (const int sig : {SIGSEGV, SIGILL, SIGABRT})
        install_handler(sig, fatal_signal_handler);
    if (install_handler(SIGALRM, sig_alrm_handler) < 0) {
        dprintf(STDOUT_FILENO, "signal error: %s!!!!!!!!!!!!!!\n", strerror(errno));
        exit(-1);
    }
}

} // namespace

int app_init(int argc, char **argv, const app_option *options, const char *appname)
{
    log_start();
    if (options) {
        app_opt_parse(argc, argv, options);
        app_conf_load_all(options, appname);
        app_opt_env(options);
    }
    symbols_load();
    crash_init(reinterpret_cast<uintptr_t>(__builtin_frame_address(0)));
    debug_server_init();
    scheduler_init(&app_scheduler);
    install_handlers();
    atexit(app_atexit);
    return 0;
}
