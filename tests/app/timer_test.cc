#include "app/app.h"
#include "app/timer.h"
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
    auto *doing = static_cast<act *>(ctx);
    ran += doing->name;
    if (doing->then)
        doing->then();
}

class timer_test : public support::test {
  protected:
    timer_test() { ran.clear(); }
    ~timer_test() override
    {
        scheduler_clear(&queue);
        timer_free(queue.timer);
        EXPECT_EQ(timer_run_expired(), -1) << "a timer is left over";
    }
    static std::string pass()
    {
        ran.clear();
        timer_run_expired();
        return ran;
    }
    static std::string passes(int count)
    {
        std::string all;
        while (count-- > 0)
            all += pass() + " ";
        return all;
    }
    scheduler queue = {};
    act a{'a', {}}, b{'b', {}}, c{'c', {}}, d{'d', {}};
};

using owned = std::unique_ptr<timer, void (*)(timer *)>;
owned make(uint32_t ms, act &what)
{
    return {timer_new(ms, &what, perform, "test"), timer_free};
}

TEST_F(timer_test, runs_by_expiry_and_newest_first_within_one_instant)
{
    const owned late = make(30, a), first = make(10, b), second = make(10, c), between = make(20, d);
    const int64_t begin = now_us;
    for (timer *each : {late.get(), first.get(), second.get(), between.get()}) {
        now_us = begin;
        EXPECT_EQ(timer_start(each, 1), 0);
    }
    now_us = begin + 9999;
    EXPECT_EQ(pass(), "");
    now_us = begin + 10000;
    EXPECT_EQ(pass(), "cb");
    now_us = begin + 50000;
    EXPECT_EQ(pass(), "da");
}

TEST_F(timer_test, count_says_how_often)
{
    const struct {
        int count;
        size_t runs;
        int stop;
    } cases[] = {{1, 1, -1}, {3, 3, -1}, {0, 10, 0}, {-1, 10, 0}, {INT_MIN, 10, 0}};
    for (const auto &each : cases) {
        const owned t = make(100, a);
        timer_start(t.get(), each.count);
        ran.clear();
        for (int i = 0; i < 10; ++i) {
            now_us += 100000;
            timer_run_expired();
        }
        EXPECT_EQ(ran.size(), each.runs) << each.count;
        EXPECT_EQ(timer_stop(t.get()), each.stop) << each.count;
        EXPECT_EQ(timer_stop(t.get()), -1);
    }
}

TEST_F(timer_test, lateness_is_not_caught_up_and_a_start_begins_the_period_anew)
{
    const owned t = make(10, a);
    timer_start(t.get(), -1);
    now_us += 1000000;
    EXPECT_EQ(pass(), "a");
    EXPECT_EQ(timer_run_expired(), 9);
    now_us += 8000;
    timer_start(t.get(), -1);
    now_us += 9000;
    EXPECT_EQ(pass(), "");
}

TEST_F(timer_test, a_callback_may_stop_restart_and_free_itself_and_others)
{
    timer *self = timer_new(10, &a, perform, "self");
    const owned other = make(20, b), kept = make(5, c);
    timer_start(other.get(), -1);
    timer_start(self, -1);
    timer_start(kept.get(), -1);
    a.then = [&] { timer_stop(other.get()), timer_free(self); };
    c.then = [&] { timer_stop(kept.get()); };
    now_us += 50000;
    EXPECT_EQ(pass(), "ca");
    c.then = [&] { timer_start(kept.get(), 1); };
    timer_start(kept.get(), 1);
    now_us += 5000;
    EXPECT_EQ(pass(), "c");
    now_us += 5001;
    EXPECT_EQ(pass(), "c");
}

TEST_F(timer_test, a_timer_without_period_runs_once_a_pass)
{
    const owned t = make(0, a);
    timer_start(t.get(), -1);
    EXPECT_EQ(pass(), "a");
    EXPECT_EQ(pass(), "a");
}

TEST_F(timer_test, tells_the_time_until_the_next)
{
    EXPECT_EQ(timer_run_expired(), -1);
    const struct {
        const char *name;
        uint32_t period;
        int64_t start;
        int64_t then; // what the clock shows later, from start
        int left;
    } cases[] = {
        {"whole", 1500, 2000000, 0, 1500},
        {"a little less", 1500, 2000000, 1, 1499},
        {"below one", 1, 2000000, 999, 0},
        {"carry", 1, 2999999, 0, 1},
        {"borrow", 900, 2999000, 2000, 898},
        {"clock set back", 1000, 2000000, -1000000, 2000},
        {"clock of 1970", 1000, 1LL << 52, 1 - (1LL << 52), (INT_MAX / 1000 - 1) * 1000 + 627},
        {"longest", UINT_MAX, 2000000, 0, (INT_MAX / 1000 - 1) * 1000 + 295},
    };
    for (const auto &each : cases) {
        const owned t = make(each.period, a);
        now_us = each.start;
        timer_start(t.get(), 1);
        now_us = each.start + each.then;
        const int left = timer_run_expired();
        if (each.left < INT_MAX / 1000 * 1000 - 2000)
            EXPECT_EQ(left, each.left) << each.name;
        else
            EXPECT_GE(left, (INT_MAX / 1000 - 1) * 1000) << each.name;
    }
}

TEST_F(timer_test, a_clock_set_forward_makes_due)
{
    const owned soon = make(1000, a), late = make(5000000, b);
    timer_start(soon.get(), 1);
    timer_start(late.get(), 1);
    now_us += 3600LL * 1000000;
    EXPECT_EQ(pass(), "a");
}

// As the time service does: the pass in which it happens must end, and the periods go on by the new clock.
TEST_F(timer_test, a_clock_set_back_by_a_callback_ends_the_pass)
{
    for (const bool nested : {false, true}) {
        const owned periodic = make(10, a), once = make(10, b);
        timer_start(once.get(), 1);
        timer_start(periodic.get(), -1);
        now_us += 20000;
        ran.clear();
        a.then = [&] { ran.size() > 1000 ? timer_stop(periodic.get()) : 0; };
        b.then = [&] {
            now_us -= 3600LL * 1000000;
            if (nested)
                app_poll_once();
        };
        EXPECT_EQ(timer_run_expired(), 0);
        EXPECT_EQ(ran, "ba") << (nested ? "with a pass inside the callback" : "");
        EXPECT_EQ(timer_run_expired(), 9);
    }
}

TEST_F(timer_test, a_later_call_is_made_once_or_not_at_all)
{
    EXPECT_EQ(timer_call_later(250, &a, perform), 0);
    now_us += 249000;
    EXPECT_EQ(pass(), "");
    now_us += 1000;
    EXPECT_EQ(pass(), "a");
    now_us += 1000000;
    EXPECT_EQ(pass(), "");
    EXPECT_EQ(support::for_each_failure(support::ALLOC,
                                        [this] {
                                            const int made = timer_call_later(0, &a, perform);
                                            EXPECT_EQ(pass(), made == 0 ? "a" : "");
                                        }),
              3);
}

TEST_F(timer_test, without_memory_a_timer_is_not_started)
{
    EXPECT_EQ(support::for_each_failure(support::ALLOC,
                                        [this] {
                                            const owned t = make(5, a);
                                            const int started = t ? timer_start(t.get(), 1) : -1;
                                            EXPECT_EQ(timer_run_expired() >= 0, started == 0);
                                        }),
              2);
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

TEST_F(timer_test, scheduled_calls_run_by_priority_and_order_one_a_pass)
{
    scheduler_add(&queue, &a, perform, 16);
    scheduler_add(&queue, &b, perform, 128);
    scheduler_add(&queue, &c, perform, 16);
    scheduler_add(&queue, &d, perform, -5);
    EXPECT_EQ(passes(4), "d a c b ");
    EXPECT_EQ(timer_run_expired(), -1);
}

TEST_F(timer_test, a_call_is_queued_once_and_moves_when_added_again)
{
    const struct {
        std::vector<std::pair<char, int>> added;
        const char *order;
    } cases[] = {
        {{{'a', 16}, {'b', 16}, {'a', 16}}, "b a  "},
        {{{'a', 16}, {'b', 16}, {'b', 1}}, "b a  "},
        {{{'a', 16}, {'b', 16}, {'a', 200}}, "b a  "},
        {{{'a', 16}, {'a', 16}}, "a   "},
    };
    for (const auto &each : cases) {
        for (const auto &[name, priority] : each.added)
            EXPECT_EQ(scheduler_add(&queue, name == 'a' ? &a : &b, perform, priority), 0);
        EXPECT_EQ(passes(3), each.order);
    }
}

TEST_F(timer_test, calls_are_removed_stopped_and_cleared)
{
    for (act *each : {&a, &b, &a})
        scheduler_add(&queue, each, perform, 1);
    EXPECT_EQ(scheduler_remove(&queue, &a, perform), 0);
    EXPECT_EQ(scheduler_remove(&queue, &a, perform), -1);
    EXPECT_EQ(passes(2), "b  ");
    for (act *each : {&a, &b, &c})
        scheduler_add(&queue, each, perform, 1);
    scheduler_remove_ctx(&queue, &a);
    EXPECT_EQ(scheduler_stop(&queue), 0);
    EXPECT_EQ(pass(), "");
    EXPECT_EQ(queue.head && queue.head->ctx == &b, true);
    scheduler_clear(&queue);
    EXPECT_EQ(queue.head, nullptr);
    scheduler_add(&queue, &c, perform, 1);
    EXPECT_EQ(pass(), "c");
}

TEST_F(timer_test, a_running_call_may_change_the_queue)
{
    a.then = [this] {
        scheduler_add(&queue, &a, perform, 1);
        a.then = [this] { scheduler_remove_ctx(&queue, &a); };
        scheduler_remove(&queue, &b, perform);
    };
    for (act *each : {&a, &b, &c})
        scheduler_add(&queue, each, perform, 2);
    EXPECT_EQ(passes(4), "a a c  ");
    EXPECT_EQ(queue.head, nullptr);
}

TEST_F(timer_test, the_scheduler_recovers_from_want_of_memory)
{
    support::for_each_failure(support::ALLOC, [this] {
        const int added = scheduler_add(&queue, &a, perform, 1);
        support::end_failing();
        EXPECT_EQ(scheduler_add(&queue, &b, perform, 2), 0);
        EXPECT_EQ(passes(2), added == 0 ? "a b " : "b  ");
        timer_free(queue.timer);
        queue.timer = nullptr;
    });
}

} // namespace
