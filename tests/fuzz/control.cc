// Input of the control FIFO. The daemon looks at it at each 0xFF, and three seconds later at each 0xFE.
// Afterwards, all services can be stopped.
#include "lumd/control.h"
#include "tests/fuzz/machine.h"
#include "tests/fuzz/manager.h"
#include "tests/fuzz/target.h"

static constexpr std::string_view services =
    "service a\nexec sched 1 /a\nservice b\nexec sched 2 /b\ndepends a\nservice c\nexec -c\ndepends b V=on\n"
    "service d\nexec sched x\ndepends e\nservice e\nexec sched 9 /e\ndepends d\nservice a\nexec f\nstop -g\n"
    "service abcdefghijklmnopqrstuvwxyz0123456\nexec h\ndepends d\n";

// The writing end of the FIFO.
static int open_fifo()
{
    int ends[2];
    const memory_file file(services);
    require(pipe2(ends, O_CLOEXEC | O_NONBLOCK) == 0);
    machine.files = {{"/etc/svc.conf", file.path},
                     {"/tmp/svcctl", "/proc/self/fd/" + std::to_string(ends[0])}};
    require(lumd_parse_conf(&manager, "/etc/svc.conf", -1) == 6 && open_control_fifo(&manager) == 0);
    lumd_init_service_infos(&manager);
    value_of_all = "on";
    return machine.last_opened;
}

void take(std::string_view input)
{
    machine = {};
    static const int fifo = open_fifo();
    const std::string text = std::string(input) + std::string(input.size() / 255 + 1, '\xFF');
    for (size_t begin = 0, end; begin < text.size(); begin = end + 1) {
        end = text.find_first_of("\xFE\xFF", begin);
        require(write(fifo, &text[begin], end - begin) == static_cast<ssize_t>(end - begin));
        machine.now_us += text[end] == '\xFE' ? 3000000 : 0;
        app_poll_once();
    }
    for (service_info &slot : lumd_used_slots(&manager))
        slot.svcent ? lumd_do_stop(&slot, 1) : void();
    require(timer_run_expired() == -1 && !app_scheduler.head);
}
