#include "app/app.h"
#include "tests/support/support.h"

#include <climits>
#include <csignal>
#include <memory>

namespace {

using support::now_us;

// What ran, in order, and what each does then.
std::string ran;
struct act {
    char name;
    std::function<void()> then;
};

void perform(void *ctx)
{
    const auto *doing = static_cast<act *>(ctx);
    ran += doing->name;
    if (doing->then)
        doing->then();
}

using owned = std::unique_ptr<timer, void (*)(timer *)>;

struct timer_test : support::test {
    ~timer_test() override
    {
        scheduler_clear(&queue);
        timer_free(queue.timer);
        EXPECT_EQ(timer_run_expired(), -1) << "a timer is left over";
    }
    static owned started(uint32_t ms, int count, act &what)
    {
        owned made(timer_new(ms, &what, perform, "test"), timer_free);
        EXPECT_EQ(timer_start(made.get(), count), 0);
        return made;
    }
    // What runs in each of so many passes, ms apart.
    static std::string passes(int count, int64_t ms = 0)
    {
        ran.clear();
        for (int i = 0; i < count; ++i) {
            ran += i > 0 ? "," : "";
            now_us += ms * 1000;
            timer_run_expired();
        }
        return ran;
    }
    scheduler queue = {};
    act a{'a', {}}, b{'b', {}}, c{'c', {}}, d{'d', {}};
};

TEST_F(timer_test, runs_by_expiry_newest_first_within_one_instant_as_often_as_the_count_says)
{
    const int64_t begin = now_us;
    const owned late = started(30, 1, a);
    now_us = begin;
    const owned first = started(10, 1, b);
    now_us = begin;
    const owned second = started(10, 1, c), between = started(20, 1, d);
    now_us = begin + 9998;
    EXPECT_EQ(passes(2), ",") << "a microsecond early";
    now_us = begin;
    EXPECT_EQ(passes(2, 10), "cb,d");
    EXPECT_EQ(passes(1, 50), "a");
    const struct {
        int count;
        const char *runs;
        int stop;
    } cases[] = {{1, "a,,,,", -1},
                 {3, "a,a,a,,", -1},
                 {0, "a,a,a,a,a", 0},
                 {-1, "a,a,a,a,a", 0},
                 {INT_MIN, "a,a,a,a,a", 0}};
    for (const uint32_t period : {0, 100}) { // also without one a timer runs once a pass
        for (const auto &each : cases) {
            const owned t = started(period, each.count, a);
            EXPECT_EQ(passes(5, period), each.runs);
            EXPECT_EQ(timer_stop(t.get()), each.stop) << each.count;
            EXPECT_EQ(timer_stop(t.get()), -1);
        }
    }
}

TEST_F(timer_test, a_callback_may_stop_restart_and_free_itself_and_others)
{
    timer *self = started(10, -1, a).release();
    const owned other = started(20, -1, b), again = started(5, 1, c);
    a.then = [&] { timer_stop(other.get()), timer_free(self); };
    c.then = [&] { timer_start(again.get(), 1); };
    EXPECT_EQ(passes(1, 50), "ca"); // lateness is not caught up
    c.then = [&] { timer_stop(again.get()); };
    EXPECT_EQ(passes(1, 4) + passes(3, 5), "c,,");
}

TEST_F(timer_test, tells_the_time_until_the_next)
{
    const struct {
        uint32_t period;
        int64_t start, later; // what the clock shows then
        int left;
    } cases[] = {
        {1500, 2000000, 0, 1500},
        {1500, 2000000, 1, 1499},
        {1, 2000000, 999, 0},
        {1, 2999999, 0, 1},
        {900, 2999000, 2000, 898},
        {1000, 2000000, -1000000, 2000},
        {1000, 1LL << 52, 1 - (1LL << 52), -2},
        {UINT_MAX, 0, 0, -2},
    };
    for (const auto &each : cases) {
        now_us = each.start;
        const owned t = started(each.period, 1, a);
        now_us = each.start + each.later;
        const int left = timer_run_expired();
        EXPECT_TRUE(each.left == -2 ? left > INT_MAX - 3000 : left == each.left)
            << each.period << ": " << left;
    }
}

TEST_F(timer_test, a_clock_set_forward_makes_due_and_one_set_back_by_a_callback_ends_the_pass)
{
    const owned once = started(10, 1, b), periodic = started(10, -1, a), late = started(5000000, 1, d);
    a.then = [&] { ran.size() > 100 ? timer_stop(periodic.get()) : 0; };
    b.then = [] { now_us -= 7200LL * 1000000; };
    EXPECT_EQ(passes(1, 3600 * 1000), "ba");
    EXPECT_EQ(timer_run_expired(), 9) << "the period goes on by the new clock";
}

TEST_F(timer_test, a_pass_inside_the_callback_that_set_the_clock_back_ends_both)
{
    const owned once = started(10, 1, b), periodic = started(10, -1, a);
    a.then = [&] { ran.size() > 100 ? timer_stop(periodic.get()) : 0; };
    b.then = [] { now_us -= 3600LL * 1000000, app_poll_once(); };
    EXPECT_EQ(passes(1, 20), "ba");
}

TEST_F(timer_test, without_memory_nothing_is_started_or_queued)
{
    EXPECT_EQ(timer_call_later(250, &a, perform), 0);
    EXPECT_EQ(passes(3, 125), ",a,");
    using namespace support;
    const auto call_later = [this] {
        const int made = timer_call_later(0, &a, perform);
        EXPECT_EQ(passes(1), made == 0 ? "a" : "");
    };
    EXPECT_EQ(for_each_failure(ALLOC, call_later), 3);
    for_each_failure(ALLOC, [this] {
        const bool added = scheduler_add(&queue, &a, perform, 1) == 0;
        end_failing();
        EXPECT_EQ(scheduler_add(&queue, &b, perform, 2), 0);
        EXPECT_EQ(passes(3), added ? "a,b," : "b,,")
            << "the next addition makes up for a timer that was not had";
        timer_free(std::exchange(queue.timer, nullptr));
    });
}

volatile sig_atomic_t alarms;

TEST_F(timer_test, the_interval_timer_calls_back_until_stopped)
{
    support::isolated([] {
        itimer_set_callback(nullptr, [](void *) { alarms = alarms + 1; });
        EXPECT_EQ(itimer_start(1, 2), 0);
        for (int i = 0; alarms < 3 && i < 2000; ++i)
            usleep(1000);
        EXPECT_GE(alarms, 3);
        EXPECT_EQ(itimer_stop(), 0);
        const int before = alarms;
        usleep(20000);
        EXPECT_EQ(alarms, before);
    });
}

TEST_F(timer_test, scheduled_calls_run_by_priority_and_order_one_a_pass_each_queued_once)
{
    const struct {
        std::vector<std::pair<act *, int>> added;
        const char *order;
    } cases[] = {
        {{{&a, 16}, {&b, 128}, {&c, 16}, {&d, -5}}, "d,a,c,b,"},
        {{{&a, 16}, {&b, 16}, {&a, 16}}, "b,a,,,"},
        {{{&a, 16}, {&b, 16}, {&b, 1}}, "b,a,,,"},
        {{{&a, 16}, {&b, 16}, {&a, 200}}, "b,a,,,"},
    };
    for (const auto &each : cases) {
        for (const auto &[what, priority] : each.added)
            EXPECT_EQ(scheduler_add(&queue, what, perform, priority), 0);
        EXPECT_EQ(passes(5), each.order);
        EXPECT_EQ(timer_run_expired(), -1) << "the last call stops the timer";
    }
}

TEST_F(timer_test, calls_are_removed_stopped_and_cleared_also_by_a_call)
{
    const auto add_all = [this] {
        for (act *each : {&a, &b, &c})
            scheduler_add(&queue, each, perform, 1);
    };
    add_all();
    EXPECT_EQ(scheduler_remove(&queue, &a, perform), 0);
    EXPECT_EQ(scheduler_remove(&queue, &a, perform), -1);
    scheduler_remove_ctx(&queue, &b);
    EXPECT_EQ(passes(3), "c,,");
    add_all();
    EXPECT_EQ(scheduler_stop(&queue), 0);
    EXPECT_EQ(passes(2), ",");
    EXPECT_EQ(queue.head && queue.head->ctx == &a, true);
    scheduler_clear(&queue);
    a.then = [&] {
        a.then = [&] { scheduler_remove_ctx(&queue, &a); };
        scheduler_add(&queue, &a, perform, 1);
        scheduler_remove(&queue, &b, perform);
    };
    add_all();
    EXPECT_EQ(passes(4), "a,c,a,");
}

} // namespace
