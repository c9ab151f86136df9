// What the random walk believes of the services: the rules once more, on sets and queues. Of the daemon it
// knows the numbers of the states.
#pragma once

#include "lumd/svcent.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <vector>

namespace walk {

constexpr int services = 32, variables = 6, no_value = -1;
constexpr size_t notices_max = 4; // that the pipe of the SIGCHLD handler holds

enum kind { MISSING, PROGRAM, ONE_SHOT, JOB, WATCHDOG };
enum line { NO_LINE, HANDLER, BAD_HANDLER, HELPER, NO_HELPER }; // what a stop or reload line runs

// One service: what its lines say, and what becomes of its programs.
struct plan {
    walk::kind kind;
    std::vector<int> needs;                      // -1: a name that nobody has
    std::vector<std::pair<int, int>> conditions; // variable and value, no_value imposes nothing
    int watched;                                 // variable, or -1
    line stop, reload;
    int every;          // seconds of a job, 0: what variable 0 says
    bool brief, prompt; // they end as soon as they run, or at the first signal
};

struct model {
    struct slot {
        bool entry, ended, wanted, timer; // timer: of the restart
        int state, how, timers, every;    // timers: of the kind
        pid_t child;
        unsigned tracked; // the higher, the later
        std::optional<int64_t> restart, job;
        std::set<int> awaits;
    };
    struct process {
        int slot; // services for a job
        bool stray;
    };
    using round = std::set<int>; // what the outermost start or stop has handled

    const std::vector<plan> &plans;
    std::array<slot, services> slots = {};
    std::array<int, services + 1> programs = {}, signals = {}; // so far
    std::array<int, variables> values;
    std::set<int> refused; // slots whose next program cannot be forked
    std::map<pid_t, process> living;
    std::set<pid_t> pids; // also of those that nobody has reaped
    std::deque<std::pair<pid_t, int>> dead;
    std::deque<pid_t> notices;
    std::deque<int> reports; // slots whose start is reported, one a pass
    bool signalled = false, lost = false;
    unsigned tracked = 0;
    int64_t now = 0, report_at = 0; // microseconds
    long restarts = 0, losses = 0;

    explicit model(const std::vector<plan> &all) : plans(all) { values.fill(1); }

    // What a service needs comes first, and is waited for when nobody has asked for it before.
    void start(int s, round &&handled = {}) { start(s, handled); }
    void start(int s, round &handled)
    {
        if (!slots[s].entry && plans[s].kind == MISSING)
            return;
        bool ready = slots[s].entry = true;
        for (const int needed : plans[s].needs) {
            if (needed < 0)
                break;
            if (slots[needed].entry)
                continue;
            ready = false;
            slots[s].awaits.insert(needed);
            start(needed, handled);
        }
        for (const auto &[variable, value] : plans[s].conditions)
            ready = ready && (value == no_value || values[variable] == value);
        if (!ready || !handled.insert(s).second)
            return;
        slots[s].awaits.clear();
        launch(s, handled);
    }

    void launch(int s, round &handled)
    {
        slot &me = slots[s];
        if (plans[s].kind == WATCHDOG) {
            me.timers = 2;
        } else if (plans[s].kind == JOB) {
            halt(s);
            me.every = plans[s].every ? plans[s].every : values[0];
            if (me.every < 1)
                return;
            me.timers = 1;
            me.job = now++ + me.every * int64_t{1000000};
            started(s, &handled);
        } else if (me.child || me.state == SVCENT_STARTED) {
            me.wanted = me.state == SVCENT_STOPPED;
        } else if (const pid_t pid = spawn(s, false)) {
            track(s, pid);
            me.state = SVCENT_CREATED;
            if (plans[s].kind == ONE_SHOT)
                return;
            report_at = reports.empty() ? now++ : report_at;
            reports.push_back(s);
        }
    }

    // Who needs it and runs is stopped before it.
    void stop(int s, bool release, round &&handled = {}) { stop(s, release, handled); }
    void stop(int s, bool release, round &handled)
    {
        if (!slots[s].entry || !handled.insert(s).second)
            return;
        for (const int other : needed_by(s)) {
            if (slots[other].state == SVCENT_STARTED)
                stop(other, release, handled);
        }
        halt(s);
        if (!release)
            return;
        give_up(s);
        std::erase(reports, s);
        slots[s] = {};
    }

    void halt(int s)
    {
        slot &me = slots[s];
        const line how = plans[s].stop;
        me.wanted = false;
        me.timers = 0;
        me.job.reset();
        if (me.state == SVCENT_STOPPED || plans[s].kind > ONE_SHOT)
            return;
        if (how == HANDLER || how == BAD_HANDLER) { // how it ends is nobody's concern any more
            me.state = SVCENT_STOPPED;
            std::erase(reports, s);
        }
        if (how == NO_LINE || how == HANDLER)
            send_signal(s);
        const pid_t helper = how == HELPER ? spawn(s, true) : 0;
        if (helper && plans[s].kind == ONE_SHOT)
            track(s, helper);
        reap();
    }

    void reload(int s)
    {
        const line how = plans[s].reload;
        if (!slots[s].entry || plans[s].kind == WATCHDOG)
            return;
        if (plans[s].kind == JOB)
            stopped(s);
        else if (how == NO_LINE || how == HANDLER)
            send_signal(s);
        else if (how == HELPER)
            spawn(s, true);
        reap();
    }

    void started(int s, round *within = nullptr)
    {
        for (const int other : needed_by(s)) {
            round own;
            slots[other].awaits.erase(s);
            if (slots[other].entry && slots[other].state != SVCENT_STARTED && slots[other].awaits.empty())
                start(other, within ? *within : own);
        }
    }

    void stopped(int s)
    {
        stop(s, false);
        slots[s].timer = true;
        slots[s].restart = now++ + 2000000;
    }

    // An end is told unless a handler brought it about; then only a start that was asked for meanwhile is.
    void end(int s)
    {
        slot &me = slots[s];
        const bool told = me.state != SVCENT_STOPPED || me.wanted;
        me.child = 0;
        me.ended = me.wanted = false;
        std::erase(reports, s);
        if (plans[s].kind == ONE_SHOT ? me.how != 0 : !told)
            return;
        const bool up = plans[s].kind == ONE_SHOT && me.state != SVCENT_STARTED;
        me.state = up ? SVCENT_STARTED : SVCENT_STOPPED;
        up ? started(s) : stopped(s);
    }

    pid_t spawn(int s, bool stray)
    {
        if (refused.erase(s))
            return 0;
        pid_t pid = 100;
        while (!pids.insert(pid).second)
            ++pid;
        living[pid] = {s, stray};
        ++programs[s];
        if (s < services && plans[s].brief)
            die(pid, 0);
        return pid;
    }

    void track(int s, pid_t pid)
    {
        give_up(s);
        slots[s].child = pid;
        slots[s].ended = false;
        slots[s].tracked = ++tracked;
        if (living.contains(pid))
            living[pid].stray = false;
        reap();
    }

    void give_up(int s)
    {
        if (living.contains(slots[s].child) && !slots[s].ended)
            living[slots[s].child].stray = true;
    }

    void send_signal(int s)
    {
        const auto found = living.find(slots[s].child);
        if (found == living.end() || slots[s].ended) // then the pid is another's
            return;
        ++signals[s];
        if (plans[s].prompt)
            die(found->first, -1);
    }

    void die(pid_t pid, int how)
    {
        living.erase(pid);
        dead.emplace_back(pid, how);
        signalled = true;
    }

    std::optional<int> latest(pid_t pid, bool ended) const // any child for pid 0
    {
        std::optional<int> found;
        for (int s = 0; s < services; ++s) {
            const slot &one = slots[s];
            const bool fits = one.child && one.ended >= ended && (pid == 0 || one.child == pid);
            found = fits && (!found || one.tracked > slots[*found].tracked) ? s : found;
        }
        return found;
    }

    // The dead leave a mark with who waits for them, and a notice if there is room.
    void reap()
    {
        for (bool more = std::exchange(signalled, false); more && !dead.empty(); dead.pop_front()) {
            const auto [pid, how] = dead.front();
            pids.erase(pid);
            if (const auto parent = latest(pid, false)) {
                slots[*parent].ended = true;
                slots[*parent].how = how;
            }
            more = notices.size() < notices_max;
            lost = lost || !more;
            losses += !more;
            if (more)
                notices.push_back(pid);
        }
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
            if (changed(plans[s].watched))
                reload(s);
        }
    }

    // One pass of the loop: one notice, then whatever time has come for, the earliest first.
    void pass()
    {
        if (!notices.empty()) {
            const auto ended = latest(notices.front(), true);
            notices.pop_front();
            if (ended)
                end(*ended);
            signalled = signalled || lost;
            if (std::exchange(lost, false)) {
                reap();
                while (const auto other = latest(0, true))
                    end(*other);
            }
        }
        for (const int64_t until = now++; run_due(until);)
            ;
    }

    bool run_due(int64_t until)
    {
        int64_t earliest = reports.empty() ? until + 1 : report_at;
        for (const slot &one : slots)
            earliest = std::min({earliest, one.restart.value_or(until + 1), one.job.value_or(until + 1)});
        if (earliest > until)
            return false;
        for (int s = 0; s < services; ++s) {
            if (slots[s].restart == earliest) {
                slots[s].restart.reset();
                ++restarts;
                start(s);
                return true;
            }
            if (slots[s].job == earliest) {
                slots[s].job = now++ + slots[s].every * int64_t{1000000};
                spawn(services, true);
                return true;
            }
        }
        report_at = now++;
        const int s = reports.front();
        reports.pop_front();
        slots[s].state = SVCENT_STARTED;
        started(s);
        return true;
    }

    std::vector<int> needed_by(int s) const
    {
        std::vector<int> all;
        for (int other = 0; other < services && all.size() < 16; ++other) {
            const auto &needs = plans[other].needs;
            if (std::count(needs.begin(), needs.end(), s))
                all.push_back(other);
        }
        return all;
    }
};

} // namespace walk
