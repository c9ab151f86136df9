#include "app/app.h"
#include "app/callstack.h"
#include "app/log.h"
#include "tests/support/support.h"

#include <climits>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <regex>
#include <sys/eventfd.h>
#include <sys/socket.h>

namespace {

using namespace support;

// Names of the callbacks in order, and what each does when called.
std::string ran;
struct act {
    std::string name;
    std::function<void()> then;
};

void perform(void *ctx)
{
    const auto *doing = static_cast<act *>(ctx);
    ran += doing->name;
    if (doing->then)
        doing->then();
}

void on_event(void *ctx, int events, int, app_fd_handler *)
{
    perform(ctx);
    ran += std::string(events & 1 ? "r" : "") + (events & 4 ? "w" : "") + (events & 8 ? "e" : "");
}

using owned = std::unique_ptr<timer, void (*)(timer *)>;

struct app_test : test {
    app_test() { ran.clear(); }
    ~app_test() override
    {
        remove_all();
        scheduler_clear(&queue);
        timer_free(queue.timer);
        EXPECT_EQ(timer_run_expired(), -1) << "a timer is left over";
        close(ready), close(quiet);
    }
    static owned started(uint32_t ms, int count, act &what)
    {
        owned made(timer_new(ms, &what, perform, "test"), timer_free);
        EXPECT_EQ(timer_start(made.get(), count), 0);
        return made;
    }
    // The callbacks of each of count passes, ms apart.
    static std::string passes(int count, int64_t ms = 0)
    {
        ran.clear();
        for (int i = 0; i < count; ++i, now_us += ms * 1000) {
            ran += i > 0 ? "," : "";
            app_poll_once();
        }
        return ran;
    }
    int add(act &what, int fd, int mask = POLLIN) { return app_add_fd(fd, mask, &what, on_event); }
    void defer(act &what) { EXPECT_EQ(app_scheduler_add(&what, perform, 1), 0); }
    void remove(act &what) { app_remove_fd(ready, &what, on_event); }
    void remove_all()
    {
        for (act *each : {&a, &b, &c, &d})
            app_remove_ctx(each);
        app_poll_once();
    }
    captured_log log;
    scheduler queue = {};
    act a{"a", {}}, b{"b", {}}, c{"c", {}}, d{"d", {}};
    int ready = eventfd(1, 0), quiet = eventfd(0, 0); // always readable, and never
};

TEST_F(app_test, every_log_call_writes_its_shape_in_one_write_and_keeps_errno)
{
    const std::string x(400, 'x'), cut = x.substr(0, 254);
    const char *text = x.c_str();
    const std::pair<std::string, std::function<void()>> cases[] = {
        {"  run(): app: 7: fd 3 is up\n", [] { log_trace(0, "run", "app", 7, "fd %d is %s", 3, "up"); }},
        {"  run(): app: 7: \n", [] { log_trace(0, "run", "app", 7, "%s", ""); }},
        {"  f(): m: 1: " + cut + "\n", [&] { log_trace(0, "f", "m", 1, "%s", text); }},
        {"  " + x.substr(0, 296), [&] { log_trace(0, text, "m", 1, "text"); }},
        {"  CHECKPOINT: f(): m: 12\n", [] { log_checkpoint(0, "f", "m", 12); }},
        {"  FAILED: f(): m: 12\n", [] { log_failed(0, "f", "m", 12); }},
        {"  FAILED: " + x.substr(0, 244), [&] { log_failed(0, text, "m", 1); }},
        {"  SYSERROR: f(): m: 12: No such file or directory\n", [] { log_syserror(0, "f", "m", 12); }},
        {"Aborted!\n", [] { log_printf(0, "%s!\n", "Aborted"); }},
        {cut, [&] { log_printf(0, "%s", text); }},
        {"", [] { log_printf(0, "%s", ""); }},
        {"", [] { log_printf(-1, "below the level"); }},
        {x + x + " No such file or directory", [&] { print_error("%s%s %m", text, text); }},
    };
    for (const auto &[written, call] : cases) {
        log.clear();
        errno = ENOENT;
        call();
        EXPECT_EQ(errno, ENOENT) << written;
        EXPECT_EQ(log.text(), written);
        EXPECT_EQ(log.writes().size(), written.empty() ? 0u : 1u);
    }
    isolated([] {
        EXPECT_EQ(log_open("/tmp/log/x"), -1) << "there is no such directory";
        write_file("/tmp/log/x", "old text that is gone");
        EXPECT_EQ(log_open("/tmp/log/x") + log_set_level(0), 0);
        EXPECT_EQ(log_set_level(3), 3);
        EXPECT_EQ(log_set_level(-5), 3);
        log_failed(2, "f", "m", 1);
        log_trace(0, "f", "m", 1, "x");
        log_printf(3, "line\n");
        EXPECT_EQ(read_file("/tmp/log/x"), "line\n");
    });
}

// Standard error is a pipe or terminal whose stalled reader reads only in reads().
struct stalled_reader {
    int reader = -1, writer = -1;

    stalled_reader(bool is_terminal, int flags)
    {
        int ends[2] = {posix_openpt(O_RDWR | O_NOCTTY), -1};
        if (is_terminal && unlockpt(ends[0]) == 0)
            ends[1] = open(ptsname(ends[0]), O_RDWR | O_NOCTTY);
        else
            EXPECT_EQ(pipe(ends), 0);
        reader = ends[0], writer = ends[1];
        EXPECT_TRUE(dup2(writer, STDERR_FILENO) >= 0 && fcntl(writer, F_SETFL, flags | O_RDWR) == 0);
    }
    [[nodiscard]] std::string reads() const
    {
        std::string all;
        char part[4096];
        for (pollfd more = {reader, POLLIN, 0}; poll(&more, 1, 100) > 0;)
            all.append(part, static_cast<size_t>(read(reader, part, sizeof part)));
        std::erase(all, '\r');
        return std::regex_replace(all, std::regex(R"(  write_text\(\): log: [0-9]+)"), "~");
    }
};

TEST_F(app_test, a_stalled_reader_holds_up_a_burst_once_and_is_told_what_it_missed)
{
    constexpr int burst = 5000;
    const auto seconds = [] {
        timespec at = {};
        clock_gettime(CLOCK_MONOTONIC, &at);
        return static_cast<double>(at.tv_sec) + static_cast<double>(at.tv_nsec) / 1e9;
    };
    const std::tuple<bool, int, bool> outputs[] = {// is a terminal, flags of its descriptor, reopened
                                                   {false, 0, false},
                                                   {false, 0, true},
                                                   {false, O_NONBLOCK, false},
                                                   {false, O_NONBLOCK, true},
                                                   {true, 0, true}};
    for (const auto &[is_terminal, flags, anew] : outputs) {
        isolated([&, is_terminal = is_terminal, flags = flags, anew = anew] {
            SCOPED_TRACE((is_terminal ? "terminal " : "pipe ") + std::to_string(flags) +
                         (anew ? " anew" : ""));
            captured_log::capturing = false, real_time = true;
            const stalled_reader log_reader(is_terminal, flags);
            anew ? log_start() : void();
            const double begin = seconds();
            for (int i = 0; i < burst; ++i)
                log_printf(0, "a line of a burst\n");
            const double took = seconds() - begin;
            EXPECT_TRUE(took > 0.19 && took < 2) << took;
            const std::string got = log_reader.reads();
            const auto missed = burst - std::count(got.begin(), got.end(), '\n');
            EXPECT_GT(got.size(), 4000u);
            print_error("%s", std::string(100'000, 'x').c_str());
            const std::string part = log_reader.reads();
            const std::string notice = "~: lines lost: " + std::to_string(missed) + "\n";
            EXPECT_TRUE(part.starts_with((got.ends_with('\n') ? "" : "\n") + notice + "xxx"))
                << notice << part;
            errno = ENOENT;
            log_printf(0, "%m\n"), print_error("all read\n");
            EXPECT_EQ(log_reader.reads(), "\n~: lines lost: 1\nNo such file or directory\nall read\n");
            EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK, flags) << "they are not ours alone";
        });
    }
}

TEST_F(app_test, timers_run_by_expiry_newest_first_within_one_instant_as_often_as_the_count_says)
{
    const int64_t begin = now_us;
    const owned late = started(30, 1, a);
    now_us = begin;
    const owned first = started(10, 1, b);
    now_us = begin;
    const owned second = started(10, 1, c), between = started(20, 1, d);
    now_us = begin + 9998;
    EXPECT_EQ(passes(3), ",,cb") << "not a microsecond early";
    now_us = begin + 20001;
    EXPECT_EQ(passes(2, 50), "d,a");
    const std::tuple<int, const char *, int> cases[] = {
        {1, "a,,,,", -1}, {3, "a,a,a,,", -1}, {0, "a,a,a,a,a", 0}, {-1, "a,a,a,a,a", 0}};
    for (const uint32_t period : {0, 100}) { // with period 0, too, a timer runs once a pass
        for (const auto &[count, runs, stopped] : cases) {
            const owned t = started(period, count, a);
            now_us += period * 1000;
            EXPECT_EQ(passes(5, period), runs);
            EXPECT_EQ(timer_stop(t.get()), stopped) << count;
            EXPECT_EQ(timer_stop(t.get()), -1);
        }
    }
}

TEST_F(app_test, a_timer_may_stop_restart_and_free_itself_and_others)
{
    timer *self = started(10, -1, a).release();
    const owned other = started(20, -1, b), again = started(5, 1, c);
    a.then = [&] { timer_stop(other.get()), timer_free(self); };
    c.then = [&] { EXPECT_EQ(timer_start(again.get(), 1), 0); };
    c.then(); // while it is scheduled
    now_us += 50000;
    EXPECT_EQ(passes(3, 4), "ca,,c") << "lateness is not caught up";
    c.then = [&] { timer_stop(again.get()); };
    EXPECT_EQ(passes(4, 5), ",c,,");
}

TEST_F(app_test, tells_the_time_until_the_next_timer)
{
    const std::tuple<uint32_t, int64_t, int64_t, int> cases[] = {
        // period, start, clock afterwards, time left
        {1500, 2000000, 2000000, 1500}, {1500, 2000000, 2000001, 1499}, {1, 2000000, 2000999, 0},
        {1, 2999999, 2999999, 1},       {900, 2999000, 3001000, 898},   {1000, 2000000, 1000000, 2000},
        {1000, 1LL << 52, 1, INT_MAX},  {UINT_MAX, 0, 0, INT_MAX}};
    for (const auto &[period, start, then, left] : cases) {
        now_us = start;
        const owned t = started(period, 1, a);
        now_us = then;
        const int told = timer_run_expired();
        EXPECT_TRUE(left == INT_MAX ? told > INT_MAX - 3000 : told == left) << period << ": " << told;
    }
}

TEST_F(app_test, a_clock_set_forward_makes_due_and_one_set_back_by_a_callback_ends_the_pass)
{
    const std::tuple<bool, const char *, int> cases[] = {{false, "ba", 9}, {true, "b", 3600009}};
    for (const auto &[runs_a_pass, calls, left] : cases) {
        const owned once = started(10, 1, b), periodic = started(10, -1, a), late = started(5000000, 1, d);
        a.then = [&] { ran.size() > 100 ? timer_stop(periodic.get()) : 0; };
        b.then = [nested = runs_a_pass] { now_us -= 7200LL * 1000000, nested ? app_poll_once() : 0; };
        now_us += 3600LL * 1000000;
        ran.clear();
        EXPECT_EQ(app_poll_once(), 0);
        EXPECT_EQ(ran, calls);
        EXPECT_EQ(timer_run_expired(), left) << "the period goes on by the new clock";
    }
}

volatile sig_atomic_t alarms;

TEST_F(app_test, a_later_call_is_made_once_or_not_at_all_and_the_interval_timer_until_stopped)
{
    EXPECT_EQ(timer_call_later(250, &a, perform), 0);
    EXPECT_EQ(passes(4, 125), ",,a,");
    const auto call_later = [this] {
        const int made = timer_call_later(0, &a, perform);
        EXPECT_EQ(passes(1), made == 0 ? "a" : "");
        return made == 0;
    };
    EXPECT_EQ(for_each_failure(ALLOC, call_later), 2);
    isolated([] {
        itimer_set_callback(nullptr, [](void *) { alarms = alarms + 1; });
        EXPECT_EQ(itimer_start(1, 2), 0);
        for (int i = 0; alarms < 3 && i < 2000; ++i)
            usleep(1000);
        EXPECT_EQ(itimer_stop(), 0);
        EXPECT_TRUE(alarms >= 3 && usleep(20000) == 0) << "no signal ends the sleep";
    });
}

TEST_F(app_test, scheduled_calls_run_by_priority_and_order_one_a_pass_each_queued_once)
{
    const std::pair<std::vector<std::pair<act *, int>>, const char *> cases[] = {
        {{{&a, 16}, {&b, 128}, {&c, 16}, {&d, -5}}, "d,a,c,b,"},
        {{{&a, 16}, {&b, 16}, {&a, 16}}, "b,a,,,"},
        {{{&a, 16}, {&b, 16}, {&b, 1}}, "b,a,,,"},
        {{{&a, 16}, {&b, 16}, {&a, 200}}, "b,a,,,"}};
    for (const auto &[added, order] : cases) {
        for (const auto &[what, priority] : added)
            EXPECT_EQ(scheduler_add(&queue, what, perform, priority), 0);
        EXPECT_EQ(passes(5), order);
        EXPECT_EQ(timer_run_expired(), -1) << "the last call stops the timer";
    }
    const auto add_all = [this] {
        for (act *each : {&a, &b, &c})
            EXPECT_EQ(scheduler_add(&queue, each, perform, 1), 0);
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
        EXPECT_EQ(scheduler_add(&queue, &a, perform, 1), 0);
        scheduler_remove(&queue, &b, perform);
    };
    add_all();
    EXPECT_EQ(passes(4), "a,c,a,");
}

TEST_F(app_test, a_slot_is_descriptor_context_and_callback_in_order_of_registration)
{
    std::vector<act> many(17, act{"x", {}}); // one more than the table's first capacity
    for (size_t i = 0; i < many.size(); ++i) {
        many[i].name = static_cast<char>('A' + i);
        EXPECT_EQ(add(many[i], ready), i + 1);
    }
    EXPECT_EQ(add(many[4], ready), 4);
    EXPECT_EQ(passes(1), "ArBrCrDrErFrGrHrIrJrKrLrMrNrOrPrQr");
    for (act &each : many)
        app_remove_ctx(&each);
    EXPECT_EQ(passes(1), "");
    const app_callback on_other = [](void *, int, int, app_fd_handler *) { ran += "!"; };
    add(a, ready);
    EXPECT_EQ(app_add_fd(ready, POLLIN, &a, on_other), 2) << "freed places are reclaimed";
    EXPECT_EQ(passes(1), "ar!");
    EXPECT_EQ(add(a, ready, 0), 0) << "only the mask changes";
    app_remove_fd(quiet, &a, on_other);
    EXPECT_EQ(passes(1), "!");
    for (int i = 0; i < 2; ++i)
        app_remove_fd(ready, &a, on_other);
    EXPECT_EQ(passes(1), "");
}

TEST_F(app_test, what_a_callback_removes_is_not_called_and_what_it_adds_only_after_a_poll)
{
    const std::pair<std::function<void()>, const char *> cases[] = {
        {[this] { remove(a); }, "arbrcr,brcr"},
        {[this] { remove(b); }, "arcr,arcr"},
        {[this] { app_remove_ctx(&c); }, "arbr,arbr"},
        {[this] { add(d, ready); }, "arbrcr,arbrcrdr"},
        {[this] { remove(b), add(b, ready); }, "arcr,arcrbr"},
        {[this] {
             for (int i = 0; i < 40; ++i)
                 add(d, 2000 + i, 0);
             app_remove_ctx(&d);
         },
         "arbrcr,arbrcr"},
        {[this] { defer(b), defer(c), app_remove_ctx(&b); }, "arcrc,arcr"},
    };
    for (const auto &[first, calls] : cases) {
        for (act *each : {&a, &b, &c})
            add(*each, ready);
        a.then = [this, &change = first] { std::exchange(a.then, nullptr), change(); };
        EXPECT_EQ(passes(2), calls);
        remove_all();
    }
}

TEST_F(app_test, events_tell_what_happened_and_an_error_is_logged_on_every_pass)
{
    int hung_up[2], with_data[2], broken[2];
    ASSERT_EQ(pipe(hung_up) + pipe(with_data) + pipe(broken), 0);
    EXPECT_EQ(write(with_data[1], "x", 1), 1);
    for (const int end : {hung_up[1], with_data[1], broken[0]})
        close(end);
    const std::tuple<int, int, std::string> cases[] = {
        {ready, POLLIN, "ar"},         {ready, POLLIN | POLLOUT, "arw"},
        {quiet, POLLOUT, "aw"},        {hung_up[0], POLLIN, "ae"},
        {with_data[0], POLLIN, "are"}, {hung_up[0], 0, "ae"},
        {broken[1], POLLOUT, "awe"},   {1000, POLLIN, "ae"}};
    for (const auto &[fd, mask, events] : cases) {
        log.clear();
        add(a, fd, mask);
        const std::string line = "dispatch_sock_events: error: " + std::to_string(fd) + "\n";
        EXPECT_EQ(passes(2), events + "," + events) << fd;
        EXPECT_EQ(log.messages(), events.ends_with("e") ? line + line : "");
        remove_all();
    }
    for (const int end : {hung_up[0], with_data[0], broken[1]})
        close(end);
}

TEST_F(app_test, the_loop_polls_twice_a_pass_and_ends_with_the_code)
{
    for (const auto &[code, result, failing] : {std::tuple{0, 0, 0}, {0x12345, 0x2345, 1}, {-1, 0xFFFF, 2}}) {
        isolated([&, code = code, result = result, failing = failing] {
            eventfd_t drained; // shared with the parent
            add(a, quiet);
            a.then = [&] { eventfd_read(quiet, &drained), app_quit(code); };
            timer_call_later(1500, nullptr, [](void *) {});
            on_idle = [this] { poll_timeouts.back() < 0 && eventfd_write(quiet, 1); };
            fail_call(POLL, failing);
            EXPECT_EQ(app_run(), result);
            EXPECT_TRUE(poll_timeouts[0] == 0 && poll_timeouts[1] == 1499 && poll_timeouts.back() == -1);
            EXPECT_EQ(poll_timeouts.size() % 2, 0u);
            EXPECT_EQ(log.messages(), failing == 1 ? "SYSERROR: app_run: Interrupted system call\n" : "");
        });
    }
    const std::tuple<const char *, std::function<void()>, std::string> quits[] = {
        {"timer", [this] { started(0, 1, a).release(); }, "a"},
        {"what is due at the end still runs", [this] { started(0, -1, a).release(); },
         std::string(1001, 'a')},
        {"deferred call", [this] { defer(a); }, "a"},
        {"descriptor of the first poll",
         [this] { add(a, ready), a.then = [this] { app_quit(1), remove(a); }; }, "ar"}};
    for (const auto &[from, prepare, runs] : quits) {
        isolated([&, from = from, &prepare = prepare, &runs = runs] {
            a.then = [] { app_quit(1); };
            prepare();
            EXPECT_EQ(app_run(), 1) << from;
            EXPECT_EQ(ran, runs) << from;
        });
    }
}

TEST_F(app_test, without_memory_a_registration_fails_and_harms_nothing)
{
    isolated([this] {
        int fd = 3000; // not open: these only fill the table until it must grow
        for (const int k : {1, 2}) {
            fail_call(ALLOC, k);
            while (add(b, fd, 0) > 0)
                ASSERT_LT(++fd, 4000);
            EXPECT_TRUE(end_failing());
        }
        EXPECT_EQ(add(a, ready), fd - 3000 + 1);
        app_remove_ctx(&b);
        EXPECT_EQ(passes(1), "ar");
    });
}

TEST_F(app_test, the_stack_of_calls_is_paired_beyond_its_size)
{
    isolated([] {
        static const char at[300] = {};
        for (const char &addr : at)
            EXPECT_GT(logged_stack_push(&addr), 0);
        for (int i = 299; i >= 2; --i)
            logged_stack_pop(&at[i]);
        logged_stack_pop(&at[0]); // not the innermost: ignored
        EXPECT_EQ(logged_stack_push(&at[2]), 3);
        for (int i = 2; i >= -1; --i)
            logged_stack_pop(&at[std::max(i, 0)]);
        EXPECT_EQ(logged_stack_push(&at[0]), 1);
    });
}

TEST_F(app_test, a_broken_pipe_is_survived_and_the_exit_told)
{
    captured_log::capturing = false;
    const auto any = [](int) { return true; };
    EXPECT_EXIT(
        (app_init(0, nullptr, nullptr, "test"), raise(SIGPIPE), raise(SIGPIPE), exit(0)), any,
        "(  sigio_handler\\(\\): app: [0-9]+: SIGPIPE!\n){2}  app_atexit\\(\\): app: [0-9]+: exiting");
}

} // namespace
