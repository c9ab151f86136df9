#include "tests/lumd/fixture.h"

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

} // namespace
