// Mails a bug report with the given number of log lines.
#include "app/bugreport.h"
#include "app/log.h"

#include <cstdlib>

int main(int, char **argv)
{
    bugreport_enable();
    for (int i = 0; i < atoi(argv[1]); ++i)
        log_printf(0, "line %d\n", i);
    return bugreport_send() == 0 ? 0 : 1;
}
