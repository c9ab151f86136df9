// Words with a meaning. The first byte selects the parser of the first line; the rest is its context.
#include "app/glob.h"
#include "app/text.h"
#include "lumd/kinds.h"
#include "lumd/proc_command.h"
#include "lumd/time_zone.h"
#include "net/resolver.h"
#include "tests/fuzz/machine.h"
#include "tests/fuzz/manager.h"
#include "tests/fuzz/target.h"

#include <fnmatch.h>

// Once scheduled, its program starts when its time has come.
static void schedule(char *spec)
{
    service_info slot = {"s", &manager, {}, nullptr, {}, 0};
    slot.m_cfg.reset(create_service_cfg(&manager, 0));
    svcent *entry = create_sched_svcent(&slot, slot.name);
    char *argv[] = {slot.name, spec, slot.name, nullptr};
    const bool waits = entry->ops->start(entry, 3, argv, nullptr) == 0;
    for (int left; waits && machine.starts == 0; machine.now_us += (left + 1) * 1000LL)
        require((left = timer_run_expired()) > 0);
    entry->ops->release(entry);
}

void take(std::string_view input)
{
    machine = {};
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1); // stays for all inputs
    std::string text(cut_until(input, '\n').substr(0, 255));
    const char kind = text[0], *word = text.empty() ? "" : &text[1];
    value_of_all = input.substr(0, 255);
    machine.now_us += static_cast<int64_t>(strtoull(value_of_all.c_str(), nullptr, 10) % (1ULL << 53) * 1000);
    uint8_t address[4];
    std::string pattern = word;
    for (size_t at = 0; (at = pattern.find('[', at)) != pattern.npos; at += 3)
        pattern.replace(at, 1, "[[]"); // here it is an ordinary character
    if (kind == 'g' && strlen(value_of_all.c_str()) == value_of_all.size())
        require(glob_match(word, value_of_all) ==
                !fnmatch(pattern.c_str(), value_of_all.c_str(), FNM_NOESCAPE));
    const int number = kind == 'k' ? parse_sigspec(word) : -1;
    require(number == -1 || (number > 0 && number < SIGRTMAX));
    kind == 't' ? schedule(&text[1]) : void();
    kind == 'z' ? init_tz(word) : 0;
    if (kind == 'a')
        static_cast<void>(parse_ipv4(word, address));
}
