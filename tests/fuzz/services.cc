// A service file. Its services are started, unless one may be a reboot, which never returns, and all can
// be stopped.
#include "tests/fuzz/machine.h"
#include "tests/fuzz/manager.h"
#include "tests/fuzz/target.h"

void take(std::string_view input)
{
    const memory_file file(input);
    machine = {};
    machine.files = {{"/etc/svc.conf", file.path}};
    value_of_all.assign(1, '1');
    static_cast<void>(lumd_parse_conf(&manager, "/etc/svc.conf", -1)); // services read before a failure stay
    lumd_init_service_infos(&manager);
    const auto slots = lumd_used_slots(&manager);
    if (input.find("reboot") == input.npos) {
        for (service_info &slot : slots)
            lumd_do_start(&slot, slot.name);
        machine.now_us += 3000000;
        app_poll_once();
        for (service_info &slot : slots)
            slot.svcent ? lumd_do_stop(&slot, 1) : void();
        require(timer_run_expired() == -1 && !app_scheduler.head);
    }
    std::destroy_at(&manager);
    new (&manager) lumd{{}, &bridge, -1, all_kinds, {}, {}};
}
