#include "app/app.h"
#include "app/callstack.h"
#include "tests/support/support.h"

#include <csignal>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using support::captured_log;

// What was called back, as "1r 2re": the number of the context and its events.
std::string called;

struct slot {
    int number;
    std::function<void(app_fd_handler *)> then;
};

void on_event(void *ctx, int events, int, app_fd_handler *handler)
{
    const auto *which = static_cast<slot *>(ctx);
    called += std::to_string(which->number) + (events & APP_EV_READ ? "r" : "") +
              (events & APP_EV_WRITE ? "w" : "") + (events & APP_EV_ERROR ? "e" : "") + " ";
    if (which->then)
        which->then(handler);
}

void on_other(void *ctx, int, int, app_fd_handler *)
{
    called += "other" + std::to_string(static_cast<slot *>(ctx)->number) + " ";
}

class loop_test : public support::test {
  protected:
    loop_test()
    {
        for (int i = 0; i < 20; ++i)
            slots[i].number = i;
        called.clear();
    }
    ~loop_test() override
    {
        for (slot &each : slots)
            app_remove_ctx(&each);
        app_poll_once();
        close(ready);
        close(quiet);
    }
    static std::string pass()
    {
        called.clear();
        app_poll_once();
        return called;
    }
    int add(int number, int fd) { return app_add_fd(fd, POLLIN, &slots[number], on_event); }
    void remove(int number, int fd) { app_remove_fd(fd, &slots[number], on_event); }
    int ready = eventfd(1, 0); // always readable
    int quiet = eventfd(0, 0); // never
    slot slots[20];
};

TEST_F(loop_test, slots_keep_their_order_beyond_a_growth_of_the_table)
{
    std::string all;
    for (int i = 0; i < 17; ++i) {
        EXPECT_EQ(add(i, ready), i + 1);
        all += std::to_string(i) + "r ";
    }
    EXPECT_EQ(add(4, ready), 4);
    EXPECT_EQ(pass(), all);
}

TEST_F(loop_test, a_slot_is_descriptor_context_and_callback)
{
    add(1, ready);
    EXPECT_EQ(app_add_fd(ready, POLLIN, &slots[1], on_other), 2);
    EXPECT_EQ(pass(), "1r other1 ");
    EXPECT_EQ(app_add_fd(ready, 0, &slots[1], on_event), 0); // only the mask changes
    EXPECT_EQ(pass(), "other1 ");
    app_remove_fd(quiet, &slots[1], on_other);
    remove(2, ready);
    EXPECT_EQ(pass(), "other1 ");
    app_remove_fd(ready, &slots[1], on_other);
    app_remove_fd(ready, &slots[1], on_other);
    EXPECT_EQ(pass(), "");
    EXPECT_EQ(app_add_fd(ready, POLLIN, &slots[3], on_other), 2) << "the freed place is reclaimed";
}

TEST_F(loop_test, what_a_callback_removes_is_not_called_and_what_it_adds_only_after_a_poll)
{
    const struct {
        const char *name;
        std::function<void()> first;
        const char *same_pass;
        const char *next_pass;
    } cases[] = {
        {"itself", [this] { remove(0, ready); }, "0r 1r 2r ", "1r 2r "},
        {"the next", [this] { remove(1, ready); }, "0r 2r ", "0r 2r "},
        {"all of a context", [this] { app_remove_ctx(&slots[2]); }, "0r 1r ", "0r 1r "},
        {"adds", [this] { add(7, ready); }, "0r 1r 2r ", "0r 1r 2r 7r "},
        {"replaces", [this] { remove(1, ready), add(1, ready); }, "0r 2r ", "0r 2r 1r "},
        {"adds many",
         [this] {
             for (int i = 0; i < 100; ++i)
                 app_add_fd(2000 + i, 0, &slots[9], on_other);
         },
         "0r 1r 2r ", "0r 1r 2r "},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const captured_log log;
        for (int i = 0; i < 3; ++i)
            add(i, ready);
        slots[0].then = [&](app_fd_handler *handler) {
            EXPECT_EQ(handler->ctx, &slots[0]);
            c.first();
            slots[0].then = nullptr;
        };
        EXPECT_EQ(pass(), c.same_pass);
        app_remove_ctx(&slots[9]);
        EXPECT_EQ(pass(), c.next_pass);
        for (slot &each : slots)
            app_remove_ctx(&each);
    }
}

TEST_F(loop_test, removing_a_context_drops_its_deferred_calls)
{
    app_scheduler_add(
        &slots[1], [](void *) { called += "late "; }, 1);
    app_scheduler_add(
        &slots[2], [](void *) { called += "kept "; }, 1);
    app_remove_ctx(&slots[1]);
    EXPECT_EQ(pass(), "kept ");
    EXPECT_EQ(pass(), "");
}

TEST_F(loop_test, events_tell_what_happened_and_an_error_is_logged_on_every_pass)
{
    int hung_up[2], with_data[2], broken[2], peers[2];
    ASSERT_EQ(pipe(hung_up) + pipe(with_data) + pipe(broken) + socketpair(AF_UNIX, SOCK_STREAM, 0, peers), 0);
    EXPECT_EQ(write(with_data[1], "x", 1), 1);
    for (const int end : {hung_up[1], with_data[1], broken[0], peers[1]})
        close(end);
    const struct {
        const char *name;
        int fd;
        int mask;
        const char *events;
        bool logged;
    } cases[] = {
        {"readable", ready, POLLIN, "0r ", false},
        {"both", ready, POLLIN | POLLOUT, "0rw ", false},
        {"writable", quiet, POLLOUT, "0w ", false},
        {"hang-up", hung_up[0], POLLIN, "0e ", true},
        {"hang-up behind data", with_data[0], POLLIN, "0re ", true},
        {"hang-up without asking", hung_up[0], 0, "0e ", true},
        {"no reader", broken[1], POLLOUT, "0we ", true},
        {"no peer", peers[0], POLLIN, "0re ", true},
        {"not open", 1000, POLLIN, "0e ", true},
    };
    for (const auto &c : cases) {
        captured_log log;
        app_add_fd(c.fd, c.mask, &slots[0], on_event);
        for (int i = 0; i < 2; ++i) {
            log.clear();
            EXPECT_EQ(pass(), c.events) << c.name;
            const std::string line = "dispatch_sock_events: error: " + std::to_string(c.fd) + "\n";
            EXPECT_EQ(log.messages(), c.logged ? line : "") << c.name;
        }
        app_remove_ctx(&slots[0]);
    }
    for (const int end : {hung_up[0], with_data[0], broken[1], peers[0]})
        close(end);
}

TEST_F(loop_test, the_loop_polls_twice_a_pass_and_ends_with_the_code)
{
    const struct {
        int code;
        int result;
    } cases[] = {{0, 0}, {0x12345, 0x2345}, {-1, 0xFFFF}};
    for (const auto &c : cases) {
        support::isolated([&] {
            static int code;
            code = c.code;
            add(0, quiet);
            slots[0].then = [this](app_fd_handler *) {
                eventfd_t drained;
                eventfd_read(quiet, &drained); // also the parent's
                app_quit(code);
            };
            timer *t = timer_new(
                1500, nullptr, [](void *) { called += "timer "; }, "test");
            timer_start(t, 1);
            support::on_idle = [this] {
                if (support::poll_timeouts.back() < 0)
                    eventfd_write(quiet, 1);
            };
            EXPECT_EQ(app_run(), c.result);
            EXPECT_EQ(called, "timer 0r ");
            // Without a wait; until the timer; without a wait; without end.
            const std::vector<int> &polls = support::poll_timeouts;
            EXPECT_EQ((std::vector<int>{polls.begin(), polls.begin() + 3}), (std::vector<int>{0, 1499, 0}));
            EXPECT_EQ(polls.back(), -1);
            EXPECT_EQ(polls.size() % 2, 0u);
            timer_free(t);
        });
    }
}

TEST_F(loop_test, what_is_due_at_the_end_still_runs_a_thousand_times)
{
    support::isolated([] {
        static int runs;
        timer *t = timer_new(
            0, nullptr, [](void *) { ++runs, app_quit(1); }, "test");
        timer_start(t, -1);
        EXPECT_EQ(app_run(), 1);
        EXPECT_EQ(runs, 1001);
    });
}

TEST_F(loop_test, only_a_failure_of_the_first_poll_is_logged)
{
    for (const int which : {1, 2}) {
        support::isolated([which] {
            const captured_log log;
            support::fail_call(support::POLL, which);
            timer_call_later(10, nullptr, [](void *) { app_quit(0); });
            support::on_idle = [] {};
            app_run();
            EXPECT_TRUE(support::end_failing());
            EXPECT_EQ(log.messages(), which == 1 ? "SYSERROR: app_run: Interrupted system call\n" : "");
        });
    }
}

TEST_F(loop_test, without_memory_a_registration_fails_and_harms_nothing)
{
    support::isolated([this] {
        int fd = 3000; // none that is open: they only take place, until the table must grow
        for (const int k : {1, 2}) {
            support::fail_call(support::ALLOC, k);
            while (app_add_fd(fd, 0, &slots[9], on_other) > 0)
                ASSERT_LT(++fd, 4000);
            EXPECT_TRUE(support::end_failing());
        }
        EXPECT_EQ(add(1, ready), fd - 3000 + 1);
        app_remove_ctx(&slots[9]);
        EXPECT_EQ(pass(), "1r ");
    });
}

TEST_F(loop_test, the_stack_of_calls_is_paired_beyond_its_size)
{
    support::isolated([] {
        static const char at[300] = {};
        for (int i = 0; i < 300; ++i)
            EXPECT_GT(logged_stack_push(&at[i]), 0);
        for (int i = 299; i >= 2; --i)
            logged_stack_pop(&at[i]);
        logged_stack_pop(&at[0]); // not the innermost: stays
        EXPECT_EQ(logged_stack_push(&at[2]), 3);
        for (int i = 2; i >= 0; --i)
            logged_stack_pop(&at[i]);
        logged_stack_pop(&at[0]);
        EXPECT_EQ(logged_stack_push(&at[0]), 1);
    });
}

TEST_F(loop_test, a_broken_pipe_is_logged_and_survived_and_the_end_closes_all)
{
    support::isolated([] {
        app_init(0, nullptr, nullptr, "test");
        const captured_log log;
        for (int i = 0; i < 2; ++i)
            raise(SIGPIPE);
        EXPECT_EQ(log.messages(), "sigio_handler: SIGPIPE!\nsigio_handler: SIGPIPE!\n");
    });
    EXPECT_EXIT((app_init(0, nullptr, nullptr, "test"), exit(3)), testing::ExitedWithCode(3),
                "app_atexit\\(\\): app");
}

} // namespace
