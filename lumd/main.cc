#include "app/app.h"
#include "app/log.h"
#include "lumd/cfgdb.h"
#include "lumd/kinds.h"
#include "lumd/lumd.h"
#include "lumd/time_zone.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr char default_path_list[] = "/etc/svc.conf:/usr/etc/svc.conf";

// Without a console, the first descriptors that we open would become standard output and error, and the log
// would go into the control FIFO as requests. SIGPIPE is ignored because a console without a reader must not
// end the daemon during start-up.
void hold_standard_descriptors()
{
    int fd;
    do {
        fd = open("/dev/null", O_RDWR);
        if (fd < 0)
            fd = open("/", O_RDONLY);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0)
        close(fd);
    signal(SIGPIPE, SIG_IGN);
}

} // namespace

int main(int argc, char **argv)
{
    hold_standard_descriptors();
    setenv("DEBUG", "1", 0);
    log_start();
    print_output("starting lumd...\n");
    app_init(argc, argv, nullptr, "lumd");

    lumd *manager = lumd_create();
    if (!manager) {
        print_error("proc-chain init failed!\n");
        return -1;
    }
    manager->creators = all_kinds;
    if (lumd_init(manager, argc >= 2 ? argv[1] : default_path_list) < 0) {
        print_error("cannot initialize lumd!\n");
        return -1;
    }
    if (const char *zone = cfgdb_getSyscfg(manager->cfgdb, "TZ"))
        init_tz(zone);
    print_output("lumd started!\n");
    app_run();
    return 0;
}
