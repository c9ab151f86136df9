#include "tests/lumd/walk_model.h"

#include "app/app.h"
#include "lumd/cfgdb.h"
#include "lumd/child.h"
#include "lumd/kinds.h"
#include "lumd/lumd.h"
#include "lumd/proc_child.h"
#include "syscfg/syscfg.h"
#include "tests/support/support.h"

#include <fcntl.h>
#include <random>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace walking;

namespace {

// The replaced layer under the daemon.
struct timed {
    timer_callback callback;
    void *ctx;
    bool started, once;
};
model *believed; // the model, in the process that walks
programs table;
std::map<const timer *, timed> timers;
std::string fault;

void run_timer(void *ctx)
{
    timed &at = timers.at(static_cast<timer *>(ctx));
    at.started = !at.once;
    at.callback(at.ctx);
}
void die(pid_t pid, int how)
{
    table.die(pid, how);
    raise(SIGCHLD);
}
} // namespace

extern "C" {

pid_t __wrap_spawn_child(const char *, char *const *argv, void (*)())
{
    const int slot = argv[1] ? atoi(argv[1]) : services;
    const pid_t pid = table.spawn(slot);
    if (slot < services && believed->plans[slot].brief)
        die(pid, 0);
    return pid;
}
pid_t __real_waitpid(pid_t pid, int *status, int options);
pid_t __wrap_waitpid(pid_t pid, int *status, int options)
{
    if (!believed || table.dead.empty())
        return believed ? 0 : __real_waitpid(pid, status, options);
    const pid_t dead = table.dead.front();
    const int how = table.reap();
    *status = how < 0 ? -how : how << 8;
    return dead;
}
int __wrap_board_kill(int pid, int number)
{
    const auto found = table.all.find(pid);
    if (found == table.all.end())
        fault += "a signal to nobody\n";
    else if (found->second.living && ++table.signalled[found->second.slot] &&
             believed->plans[found->second.slot].prompt)
        die(pid, -number);
    return 0;
}
// Replaces libc's, below the wrapper: a pipe of packets, each of which takes a page.
int pipe2(int *ends, int flags)
{
    const int size = static_cast<int>(notices_max) * static_cast<int>(sysconf(_SC_PAGESIZE));
    return syscall(SYS_pipe2, ends, flags | O_DIRECT) < 0 || fcntl(ends[1], F_SETPIPE_SZ, size) != size ? -1
                                                                                                        : 0;
}
timer *__real_timer_new(uint32_t period_ms, void *ctx, timer_callback run, const char *name);
timer *__wrap_timer_new(uint32_t period_ms, void *ctx, timer_callback run, const char *name)
{
    timer *made = __real_timer_new(period_ms, nullptr, run_timer, name);
    timers[made] = {run, ctx, false, false};
    made->ctx = made;
    return made;
}
int __real_timer_start(timer *timer, int count);
int __wrap_timer_start(timer *timer, int count)
{
    timers.at(timer).started = true;
    timers.at(timer).once = count > 0;
    return __real_timer_start(timer, count);
}
int __real_timer_stop(timer *timer);
int __wrap_timer_stop(timer *timer)
{
    if (timer)
        timers.at(timer).started = false;
    return __real_timer_stop(timer);
}
void __real_timer_free(timer *timer);
void __wrap_timer_free(timer *timer)
{
    timers.erase(timer);
    __real_timer_free(timer);
}
} // extern "C"

namespace {

struct chance {
    std::mt19937 engine;

    int below(int end) { return static_cast<int>(engine() % static_cast<unsigned>(end)); }
    bool one_of(int many) { return below(many) == 0; }
    template <typename T, size_t size>
    T any(const T (&of)[size])
    {
        return of[below(size)];
    }
    int value() { return any({1, 1, 1, 1, 0, 3, no_value}); }

    plan any_plan()
    {
        constexpr line lines[] = {NO_LINE, NO_LINE, HANDLER, HANDLER, HELPER, BAD_HANDLER, NO_HELPER};
        constexpr kind others[] = {ONE_SHOT, ONE_SHOT, JOB, LINK, WATCHDOG, MISSING};
        plan made;
        made.kind = one_of(3) ? any(others) : PROGRAM;
        made.stop = any(lines), made.reload = any(lines);
        made.every = any({0, 1, 3}), made.brief = one_of(12), made.prompt = one_of(2);
        for (int n = below(6) - 2; n > 0; --n)
            made.needs.push_back(one_of(50) ? -1 : below(services));
        for (int n = below(6) - 3; n > 0; --n)
            made.conditions.emplace_back(below(variables), value());
        made.watched = made.kind == JOB ? 0 : below(3 * variables);
        return made;
    }

    event any_event()
    {
        constexpr verb often[] = {START, START, START, START, STOP, END,  END,  END,  END, END,
                                  SET,   PASS,  PASS,  PASS,  PASS, PASS, WAIT, WAIT, WAIT};
        event made = {any(often), {}, 1 + below(6)};
        const int most[] = {3, 1, 0, 0, one_of(10) ? 60 : 3, 3};
        for (int n = std::min(most[made.verb], 1 + below(60)); n > 0; --n)
            made.names.push_back(below(made.verb == SET ? variables : services + (made.verb == END)));
        if (made.verb >= END)
            made.number = made.verb == END ? any({0, 0, 0, 7, -SIGKILL}) : value();
        return made;
    }
};

std::string said(const event &e)
{
    std::string text = verb_words[e.verb];
    for (const int name : e.names)
        text += (e.verb == SET ? " V" : " s") + std::to_string(name);
    return text + (e.verb >= PASS ? " " + std::to_string(e.number) : "") + "\n";
}

std::string said(const plan &p, int s)
{
    const std::string number = std::to_string(s), every = p.every ? std::to_string(p.every) : "$(V0)";
    const std::string execs[] = {"/bin/true " + number,
                                 "-/bin/true " + number,
                                 "sched " + every + " /bin/true",
                                 "netmon -n lo",
                                 "watchdog",
                                 "/bin/nosuch"};
    const std::string lines[] = {"", "kill SIGUSR1", "kill SIGNO", "/bin/echo " + number, "nosuch"};
    std::string text = "service s" + number + "\nexec " + execs[p.kind] + "\ndepends";
    for (const auto &[variable, value] : p.conditions)
        text += std::string(" ") + variable_names[variable] + "=" + (value < 0 ? "''" : value_texts[value]);
    for (const int needed : p.needs)
        text += needed < 0 ? " nobody" : " s" + std::to_string(needed);
    text +=
        "\nsyscfg V" + std::to_string(p.watched) + (p.stop ? "\nstop -first\nstop -" + lines[p.stop] : "");
    return text + (p.reload ? "\nreload -" + lines[p.reload] + "\n" : "\n");
}

const char *get_variable(syscfg *, const char *name)
{
    const int value = isdigit(name[1]) ? believed->values[static_cast<size_t>(atoi(name + 1))] : no_value;
    return value == no_value ? nullptr : value_texts[value];
}
constexpr syscfg_ops database_operations = {nullptr, nullptr, get_variable};

// Drives the daemon and the model through the same events.
struct walker {
    model right;
    lumd *manager = lumd_create();
    syscfg database = {};
    const int64_t began = support::now_us;

    explicit walker(const std::vector<plan> &plans) : right{plans}
    {
        std::string text;
        for (int s = 0; s < services; ++s)
            text += said(plans[s], s);
        support::write_file("/etc/svc.conf", text);
        manager->creators = all_kinds;
        fault += lumd_parse_conf(manager, "/etc/svc.conf", -1) < 0 ? "no service file\n" : "";
        lumd_init_service_infos(manager);
        database.ops = &database_operations;
        manager->cfgdb = create_cfgdb(manager);
        manager->cfgdb->changed = lumd_processSyscfgChange;
        manager->cfgdb->syscfg = &database;
        fault += child_reaper_init() < 0 ? "no pipe for ends\n" : "";
        believed = &right;
    }

    // Events and their passes begin at times chosen so that timers fall due only between them; so the
    // daemon's extra clock ticks, one per look, do not matter.
    void at(int64_t us)
    {
        constexpr int64_t most_late_us = 9000;
        static int64_t begun;
        if (support::now_us - began - std::exchange(begun, us) > most_late_us)
            fault += "too many looks at the clock\n";
        right.now = us;
        support::now_us = began + us;
    }

    void go(const event &e)
    {
        constexpr int64_t event_us = 130000, pass_us = 20000;
        const int64_t now = (right.now / event_us + (e.verb == WAIT ? e.number : 1)) * event_us;
        std::vector<const char *> changed;
        at(now);
        for (const int s : e.names) {
            const std::string name = "s" + std::to_string(s);
            const auto found = std::find_if(table.all.begin(), table.all.end(),
                                            [s](auto &p) { return p.second.slot == s && p.second.living; });
            if (e.verb == START)
                lumd_start_service(manager, name.c_str()), right.start(s);
            else if (e.verb == STOP)
                lumd_stop_service(manager, name.c_str()), right.stop(s, true);
            else if (e.verb == SET)
                changed.push_back(variable_names[s]), right.values[s] = e.number;
            else if (found != table.all.end()) // all end before the handler runs
                right.die(found->first, e.number), table.die(found->first, e.number);
        }
        if (e.verb == END && right.sigchld)
            raise(SIGCHLD), right.reap();
        if (e.verb == SET) {
            cfgdb_processSyscfgChange(manager->cfgdb, changed.data(), static_cast<int>(changed.size()));
            right.change(e.names);
        }
        at(now + pass_us);
        for (int n = e.verb == PASS ? e.number : 0; n > 0; --n)
            app_poll_once(), right.pass();
        support::captured_log::clear();
        support::poll_timeouts.clear();
    }

    void check()
    {
        std::set<const child_node *> waiting;
        for (int s = 0; s < services; ++s) {
            const service_info &slot = manager->svcs[s];
            const auto *entry = right.plans[s].kind < JOB ? static_cast<proc_svcent *>(slot.svcent) : nullptr;
            const model::slot &b = right.slots[s];
            const std::array<int, 7> should_be = {b.entry, b.state,        b.child,   b.ended,
                                                  b.timer, b.restart != 0, b.job != 0};
            std::array<int, 7> is = {slot.svcent != nullptr, slot.svcent ? int{slot.svcent->state} : 0};
            if (entry)
                is[2] = entry->pid, is[3] = entry->ended;
            if (const timer *restart = slot.restart_timer.get())
                is[4] = true, is[5] = timers.at(restart).started;
            for (const auto &[timer, what] : timers)
                is[6] |= slot.svcent && what.ctx == slot.svcent && what.started;
            fault += is == should_be
                         ? ""
                         : "s" + std::to_string(s) + ": entry state child ended timer due job, is/should be";
            for (size_t i = 0; is != should_be && i < is.size(); ++i)
                fault +=
                    " " + std::to_string(is[i]) + "/" + std::to_string(should_be[i]) + (i == 6 ? "\n" : "");
            if (entry && entry->pid > 0)
                waiting.insert(&entry->node);
            else if (entry && entry->node.next != &entry->node)
                fault += "s" + std::to_string(s) + " is listed without a child\n";
        }
        const auto owners = [this](const timer *t, const void *ctx) {
            return (t == app_scheduler.timer) +
                   std::count_if(manager->svcs, manager->svcs + services, [=](auto &s) {
                       return s.restart_timer.get() == t || (s.svcent && s.svcent == ctx);
                   });
        };
        for (const auto &[timer, what] : timers)
            fault += owners(timer, what.ctx) == 1 ? "" : std::string(timer->name) + " has not one owner\n";
        size_t listed = 0;
        for (const auto *at : waiting)
            listed += at->next->prev == at && at->prev->next == at &&
                      (waiting.contains(at->next) || !at->next->entry);
        if (listed != waiting.size() || !(table == right.table))
            fault += "other programs live or are listed\n";
    }
};

// Walks in a forked process, since the daemon may crash.
bool fails(const std::vector<plan> &plans, const std::vector<event> &events, bool tell = false)
{
    const int status = support::forked([&] {
        alarm(120);
        if (!tell)
            dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
        const support::captured_log quiet;
        walker both(plans);
        for (size_t i = 0; i < events.size() && fault.empty(); ++i) {
            both.go(events[i]);
            both.check();
        }
        printf("%s", tell ? fault.c_str() : "");
        return int{!fault.empty()};
    });
    printf("%s", tell && WIFSIGNALED(status) ? "ends by a signal\n" : "");
    return status != 0;
}

// Drops everything from a list, part of a failing walk, that the failure does not need.
template <typename List, typename Test>
void shrink(List &list, Test still_fails)
{
    int trials = 1000;
    for (size_t chunk = list.size(), at = 0; chunk > 0 && --trials > 0;) {
        const List before = list;
        const auto from = list.begin() + static_cast<std::ptrdiff_t>(at);
        list.erase(from, from + static_cast<std::ptrdiff_t>(std::min(chunk, list.size() - at)));
        if (list.size() == before.size() || !still_fails()) {
            list = before;
            at += chunk;
        }
        chunk = at < list.size() ? chunk : chunk / 2;
        at = at < list.size() ? at : 0;
    }
}

void tell_shortest(std::vector<plan> plans, std::vector<event> events)
{
    const auto still_fails = [&] { return fails(plans, events); };
    shrink(events, still_fails);
    for (event &one : events)
        shrink(one.names, still_fails);
    for (plan &one : plans) {
        const plan full = std::exchange(one, plan());
        one = still_fails() ? one : full;
    }
    shrink(events, still_fails);
    for (int s = 0; s < services; ++s)
        printf("%s", plans[s].kind == MISSING ? "" : said(plans[s], s).c_str());
    for (const event &e : events)
        printf("%s", said(e).c_str());
    fails(plans, events, true);
}

struct walk : support::test {};

TEST_F(walk, keeps_to_the_rules)
{
    const auto given = [](const char *name, long otherwise) {
        return getenv(name) ? atol(getenv(name)) : otherwise;
    };
    const long total = given("LUMD_WALK_EVENTS", 100000);
    long seed = given("LUMD_WALK_SEED", 1), counts[verbs] = {};
    for (long done = 0; done < total && !HasFailure(); ++seed) {
        chance random = {std::mt19937(static_cast<unsigned>(seed))};
        std::vector<plan> plans(services);
        std::vector<event> events;
        for (plan &one : plans)
            one = random.any_plan();
        // At most 16 dependents each, in the order of the table.
        for (int s = 0; s < services * services; ++s) {
            const auto &needs = plans[s % services].needs;
            auto &by = plans[s / services].needed_by;
            if (by.size() < 16 && std::count(needs.begin(), needs.end(), s / services))
                by.push_back(s % services);
        }
        for (; events.size() < 2000 && done < total; ++done) {
            events.push_back(random.any_event());
            ++counts[events.back().verb];
        }
        if (fails(plans, events)) {
            ADD_FAILURE() << "LUMD_WALK_SEED=" << seed << " fails; as short as can be:";
            tell_shortest(plans, events);
        }
    }
    for (int verb = 0; verb < verbs; ++verb)
        printf("%s %ld%s", verb_words[verb], counts[verb], verb + 1 < verbs ? ", " : "\n");
}
} // namespace
