#include "app/app.h"
#include "lumd/cfgdb.h"
#include "lumd/lumd.h"
#include "lumd/proc_se.h"
#include "syscfg/syscfg.h"
#include "tests/support/support.h"

#include <algorithm>
#include <deque>
#include <fcntl.h>
#include <map>
#include <random>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int services = 32, variables = 6, no_value = -1;
constexpr const char *variable_names[] = {"V0", "V1", "V2", "V3", "V4", "V5"},
                     *value_texts[] = {"0", "1", "2", "3"};
constexpr size_t notices_max = 4; // that the pipe of the SIGCHLD handler holds

enum kind { PROGRAM, ONE_SHOT, JOB, MISSING };
enum line { NO_LINE, HANDLER, BAD_HANDLER, HELPER, NO_HELPER }; // what a stop or reload line runs
enum verb { START, STOP, PASS, WAIT, END, SET, verbs };
constexpr const char *verb_words[] = {"start", "stop", "pass", "wait", "end", "set"};

// One service: what its lines say, and what becomes of its programs.
struct plan {
    ::kind kind = MISSING;
    std::vector<int> needs, needed_by;           // need -1: a name that nobody has
    std::vector<std::pair<int, int>> conditions; // variable and value; no_value imposes nothing
    int watched = -1;                            // variable
    line stop = NO_LINE, reload = NO_LINE;
    int every = 0;                      // seconds of a job, 0: what variable 0 says
    bool brief = false, prompt = false; // they end as soon as they run, or at the first signal
};

struct event {
    ::verb verb;
    std::vector<int> names; // services, or variables
    int number;             // how programs end, what variables become, how many passes, how much time
};

struct programs {
    struct row {
        int slot, how; // the service, services for a job; status or minus signal
        bool living;
        bool operator==(const row &) const = default;
    };
    std::map<pid_t, row> all = {};
    std::deque<pid_t> dead = {}; // whom nobody has reaped
    std::array<int, services + 1> run = {}, signalled = {};

    bool operator==(const programs &) const = default;
    pid_t spawn(int s)
    {
        pid_t pid = 100;
        while (all.contains(pid))
            ++pid;
        all[pid] = {s, 0, true};
        ++run[s];
        return pid;
    }
    void die(pid_t pid, int how) { all[pid] = {all[pid].slot, how, false}, dead.push_back(pid); }
    int reap() // how the first one ended
    {
        const int how = all[dead.front()].how;
        all.erase(dead.front());
        dead.pop_front();
        return how;
    }
};

// The rules once more, on sets and queues. Of the daemon it knows the numbers of the states.
struct model {
    struct slot {
        bool entry, ended, wanted, timer;
        int state, how, every;
        pid_t child;
        unsigned tracked;     // the higher, the later
        int64_t restart, job; // when, 0 for never
        std::set<int> awaits;
    };
    using round = std::set<int>; // what the outermost start or stop has handled

    const std::vector<plan> &plans;
    std::array<slot, services> slots = {};
    std::array<int, variables> values = {1, 1, 1, 1, 1, 1};
    programs table = {};
    std::deque<pid_t> notices = {};
    std::deque<int> reports = {}; // services whose start is reported, one a pass
    bool sigchld = false, lost = false;
    unsigned tracked = 0;
    int64_t now = 0, report_at = 0; // microseconds

    // What a service needs comes first, and is waited for when nobody has asked for it before.
    void start(int s, round *within = nullptr)
    {
        slot &me = slots[s];
        const plan &what = plans[s];
        round own, &handled = within ? *within : own;
        if (!me.entry && what.kind == MISSING)
            return;
        bool ready = me.entry = true;
        for (size_t n = 0; n < what.needs.size() && what.needs[n] >= 0; ++n) {
            if (slots[what.needs[n]].entry)
                continue;
            ready = false;
            me.awaits.insert(what.needs[n]);
            start(what.needs[n], &handled);
        }
        for (const auto &[variable, value] : what.conditions)
            ready = ready && (value == no_value || values[variable] == value);
        if (!ready || !handled.insert(s).second)
            return;
        me.awaits.clear();
        if (what.kind == JOB) {
            me.every = what.every ? what.every : values[0];
            me.job = me.every > 0 ? now++ + me.every * int64_t{1000000} : 0;
            if (me.job)
                started(s, &handled);
        } else if (me.child || me.state == SVCENT_STARTED) {
            me.wanted = me.state == SVCENT_STOPPED;
        } else {
            track(s, spawn(s));
            me.state = SVCENT_CREATED;
            report_at = reports.empty() ? now++ : report_at;
            if (what.kind == PROGRAM)
                reports.push_back(s);
        }
    }

    void started(int s, round *within = nullptr)
    {
        for (const int other : plans[s].needed_by) {
            slots[other].awaits.erase(s);
            if (slots[other].entry && slots[other].state != SVCENT_STARTED && slots[other].awaits.empty())
                start(other, within);
        }
    }

    // Who needs it and runs is stopped before it.
    void stop(int s, bool release, round *within = nullptr)
    {
        slot &me = slots[s];
        const line how = plans[s].stop;
        round own, &handled = within ? *within : own;
        if (!me.entry || !handled.insert(s).second)
            return;
        for (const int other : plans[s].needed_by) {
            if (slots[other].state == SVCENT_STARTED)
                stop(other, release, &handled);
        }
        me.wanted = false;
        me.job = 0;
        if (me.state != SVCENT_STOPPED && plans[s].kind < JOB) {
            if (how == HANDLER || how == BAD_HANDLER) { // how it ends is nobody's concern any more
                me.state = SVCENT_STOPPED;
                std::erase(reports, s);
            }
            const pid_t helper = act(s, how, SIGTERM);
            if (helper && plans[s].kind == ONE_SHOT)
                track(s, helper);
            reap();
        }
        if (release) {
            std::erase(reports, s);
            me = {};
        }
    }

    void stopped(int s)
    {
        stop(s, false);
        slots[s].timer = true;
        slots[s].restart = now++ + 2000000;
    }

    // Signals the child, or runs a helper.
    pid_t act(int s, line how, int number)
    {
        const auto child = table.all.find(slots[s].child);
        const bool living = child != table.all.end() && child->second.living && !slots[s].ended;
        if (how == HELPER)
            return spawn(s);
        if (!living || how == BAD_HANDLER || how == NO_HELPER)
            return 0;
        ++table.signalled[s];
        if (plans[s].prompt)
            die(child->first, how == HANDLER ? -SIGUSR1 : -number);
        return 0;
    }

    pid_t spawn(int s)
    {
        const pid_t pid = table.spawn(s);
        if (s < services && plans[s].brief)
            die(pid, 0);
        return pid;
    }
    void die(pid_t pid, int how) { table.die(pid, how), sigchld = true; }
    void track(int s, pid_t pid)
    {
        slots[s].child = pid;
        slots[s].ended = false;
        slots[s].tracked = ++tracked;
        reap();
    }
    int latest(pid_t pid, bool ended) const // of which child, any for 0; -1 when there is none
    {
        int found = -1;
        for (int s = 0; s < services; ++s) {
            const slot &one = slots[s];
            if (one.child && one.ended >= ended && (pid == 0 || one.child == pid))
                found = found < 0 || one.tracked > slots[found].tracked ? s : found;
        }
        return found;
    }

    // The dead leave a mark with who waits for them, and a notice if there is room.
    void reap()
    {
        for (bool room = std::exchange(sigchld, false); room && !table.dead.empty();) {
            const pid_t pid = table.dead.front();
            const int parent = latest(pid, false), how = table.reap();
            if (parent >= 0) {
                slots[parent].ended = true;
                slots[parent].how = how;
            }
            room = notices.size() < notices_max;
            lost = lost || !room;
            if (room)
                notices.push_back(pid);
        }
    }

    // An end is told unless a handler brought it about; then only when a start was asked for meanwhile.
    void end(int s)
    {
        slot &me = slots[s];
        const bool one_shot = plans[s].kind == ONE_SHOT, up = one_shot && me.state != SVCENT_STARTED;
        const bool told = one_shot ? me.how == 0 : me.state != SVCENT_STOPPED || me.wanted;
        me.child = 0;
        me.ended = me.wanted = false;
        std::erase(reports, s);
        if (!told)
            return;
        me.state = up ? SVCENT_STARTED : SVCENT_STOPPED;
        up ? started(s) : stopped(s);
    }

    void change(const std::vector<int> &names)
    {
        const auto changed = [&](int v) { return std::count(names.begin(), names.end(), v) > 0; };
        for (int s = 0; s < services; ++s) {
            for (const auto &[variable, value] : plans[s].conditions) {
                if (slots[s].entry && changed(variable) && value != no_value && values[variable] != no_value)
                    values[variable] == value ? start(s) : stop(s, false);
            }
        }
        for (int s = 0; s < services; ++s) {
            if (slots[s].entry && changed(plans[s].watched))
                plans[s].kind == JOB ? stopped(s) : (void)act(s, plans[s].reload, SIGHUP);
            reap();
        }
    }

    // One pass of the loop: one notice, then whatever time has come for, the earliest first.
    void pass()
    {
        if (!notices.empty()) {
            int ended = latest(notices.front(), true);
            notices.pop_front();
            if (ended >= 0)
                end(ended);
            sigchld = lost;
            if (std::exchange(lost, false))
                for (reap(); (ended = latest(0, true)) >= 0;)
                    end(ended);
        }
        for (const int64_t until = now++;;) {
            int64_t first = reports.empty() ? until + 1 : report_at;
            for (const slot &one : slots)
                first = std::min({first, one.restart ? one.restart : first, one.job ? one.job : first});
            if (first > until)
                return;
            const auto due = std::find_if(slots.begin(), slots.end(), [first](auto &one) {
                return one.restart == first || one.job == first;
            });
            const int s = due == slots.end() ? reports.front() : static_cast<int>(due - slots.begin());
            if (due == slots.end()) {
                report_at = now++;
                reports.pop_front();
                slots[s].state = SVCENT_STARTED;
                started(s);
            } else if (due->job == first) {
                due->job = now++ + due->every * int64_t{1000000};
                spawn(services);
            } else {
                due->restart = 0;
                start(s);
            }
        }
    }
};

// What lies under the daemon.
struct timed {
    timer_callback callback;
    void *ctx;
    bool started;
};
model *believed; // in the process that walks
programs table;
std::map<timer *, timed> timers;
std::string fault;

void run_timer(void *ctx)
{
    timed &at = timers.at(static_cast<timer *>(ctx));
    at.started = ctx == app_scheduler.timer;
    at.callback(at.ctx);
}
void die(pid_t pid, int how)
{
    table.die(pid, how);
    raise(SIGCHLD);
}
} // namespace

extern "C" {

pid_t __wrap__Z11spawn_childPKcPKPcPFvvE(const char *, char *const *argv, void (*)())
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
int __wrap__Z10board_killii(int pid, int number)
{
    const auto found = table.all.find(pid);
    if (found == table.all.end())
        fault += "a signal to nobody\n";
    else if (found->second.living && ++table.signalled[found->second.slot] &&
             believed->plans[found->second.slot].prompt)
        die(pid, -number);
    return 0;
}
int __real_pipe2(int *ends, int flags);
int __wrap_pipe2(int *ends, int flags) // of packets, each of which takes a page of it
{
    const int size = static_cast<int>(notices_max) * static_cast<int>(sysconf(_SC_PAGESIZE));
    return __real_pipe2(ends, flags | O_DIRECT) < 0 || fcntl(ends[1], F_SETPIPE_SZ, size) != size ? -1 : 0;
}
timer *__real__Z9timer_newjPvPFvS_EPKc(uint32_t period_ms, void *ctx, timer_callback run, const char *name);
timer *__wrap__Z9timer_newjPvPFvS_EPKc(uint32_t period_ms, void *ctx, timer_callback run, const char *name)
{
    timer *made = __real__Z9timer_newjPvPFvS_EPKc(period_ms, nullptr, run_timer, name);
    timers[made] = {run, ctx, false};
    made->ctx = made;
    return made;
}
int __real__Z11timer_startP5timeri(timer *timer, int count);
int __wrap__Z11timer_startP5timeri(timer *timer, int count)
{
    timers.at(timer).started = true;
    return __real__Z11timer_startP5timeri(timer, count);
}
void __real__Z10timer_freeP5timer(timer *timer);
void __wrap__Z10timer_freeP5timer(timer *timer)
{
    timers.erase(timer);
    __real__Z10timer_freeP5timer(timer);
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
        constexpr ::kind others[] = {ONE_SHOT, ONE_SHOT, JOB, MISSING};
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
        constexpr ::verb often[] = {START, START, START, START, STOP, END,  END,  END,  END, END,
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
    const std::string execs[] = {"/bin/true " + number, "-/bin/true " + number,
                                 "sched " + every + " /bin/true", "/bin/nosuch"};
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
    const int value = believed->values[static_cast<size_t>(atoi(name + 1))];
    return value == no_value ? nullptr : value_texts[value];
}
constexpr syscfg_ops database_operations = {nullptr, nullptr, get_variable};

// The daemon and what is believed of it, through the same events.
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
        lumd_parse_conf(manager, "/etc/svc.conf", -1);
        lumd_init_service_infos(manager);
        database.ops = &database_operations;
        manager->cfgdb = create_cfgdb(manager);
        manager->cfgdb->syscfg = &database;
        believed = &right;
    }

    // What an event does and its passes begin at such times that nothing is ever due while they go on, but
    // between them: it does not matter by how many looks at the clock the daemon is late.
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
            else if (found != table.all.end()) // all of them end before the handler learns of it
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
            std::array<int, 7> is = {slot.svcent != nullptr, slot.svcent ? slot.svcent->state : 0};
            if (entry)
                is[2] = entry->pid, is[3] = entry->ended;
            if (slot.restart_timer)
                is[4] = true, is[5] = timers.at(slot.restart_timer).started;
            for (const auto &[timer, what] : timers)
                is[6] += slot.svcent && what.ctx == slot.svcent;
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
                       return s.restart_timer == t || (s.svcent && s.svcent == ctx);
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

// Walks in a process of its own, which may crash.
bool fails(const std::vector<plan> &plans, const std::vector<event> &events, bool tell = false)
{
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
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
        fflush(nullptr);
        _exit(!fault.empty());
    }
    int status = -1;
    waitpid(child, &status, 0);
    printf("%s", tell && WIFSIGNALED(status) ? "ends by a signal\n" : "");
    return status != 0;
}

// Leaves out of a list, which is part of what fails, all that can be left out.
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
        for (int s = 0; s < services * services;
             ++s) { // who needs whom, in the order of the table, at most 16
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
