// The started program: reports on standard output when its first instruction ran, then waits to be ended. No
// start-up code of the C library runs before it.
#include "bench/clock.h"

extern "C" [[noreturn]] void _start()
{
    start_report report;
    report.at_ns = monotonic_ns();
    report.pid = syscall(SYS_getpid);
    syscall(SYS_write, STDOUT_FILENO, &report, sizeof report);
    for (;;)
        syscall(SYS_ppoll, nullptr, 0, nullptr, nullptr, 0);
}
