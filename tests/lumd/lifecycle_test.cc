#include "tests/lumd/fixture.h"

namespace {

// Left out of the random walk: log texts, arguments of commands, names of changed variables.
struct lifecycle : lumd_test {};

TEST_F(lifecycle, scripts)
{
    play_all(R"(
what cannot start => service f;exec fake fails;service m;exec fake missing;service n;depends m => start f /
  log FAILED: lumd_do_start() / state f 0 / start m / state m -1 / start n / state n 0 / start x / stop m
  / log FAILED: lumd_do_stop()
a restart needs an entry => service a => restart a / log FAILED: lumd_restart_service() / state a -1
the last stop command; release takes running dependents along => service a;depends V=1 b;stop -one x;stop -kill HUP;service
  b;service c;depends b;service d;depends b => set V=1 / start a > start b / up b > start a / up a / start c >
  start c / up c / start d > start d / set V=0 > stop a kill HUP / stop b > stop c, release c, stop b, release b
  / state d 0 / start b > start b
what reports no start is up once it has been started => service a;depends w n;service w;exec watchdog;depends b;service
  n;exec ntp -h 127.0.0.1;service b => start a > start b / up b > start a / stop w / start w
what cannot be made is looked for again => service a;depends m b;service m;exec fake missing;service b => start a >
  start b / set FOUND=1 / up b > start m / up m > start a
names of changes carry no source => service a;depends syscfg:A=1;service b;depends env:A=1;service c;depends foo:A=1
  => set A=1 env:A=1 foo:A=1 / start a > start a / start b / start c / up a / set A=0
the last reload command, once; not without an entry => service a;syscfg A;service b;syscfg A A*;reload -x;reload
  -kill HUP => start b > start b / set A=1 AB=1 > reload b kill HUP / log FAILED: lumd_do_reload()
patterns of changes => service a;syscfg NET_*;service b;syscfg a;service c;syscfg X Y*;service d;syscfg * => start a > start a
  / start b > start b / start c > start c / start d > start d / set NET_IP= > reload a, reload d / set A= > reload d
  / set W= Z= Y1= > reload c, reload d)");
}

TEST_F(lifecycle, an_unknown_event_changes_nothing)
{
    load("service a;service b;depends a");
    play("start b > start a");
    for (const int event : {0, 3, -1}) {
        log.clear();
        lumd_processServiceCallback(slot("a"), static_cast<svcent_event>(event));
        EXPECT_TRUE(log.has("FAILED: lumd_processServiceCallback()"));
        EXPECT_EQ(trace(), "");
    }
}

} // namespace
