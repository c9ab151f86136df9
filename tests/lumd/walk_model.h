// Plans and events of the random walk, and the model of what the services should do.
#pragma once

#include "lumd/svcent.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <deque>
#include <map>
#include <set>
#include <vector>

namespace walking {

constexpr int services = 32, variables = 6, no_value = -1;
constexpr const char *variable_names[] = {"V0", "V1", "V2", "V3", "V4", "V5"},
                     *value_texts[] = {"0", "1", "2", "3"};
constexpr size_t notices_max = 4; // capacity of the SIGCHLD handler's pipe

enum kind { PROGRAM, ONE_SHOT, JOB, LINK, WATCHDOG, MISSING };
enum line { NO_LINE, HANDLER, BAD_HANDLER, HELPER, NO_HELPER }; // what a stop or reload line runs
enum verb { START, STOP, PASS, WAIT, END, SET, verbs };
constexpr const char *verb_words[] = {"start", "stop", "pass", "wait", "end", "set"};

// One service: its lines, and the behaviour of its programs.
struct plan {
    walking::kind kind = MISSING;
    std::vector<int> needs, needed_by;           // need -1: an unknown name
    std::vector<std::pair<int, int>> conditions; // variable and value; no_value sets no condition
    int watched = -1;                            // variable
    line stop = NO_LINE, reload = NO_LINE;
    int every = 0;                      // a job's period in seconds; 0: the value of variable 0
    bool brief = false, prompt = false; // programs end as soon as they run, or at the first signal
};

struct event {
    walking::verb verb;
    std::vector<int> names; // services or variables
    int number;             // exit status, new value, number of passes, or time
};

struct programs {
    struct row {
        int slot, how; // the service, `services` for a job; status or minus signal
        bool living;
        bool operator==(const row &) const = default;
    };
    std::map<pid_t, row> all = {};
    std::deque<pid_t> dead = {}; // not yet reaped
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
    int reap() // returns the status of the first
    {
        const int how = all[dead.front()].how;
        all.erase(dead.front());
        dead.pop_front();
        return how;
    }
};

// States the rules a second time, with sets and queues. Of the daemon, it uses only the state numbers.
struct model {
    struct slot {
        bool entry, ended, wanted, timer;
        int state, how, every;
        pid_t child;
        unsigned tracked;     // order of tracking
        int64_t restart, job; // when; 0: never
        std::set<int> awaits;
    };
    using round = std::set<int>; // the services handled by the outermost start or stop

    const std::vector<plan> &plans;
    std::array<slot, services> slots = {};
    std::array<int, variables> values = {1, 1, 1, 1, 1, 1};
    programs table = {};
    std::deque<pid_t> notices = {};
    std::deque<int> reports = {}; // services with a start to report, one a pass
    bool sigchld = false, lost = false;
    unsigned tracked = 0;
    int64_t now = 0, report_at = 0; // microseconds

    // A service's needs start first. It awaits those not asked for before, if they can be created.
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
            if (!slots[what.needs[n]].entry)
                me.awaits.erase(what.needs[n]);
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
        } else if (what.kind == LINK) {
            me.job = now++ + 2000000;
        } else if (what.kind == WATCHDOG) {
            me.job = INT64_MAX; // its own actions do not matter here
            started(s, &handled, true);
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

    void started(int s, round *within = nullptr, bool unreported = false)
    {
        for (const int other : plans[s].needed_by) {
            if (slots[other].awaits.erase(s) == 0 && unreported)
                continue;
            if (slots[other].entry && slots[other].state != SVCENT_STARTED && slots[other].awaits.empty())
                start(other, within);
        }
    }

    // Stops running dependents first.
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
        if (plans[s].kind == LINK) {
            me.state = SVCENT_STOPPED;
            spawn(services);
        }
        if (me.state != SVCENT_STOPPED && plans[s].kind < JOB) {
            if (how == HANDLER || how == BAD_HANDLER) { // its end no longer matters
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
    int latest(pid_t pid, bool ended) const // the latest entry with this child, 0: any; -1 if none
    {
        int found = -1;
        for (int s = 0; s < services; ++s) {
            const slot &one = slots[s];
            if (one.child && one.ended >= ended && (pid == 0 || one.child == pid))
                found = found < 0 || one.tracked > slots[found].tracked ? s : found;
        }
        return found;
    }

    // Each dead child is marked in its owner and causes a notice if there is room.
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

    // An end after a stop by handler is not reported, unless a start has been requested since.
    void end(int s)
    {
        slot &me = slots[s];
        const bool one_shot = plans[s].kind == ONE_SHOT && !(me.wanted && me.how != 0);
        const bool up = one_shot && me.state != SVCENT_STARTED;
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
                plans[s].kind == JOB    ? stopped(s)
                : plans[s].kind == LINK ? (void)spawn(services)
                : plans[s].kind < JOB   ? (void)act(s, plans[s].reload, SIGHUP)
                                        : (void)0;
            reap();
        }
    }

    // One pass of the loop: one notice, then everything due, earliest first.
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
            } else if (due->job == first && plans[s].kind == LINK) {
                due->job = 0;
                if (std::exchange(due->state, int{SVCENT_STARTED}) != SVCENT_STARTED) {
                    spawn(services);
                    started(s);
                }
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

} // namespace walking
