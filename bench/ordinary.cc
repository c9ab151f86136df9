// A typical service: linked with the C library, which it shares with the daemon.
#include "bench/clock.h"

int main()
{
    const start_report report = {monotonic_ns(), getpid()};
    if (write(STDOUT_FILENO, &report, sizeof report) != sizeof report)
        return 1;
    for (;;)
        pause();
}
