#include "tests/lumd/walk_model.h"

#include "app/app.h"
#include "lumd/cfgdb.h"
#include "lumd/lumd.h"
#include "lumd/proc_se.h"
#include "syscfg/syscfg.h"
#include "tests/support/support.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

// Programs are rows of a table and timers are counted; all else of the daemon is as it ships.
namespace walk {
namespace {

struct row {
    int slot, how;
    bool living;
};
struct timed {
    timer_callback callback;
    void *ctx;
    bool started;
};
struct {
    bool on; // in the process that walks
    model *believed;
    std::map<pid_t, row> processes;
    std::deque<pid_t> dead;
    std::array<int, services + 1> programs, signals;
    std::set<int> refused;
    std::map<timer *, timed> timers;
    std::string fault;
} world;

void die(pid_t pid, int how)
{
    world.processes[pid].living = false;
    world.processes[pid].how = how;
    world.dead.push_back(pid);
}

void run_timer(void *ctx)
{
    auto &at = world.timers.at(static_cast<timer *>(ctx));
    at.started = ctx == app_scheduler.timer;
    at.callback(at.ctx);
}
} // namespace
} // namespace walk

using namespace walk;
extern "C" {

pid_t __wrap__Z11spawn_childPKcPKPcPFvvE(const char *, char *const *argv, void (*)())
{
    const int slot = argv[1] ? atoi(argv[1]) : services;
    errno = EAGAIN;
    if (world.refused.erase(slot))
        return -1;
    pid_t pid = 100;
    while (world.processes.contains(pid))
        ++pid;
    world.processes[pid] = {slot, 0, true};
    ++world.programs[slot];
    if (slot < services && world.believed->plans[slot].brief) {
        die(pid, 0);
        raise(SIGCHLD);
    }
    return pid;
}

pid_t __real_waitpid(pid_t pid, int *status, int options);
pid_t __wrap_waitpid(pid_t pid, int *status, int options)
{
    if (!world.on)
        return __real_waitpid(pid, status, options);
    errno = ECHILD;
    if (world.dead.empty())
        return world.processes.empty() ? -1 : 0;
    const pid_t dead = world.dead.front();
    const int how = world.processes[dead].how;
    *status = how < 0 ? -how : how << 8;
    world.dead.pop_front();
    world.processes.erase(dead);
    return dead;
}

int __wrap__Z10board_killii(int pid, int number)
{
    row &to = world.processes[pid];
    if (to.living) {
        ++world.signals[to.slot];
        if (world.believed->plans[to.slot].prompt) {
            die(pid, -number);
            raise(SIGCHLD);
        }
    }
    return 0;
}

// A pipe of packets, each of which takes a page of it.
int __real_pipe2(int *ends, int flags);
int __wrap_pipe2(int *ends, int flags)
{
    const int size = static_cast<int>(notices_max) * static_cast<int>(sysconf(_SC_PAGESIZE));
    const int result = __real_pipe2(ends, flags | O_DIRECT);
    return result == 0 && fcntl(ends[1], F_SETPIPE_SZ, size) == size ? 0 : -1;
}

#define TIMER_NEW(prefix) prefix##_Z9timer_newjPvPFvS_EPKc
timer *TIMER_NEW(__real_)(uint32_t period_ms, void *ctx, timer_callback callback, const char *name);
timer *TIMER_NEW(__wrap_)(uint32_t period_ms, void *ctx, timer_callback callback, const char *name)
{
    timer *made = TIMER_NEW(__real_)(period_ms, nullptr, run_timer, name);
    world.timers[made] = {callback, ctx, false};
    made->ctx = made;
    return made;
}
int __real__Z11timer_startP5timeri(timer *timer, int count);
int __wrap__Z11timer_startP5timeri(timer *timer, int count)
{
    world.timers.at(timer).started = true;
    return __real__Z11timer_startP5timeri(timer, count);
}
void __real__Z10timer_freeP5timer(timer *timer);
void __wrap__Z10timer_freeP5timer(timer *timer)
{
    if (timer && !world.timers.erase(timer))
        world.fault += "a timer is freed twice";
    else
        __real__Z10timer_freeP5timer(timer);
}
} // extern "C"

namespace walk {
namespace {

constexpr size_t events_a_walk = 2000;
// Between the events, and from what is done in one to its passes of the loop. What was begun in any of them
// is due between them: it does not matter by how many looks at the clock the daemon is late.
constexpr int64_t event_us = 130000, pass_us = 20000, most_late_us = 5000;

enum verb { START, STOP, END, SET, PASS, WAIT, REFUSE, verbs };
constexpr const char *verb_words[] = {"start", "stop", "end", "set", "pass", "wait", "refuse"};
constexpr const char *value_texts[] = {"0", "1", "2", "3"};

struct event {
    walk::verb verb;
    std::vector<int> names; // services, or variables
    int number;             // how programs end, what variables become, how many passes, how much time
};

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
};

plan any_plan(chance &random)
{
    constexpr line lines[] = {NO_LINE, NO_LINE, NO_LINE, HANDLER, HANDLER, HELPER, BAD_HANDLER, NO_HELPER};
    plan made = {random.one_of(20) ? MISSING : PROGRAM,
                 {},
                 {},
                 -1,
                 random.any(lines),
                 random.any(lines),
                 random.any({0, 1, 3}),
                 random.one_of(12),
                 random.one_of(2)};
    if (random.one_of(4))
        made.kind = random.any({ONE_SHOT, ONE_SHOT, ONE_SHOT, JOB, JOB, JOB, WATCHDOG});
    for (int n = random.below(6) - 2; n > 0; --n)
        made.needs.push_back(random.one_of(50) ? -1 : random.below(services));
    for (int n = random.below(6) - 3; n > 0; --n)
        made.conditions.emplace_back(random.below(variables), random.value());
    if (made.kind == JOB || random.one_of(3))
        made.watched = made.kind == JOB ? 0 : random.below(variables);
    return made;
}

event any_event(chance &random)
{
    constexpr walk::verb often[] = {START, START, START, START, STOP, END,  END,  END,  END,  END,
                                    SET,   PASS,  PASS,  PASS,  PASS, PASS, WAIT, WAIT, WAIT, REFUSE};
    event made = {random.any(often), {}, 1 + random.below(6)};
    const bool timed = made.verb == PASS || made.verb == WAIT;
    int names = timed ? 0 : made.verb == STOP || made.verb == REFUSE ? 1 : 1 + random.below(3);
    for (names = made.verb == END && random.one_of(10) ? 20 : names; names > 0; --names)
        made.names.push_back(random.below(made.verb == SET ? variables : services + (made.verb == END)));
    if (!timed)
        made.number = made.verb == END ? random.any({0, 0, 0, 7, -SIGKILL}) : random.value();
    return made;
}

std::string said(const event &e)
{
    std::string text = verb_words[e.verb];
    for (const int name : e.names)
        text += (e.verb == SET ? " V" : " s") + std::to_string(name);
    return text + (e.verb >= END && e.verb != REFUSE ? " " + std::to_string(e.number) : "") + "\n";
}

std::string said(const plan &p, int s)
{
    const std::string number = std::to_string(s), every = p.every ? std::to_string(p.every) : "$(V0)";
    const std::string execs[] = {"/bin/nosuch", "/bin/true " + number, "-/bin/true " + number,
                                 "sched " + every + " /bin/true", "watchdog"};
    const std::string lines[] = {"", "kill SIGUSR1", "kill SIGNO", "/bin/echo " + number, "nosuch"};
    std::string text = "service s" + number + "\nexec " + execs[p.kind] + "\ndepends";
    for (const auto &[variable, value] : p.conditions)
        text += " V" + std::to_string(variable) + "=" + (value < 0 ? "''" : value_texts[value]);
    for (const int needed : p.needs)
        text += needed < 0 ? " nobody" : " s" + std::to_string(needed);
    text += p.watched < 0 ? "\n" : "\nsyscfg V" + std::to_string(p.watched) + "\n";
    text += p.stop ? "stop -first\nstop -" + lines[p.stop] + "\n" : "";
    return text + (p.reload ? "reload -" + lines[p.reload] + "\n" : "");
}

const char *get_variable(syscfg *, const char *name)
{
    const int value = world.believed->values[static_cast<size_t>(atoi(name + 1))];
    return value == no_value ? nullptr : value_texts[value];
}
constexpr syscfg_ops database_operations = {nullptr, nullptr, get_variable};

// The daemon and what is believed of it, through the same events.
struct walker {
    model believed;
    lumd *manager = lumd_create();
    syscfg database = {};
    const int64_t began = support::now_us;
    int64_t phase = 0;

    explicit walker(const std::vector<plan> &plans) : believed(plans)
    {
        world.on = true;
        world.believed = &believed;
        std::string text;
        for (int s = 0; s < services; ++s)
            text += said(plans[s], s);
        support::write_file("/etc/svc.conf", text);
        lumd_parse_conf(manager, "/etc/svc.conf", -1);
        lumd_init_service_infos(manager);
        database.ops = &database_operations;
        manager->cfgdb = create_cfgdb(manager);
        manager->cfgdb->syscfg = &database;
    }

    void at(int64_t us)
    {
        if (support::now_us - began - phase > most_late_us)
            world.fault += "too many looks at the clock";
        phase = believed.now = us;
        support::now_us = began + us;
    }

    // Programs of these services, all of them before the handler learns of it.
    void end(const std::vector<int> &names, int how)
    {
        const size_t before = world.dead.size();
        for (const int s : names) {
            const auto found = std::find_if(world.processes.begin(), world.processes.end(),
                                            [s](auto &p) { return p.second.slot == s && p.second.living; });
            if (found == world.processes.end())
                continue;
            believed.die(found->first, how);
            die(found->first, how);
        }
        if (world.dead.size() > before)
            raise(SIGCHLD);
        believed.reap();
    }

    void set(const std::vector<int> &names, int value)
    {
        std::vector<std::string> texts;
        std::vector<const char *> pointers;
        for (const int name : names) {
            believed.values[name] = value;
            texts.push_back("V" + std::to_string(name));
        }
        for (const std::string &name : texts)
            pointers.push_back(name.c_str());
        cfgdb_processSyscfgChange(manager->cfgdb, pointers.data(), static_cast<int>(pointers.size()));
        believed.change(names);
    }

    void go(const event &e)
    {
        const int64_t now = (believed.now / event_us + (e.verb == WAIT ? e.number : 1)) * event_us;
        at(now);
        for (const int s : e.names) {
            const std::string name = "s" + std::to_string(s);
            if (e.verb == START)
                lumd_start_service(manager, name.c_str()), believed.start(s);
            if (e.verb == STOP)
                lumd_stop_service(manager, name.c_str()), believed.stop(s, true);
            if (e.verb == REFUSE)
                world.refused.insert(s), believed.refused.insert(s);
        }
        if (e.verb == END)
            end(e.names, e.number);
        if (e.verb == SET)
            set(e.names, e.number);
        at(now + pass_us);
        for (int n = e.verb == PASS ? e.number : 0; n > 0; --n) {
            app_poll_once();
            believed.pass();
        }
        support::captured_log::clear();
        support::poll_timeouts.clear();
    }

    proc_svcent *process(int s) const
    {
        const bool is = believed.plans[s].kind == PROGRAM || believed.plans[s].kind == ONE_SHOT;
        return is ? static_cast<proc_svcent *>(manager->svcs[s].svcent) : nullptr;
    }

    std::string is(int s) const
    {
        const service_info &slot = manager->svcs[s];
        const proc_svcent *entry = process(s);
        const auto own = [&](auto &t) { return slot.svcent && !entry && t.second.ctx == slot.svcent; };
        const bool due = slot.restart_timer && world.timers.at(slot.restart_timer).started;
        return facts(s, {slot.svcent != nullptr, slot.svcent ? slot.svcent->state : 0, entry ? entry->pid : 0,
                         entry && entry->ended, slot.restart_timer != nullptr, due,
                         std::count_if(world.timers.begin(), world.timers.end(), own), world.programs[s],
                         world.signals[s]});
    }
    std::string should_be(int s) const
    {
        const model::slot &b = believed.slots[s];
        return facts(s, {b.entry, b.state, b.child, b.ended, b.timer, b.restart.has_value(), b.timers,
                         believed.programs[s], believed.signals[s]});
    }
    static std::string facts(int s, const std::array<long, 9> &all)
    {
        static const char *const names[] = {"entry",       "state",  "child",    "ended",  "timer",
                                            "restart due", "timers", "programs", "signals"};
        std::string text = "s" + std::to_string(s);
        for (size_t i = 0; i < all.size(); ++i)
            text += std::string(", ") + names[i] + " " + std::to_string(all[i]);
        return text + "\n";
    }

    bool sound() const
    {
        for (int s = 0; s < services; ++s) {
            if (is(s) != should_be(s))
                world.fault += "is " + is(s) + "should be " + should_be(s);
        }
        for (const auto &[timer, what] : world.timers) {
            int owners = timer == app_scheduler.timer;
            for (const service_info &slot : manager->svcs)
                owners += (slot.restart_timer == timer) + (slot.svcent && slot.svcent == what.ctx);
            if (owners != 1)
                world.fault += std::string(timer->name) + " has " + std::to_string(owners) + " owners\n";
        }
        check_children();
        return world.fault.empty();
    }

    // Each living program is the one child of its entry, or one that nobody waits for; and those that are
    // waited for, and no others, are listed.
    void check_children() const
    {
        std::map<pid_t, int> living, should_live;
        std::set<const child_node *> listed, waited;
        for (const auto &[pid, process] : believed.living)
            should_live[pid] = process.slot;
        for (const auto &[pid, row] : world.processes) {
            const auto known = believed.living.find(pid);
            const bool stray = known != believed.living.end() && known->second.stray;
            if (row.living)
                living[pid] = row.slot;
            if (row.living && !stray &&
                (row.slot == services || !process(row.slot) || process(row.slot)->pid != pid))
                world.fault += "pid " + std::to_string(pid) + " is nobody's child\n";
        }
        for (int s = 0; s < services; ++s) {
            const proc_svcent *entry = process(s);
            if (entry && entry->pid > 0)
                waited.insert(&entry->node);
            else if (entry && entry->node.next != &entry->node)
                world.fault += "s" + std::to_string(s) + " has no child and is listed\n";
        }
        const child_node *at = waited.empty() ? nullptr : *waited.begin();
        for (size_t n = 0; at && n <= waited.size(); ++n, at = at->next) {
            if (at->entry)
                listed.insert(at);
            if (at->next->prev != at)
                world.fault += "the list of children is torn\n";
        }
        if (listed != waited || living != should_live)
            world.fault += "other children are listed or live\n";
    }

    void wind_up()
    {
        event stop = {STOP, {}, 0}, ends = {END, {}, 0};
        for (int s = 0; s < services; ++s)
            stop.names.push_back(s);
        go(stop);
        for (const auto &[pid, row] : world.processes)
            ends.names.push_back(row.slot);
        go(ends);
        go({PASS, {}, static_cast<int>(ends.names.size()) + 9});
        if (!world.processes.empty() || world.timers.size() > 1 || app_scheduler.head)
            world.fault += "something is left behind\n";
    }
};

// What all walks came across: programs, restarts, lost notices.
long *const figures = static_cast<long *>(
    mmap(nullptr, 3 * sizeof(long), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

// Walks in a process of its own, which may crash.
bool fails(const std::vector<plan> &plans, const std::vector<event> &events, bool tell)
{
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        alarm(120);
        if (!tell)
            dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
        const support::captured_log quiet;
        walker both(plans);
        for (size_t i = 0; i < events.size() && world.fault.empty(); ++i) {
            both.go(events[i]);
            both.sound();
        }
        if (world.fault.empty())
            both.wind_up();
        for (const int count : world.programs)
            figures[0] += count;
        figures[1] += both.believed.restarts;
        figures[2] += both.believed.losses;
        printf("%s", tell ? world.fault.c_str() : "");
        fflush(nullptr);
        _exit(!world.fault.empty());
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status != 0;
}

// Leaves out of a list, which is part of what fails, all that can be left out.
template <typename List, typename Test>
void shrink(List &list, int &trials, Test still_fails)
{
    for (size_t chunk = list.size(); chunk > 0; chunk /= 2) {
        for (size_t at = 0; at < list.size() && --trials > 0;) {
            const List before = list;
            const auto from = list.begin() + static_cast<std::ptrdiff_t>(at);
            list.erase(from, from + static_cast<std::ptrdiff_t>(std::min(chunk, list.size() - at)));
            if (still_fails())
                continue;
            list = before;
            at += chunk;
        }
    }
}

void tell_shortest(std::vector<plan> &plans, std::vector<event> &events)
{
    const auto still_fails = [&] { return fails(plans, events, false); };
    int trials = 2000;
    for (size_t before = 0; before != events.size();) {
        before = events.size();
        shrink(events, trials, still_fails);
        for (event &one : events)
            shrink(one.names, trials, still_fails);
        for (plan &one : plans) {
            const plan full = std::exchange(one, {MISSING, {}, {}, -1, NO_LINE, NO_LINE, 0, false, false});
            if (!still_fails())
                one = full;
            shrink(one.needs, trials, still_fails);
        }
    }
    for (int s = 0; s < services; ++s)
        printf("%s", plans[s].kind == MISSING ? "" : said(plans[s], s).c_str());
    for (const event &e : events)
        printf("%s", said(e).c_str());
    fails(plans, events, true);
}

long from_environment(const char *name, long otherwise)
{
    const char *text = getenv(name);
    return text ? atol(text) : otherwise;
}

struct walk : support::test {};

TEST_F(walk, keeps_to_the_rules)
{
    const long total = from_environment("LUMD_WALK_EVENTS", 100000);
    long seed = from_environment("LUMD_WALK_SEED", 1), verb_counts[verbs] = {};
    for (const auto *file : {"/dev/watchdog", "/dev/gpio"})
        support::write_file(file, "");
    for (long done = 0; done < total && !HasFailure(); ++seed) {
        chance random = {std::mt19937(static_cast<unsigned>(seed))};
        std::vector<plan> plans;
        std::vector<event> events;
        for (int s = 0; s < services; ++s)
            plans.push_back(any_plan(random));
        for (; events.size() < events_a_walk && done < total; ++done) {
            events.push_back(any_event(random));
            ++verb_counts[events.back().verb];
        }
        if (fails(plans, events, false)) {
            ADD_FAILURE() << "LUMD_WALK_SEED=" << seed << " fails; as short as can be:";
            tell_shortest(plans, events);
        }
    }
    for (int verb = 0; verb < verbs; ++verb)
        printf("%s %ld, ", verb_words[verb], verb_counts[verb]);
    printf("programs %ld, restarts %ld, lost notices %ld\n", figures[0], figures[1], figures[2]);
    EXPECT_TRUE(figures[0] > total / 5 && figures[1] > total / 10 && figures[2] > total / 50);
}
} // namespace
} // namespace walk
