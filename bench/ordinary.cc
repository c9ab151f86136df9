// A service as most are: linked with the C library, which the daemon then has in common with it.
#include "bench/clock.h"

int main()
{
    const start_report report = {monotonic_ns(), getpid()};
    if (write(STDOUT_FILENO, &report, sizeof report) != sizeof report)
        return 1;
    for (;;)
        pause();
}
