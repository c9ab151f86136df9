#include "tests/lumd/fixture.h"

#include <random>

namespace {

struct lifecycle : lumd_test {};

TEST_F(lifecycle, scripts)
{
    play_all(R"(
dependencies start first and are waited for => service web;depends db;service db;depends log;service log => start web
  > start log / up log > start db / up db > start web / up web / start web / up log
all that had to be started are waited for => service top;depends left right;service left;depends base;service right;
  depends base;service base => start top > start base, start right / up base > start left / up left / up right > start
  top / up top / stop base > stop top, release top, stop left, release left, stop right, release right, stop base,
  release base
the list of dependencies ends at a name that nobody has => service a;depends nobody b;service b => start a > start a
  / state b -1
what cannot start => service f;exec fake fails;service m;exec fake missing;service n;depends m => start f /
  log FAILED: lumd_do_start() / state f 0 / start m / state m -1 / start n / state n 0 / start x / stop m
  / log FAILED: lumd_do_stop()
the last stop command; release takes running dependents along => service a;depends V=1 b;stop -one x;stop -kill HUP;service
  b;service c;depends b;service d;depends b => set V=1 / start a > start b / up b > start a / up a / start c >
  start c / up c / start d > start d / set V=0 > stop a kill HUP / stop b > stop c, release c, stop b, release b
  / state d 0 / start b > start b
restart after 2000 ms, by one timer => service a;service b;depends a => start b > start a / up a > start b / up b
  / die a > stop b, stop a / wait 1999 / wait 2 > start a / up a > start b / die a > stop a / wait 1000 / die a > stop a
  / wait 1990 / wait 20 > start a / wait 9999 / die a > stop a / timer a 1 / stop a > stop a, release a / timer a 0
  / wait 5000 / start a > start a
conditions start and stop what has an entry => service a;depends A=1 B='' C=x;service b;depends A=1 => start a
  / set A=1 / set C=x > start a / set B=z / set D=z / set C=y > stop a / set A=1 / set A=2 C=x > stop a
  / set A=1 > start a / state b -1
names of changes carry no source => service a;depends syscfg:A=1;service b;depends env:A=1;service c;depends foo:A=1
  => set A=1 env:A=1 foo:A=1 / start a > start a / start b / start c / up a / set A=0
the last reload command, once; not without an entry => service a;syscfg A;service b;syscfg A A*;reload -x;reload
  -kill HUP => start b > start b / set A=1 AB=1 > reload b kill HUP / log FAILED: lumd_do_reload())");
}

TEST_F(lifecycle, patterns_and_events)
{
    for (const auto &[patterns, changes, reloads] :
         table("NET_* => NET_IP= => 1\nNET_* => NET_= => 1\nNET_* => NET=\n"
               "A*B* => AxBy= => 1\nA*B* => Axy=\nA?D => ABD= => 1\n"
               "A?D => AD=\n*AB => AAB= => 1\n*A => AAB=\na => A=\n"
               "X Y* => W= Z= Y1= => 1\n* => any= => 1\n[A] => A=")) {
        load("service a;syscfg " + patterns);
        play("start a > start a / set " + changes + (reloads.empty() ? "" : " > reload a"));
        end_services();
    }
    load("service a;service b;depends a");
    play("start b > start a");
    for (const int event : {0, 3, -1}) {
        log.clear();
        lumd_processServiceCallback(slot("a"), event);
        EXPECT_TRUE(log.has("FAILED: lumd_processServiceCallback()"));
        EXPECT_EQ(trace(), "");
    }
}

// Every service depends on the next one of a ring, and on one across it.
TEST_F(lifecycle, cycles_end_with_each_slot_handled_once)
{
    for (const auto &[size, chord] : {std::pair(1, 0), {2, 1}, {3, 1}, {12, 5}, {32, 7}}) {
        for (const char *kind : {"eager", "quiet"}) {
            std::string conf;
            for (int i = 0; i < size; ++i)
                conf += "service s" + std::to_string(i) + ";exec fake " + kind + ";depends s" +
                        std::to_string((i + 1) % size) + " s" + std::to_string((i + chord) % size) + ";";
            load(conf);
            start_calls.clear();
            lumd_start_service(manager, "s0");
            // Of a ring of quiet services the last finds that its dependency has an entry.
            for (int i = size - 1; i >= 0 && *kind == 'q'; --i)
                step("up s" + std::to_string(i));
            for (int i = 0; i < size; ++i) {
                EXPECT_EQ(manager->svcs[i].svcent->state, SVCENT_STARTED) << i << kind;
                EXPECT_TRUE(*kind == 'q' || start_calls["s" + std::to_string(i)] == 1) << i;
            }
            stop_calls.clear();
            lumd_stop_service(manager, "s0");
            EXPECT_EQ(fakes_alive, 0);
            for (int i = 0; i < size; ++i)
                EXPECT_EQ(stop_calls["s" + std::to_string(i)], 1) << i << kind;
            trace();
        }
    }
}

// What must hold after every step of a random walk, whatever the dependencies, conditions and kinds are.
struct walk : lumd_test {
    static constexpr int services = 12;
    std::mt19937 random;

    int below(int end) { return static_cast<int>(random() % static_cast<unsigned>(end)); }

    std::string random_services()
    {
        const char *kinds[] = {"", "", "", "eager", "eager", "fails", "missing", "stubborn"};
        std::string conf;
        for (int i = 0; i < services; ++i) {
            conf += "service s" + std::to_string(i) + ";exec fake " + kinds[below(8)] + ";depends";
            for (int d = below(4); d > 0; --d)
                conf += " s" + std::to_string(below(services));
            conf += below(3) == 0 ? " V" + std::to_string(below(3)) + "=1;" : ";";
        }
        return conf;
    }

    // In one outermost start or stop no slot is handled twice, and no stop leaves a dependent running.
    void check_step(const service_info *at, const std::map<std::string, int> &calls, bool stopped)
    {
        for (const auto &[name, count] : calls)
            EXPECT_EQ(count, 1) << name;
        for (const svcfg_link *link = at->m_cfg->depended; stopped && link->name; ++link) {
            const svcent *entry = link->info->svcent;
            const bool stubborn = at->svcent && entry && link->info->m_cfg->argc > 1 &&
                                  std::string_view(link->info->m_cfg->argv[1]) == "stubborn";
            EXPECT_TRUE(!entry || entry->state != SVCENT_STARTED || stubborn) << link->name << at->name;
        }
        int entries = 0;
        for (const service_info &slot : std::span(manager->svcs, services)) {
            entries += slot.svcent != nullptr;
            EXPECT_TRUE(slot.svcent || !slot.restart_timer) << slot.name;
        }
        EXPECT_EQ(entries, fakes_alive);
    }

    void random_step()
    {
        static const char *const verbs[] = {"start ", "stop ", "up ", "die ", "set V", "wait "};
        const service_info *at = &manager->svcs[below(services)];
        const int verb = below(6);
        start_calls.clear(), stop_calls.clear();
        if (verb >= 1 && verb <= 3 && (!at->svcent || (verb == 2 && at->svcent->state == SVCENT_STARTED)))
            return;
        const std::string what = verb < 4    ? at->name
                                 : verb == 4 ? std::to_string(below(3)) + "=" + std::to_string(below(2))
                                             : std::to_string(below(3000));
        SCOPED_TRACE(verbs[verb] + what);
        step(verbs[verb] + what);
        check_step(at,
                   verb == 0                ? start_calls
                   : verb == 1 || verb == 3 ? stop_calls
                                            : none,
                   verb == 1 || verb == 3);
        EXPECT_TRUE(verb != 3 || at->restart_timer);
    }
    const std::map<std::string, int> none = {};
};

TEST_F(walk, every_step_leaves_the_table_sound)
{
    for (unsigned seed = 1; seed <= 300 && !HasFailure(); ++seed) {
        random.seed(seed);
        load(random_services());
        for (int n = 0; n < 150 && !HasFailure(); ++n) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(n));
            random_step();
            log.clear();
        }
        for (const service_info &slot : std::span(manager->svcs, services))
            slot.svcent ? lumd_stop_service(manager, slot.name) : void();
        EXPECT_EQ(fakes_alive, 0);
        EXPECT_EQ(timer_run_expired(), -1);
        trace();
    }
}

} // namespace
