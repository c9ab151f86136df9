#include "app/app.h"
#include "app/callstack.h"
#include "tests/support/support.h"

#include <csignal>
#include <sys/eventfd.h>
#include <sys/socket.h>

namespace {

using support::captured_log;
using support::isolated;

// What was called back: "1r 2we " is context 1 readable, context 2 writable and in error.
std::string called;
struct slot {
    int number;
    std::function<void()> then;
};

void on_event(void *ctx, int events, int, app_fd_handler *handler)
{
    const auto *which = static_cast<slot *>(ctx);
    EXPECT_EQ(handler->ctx, ctx);
    called += std::to_string(which->number) + (events & APP_EV_READ ? "r" : "") +
              (events & APP_EV_WRITE ? "w" : "") + (events & APP_EV_ERROR ? "e " : " ");
    if (which->then)
        which->then();
}

void on_other(void *, int, int, app_fd_handler *)
{
    called += "other ";
}

struct loop_test : support::test {
    loop_test()
    {
        called.clear();
        for (int i = 0; i < 20; ++i)
            slots[i].number = i;
    }
    ~loop_test() override
    {
        remove_all();
        close(ready);
        close(quiet);
    }
    void remove_all()
    {
        for (slot &each : slots)
            app_remove_ctx(&each);
        app_poll_once();
    }
    static std::string pass()
    {
        called.clear();
        app_poll_once();
        return called;
    }
    int add(int number, int fd, int mask = POLLIN) { return app_add_fd(fd, mask, &slots[number], on_event); }
    void remove(int number) { app_remove_fd(ready, &slots[number], on_event); }
    int ready = eventfd(1, 0), quiet = eventfd(0, 0); // readable always and never
    slot slots[20];
};

TEST_F(loop_test, a_slot_is_descriptor_context_and_callback_in_order_of_registration)
{
    std::string all;
    for (int i = 0; i < 17; ++i) { // one more than the table has room for at first
        EXPECT_EQ(add(i, ready), i + 1);
        all += std::to_string(i) + "r ";
    }
    EXPECT_EQ(add(4, ready), 4);
    EXPECT_EQ(pass(), all);
    remove_all();
    add(1, ready);
    EXPECT_EQ(app_add_fd(ready, POLLIN, &slots[1], on_other), 2);
    EXPECT_EQ(pass(), "1r other ");
    EXPECT_EQ(add(1, ready, 0), 0) << "only the mask changes";
    app_remove_fd(quiet, &slots[1], on_other);
    remove(2);
    EXPECT_EQ(pass(), "other ");
    for (int i = 0; i < 2; ++i)
        app_remove_fd(ready, &slots[1], on_other);
    EXPECT_EQ(pass(), "");
    EXPECT_EQ(add(3, ready), 2) << "the freed place is reclaimed";
}

TEST_F(loop_test, what_a_callback_removes_is_not_called_and_what_it_adds_only_after_a_poll)
{
    const auto call = [](void *ctx) {
        called += "late" + std::to_string(static_cast<slot *>(ctx)->number) + " ";
    };
    const struct {
        std::function<void()> first;
        const char *same_pass, *next_pass;
    } cases[] = {
        {[this] { remove(0); }, "0r 1r 2r ", "1r 2r "},
        {[this] { remove(1); }, "0r 2r ", "0r 2r "},
        {[this] { app_remove_ctx(&slots[2]); }, "0r 1r ", "0r 1r "},
        {[this] { add(7, ready); }, "0r 1r 2r ", "0r 1r 2r 7r "},
        {[this] { remove(1), add(1, ready); }, "0r 2r ", "0r 2r 1r "},
        {[this] {
             for (int i = 3; i < 20; ++i)
                 add(i, quiet);
         },
         "0r 1r 2r ", "0r 1r 2r "},
        {[&] {
             for (int i : {1, 2})
                 app_scheduler_add(&slots[i], call, 1);
             app_remove_ctx(&slots[1]);
         },
         "0r 2r late2 ", "0r 2r "},
    };
    for (const auto &c : cases) {
        for (int i = 0; i < 3; ++i)
            add(i, ready);
        slots[0].then = [&] { std::exchange(slots[0].then, nullptr), c.first(); };
        EXPECT_EQ(pass(), c.same_pass);
        EXPECT_EQ(pass(), c.next_pass);
        remove_all();
    }
}

TEST_F(loop_test, events_tell_what_happened_and_an_error_is_logged_on_every_pass)
{
    int hung_up[2], with_data[2], broken[2], peers[2];
    ASSERT_EQ(pipe(hung_up) + pipe(with_data) + pipe(broken) + socketpair(AF_UNIX, SOCK_STREAM, 0, peers), 0);
    EXPECT_EQ(write(with_data[1], "x", 1), 1);
    for (const int end : {hung_up[1], with_data[1], broken[0], peers[1]})
        close(end);
    const struct {
        int fd, mask;
        std::string events;
    } cases[] = {
        {ready, POLLIN, "0r "},       {ready, POLLIN | POLLOUT, "0rw "}, {quiet, POLLOUT, "0w "},
        {hung_up[0], POLLIN, "0e "},  {with_data[0], POLLIN, "0re "},    {hung_up[0], 0, "0e "},
        {broken[1], POLLOUT, "0we "}, {peers[0], POLLIN, "0re "},        {1000, POLLIN, "0e "},
    };
    for (const auto &c : cases) {
        add(0, c.fd, c.mask);
        for (int i = 0; i < 2; ++i) {
            const captured_log log;
            const std::string line = "dispatch_sock_events: error: " + std::to_string(c.fd) + "\n";
            EXPECT_EQ(pass(), c.events) << c.fd;
            EXPECT_EQ(log.messages(), c.events.ends_with("e ") ? line : "");
        }
        remove_all();
    }
    for (const int end : {hung_up[0], with_data[0], broken[1], peers[0]})
        close(end);
}

TEST_F(loop_test, the_loop_polls_twice_a_pass_and_ends_with_the_code)
{
    const int codes[][2] = {{0, 0}, {0x12345, 0x2345}, {-1, 0xFFFF}};
    for (const auto &[code, result] : codes) {
        isolated([&] {
            eventfd_t drained; // the parent has it too
            add(0, quiet);
            slots[0].then = [&] { eventfd_read(quiet, &drained), app_quit(code); };
            timer_call_later(1500, nullptr, [](void *) { called += "timer "; });
            support::on_idle = [this] { support::poll_timeouts.back() < 0 && eventfd_write(quiet, 1); };
            EXPECT_EQ(app_run(), result);
            const std::vector<int> &polls = support::poll_timeouts;
            EXPECT_EQ((std::vector<int>{polls.begin(), polls.begin() + 3}), (std::vector<int>{0, 1499, 0}));
            EXPECT_EQ(polls.back(), -1);
            EXPECT_EQ(polls.size() % 2, 0u);
        });
    }
    isolated([] { // what is due at the end still runs
        static int runs;
        timer_start(timer_new(
                        0, nullptr, [](void *) { ++runs, app_quit(1); }, "test"),
                    -1);
        EXPECT_EQ(app_run(), 1);
        EXPECT_EQ(runs, 1001);
    });
    for (const int failing : {1, 2}) {
        isolated([failing] {
            const captured_log log;
            support::fail_call(support::POLL, failing);
            timer_call_later(10, nullptr, [](void *) { app_quit(0); });
            support::on_idle = [] {};
            app_run();
            EXPECT_EQ(log.messages(), failing == 1 ? "SYSERROR: app_run: Interrupted system call\n" : "");
        });
    }
}

TEST_F(loop_test, without_memory_a_registration_fails_and_harms_nothing)
{
    isolated([this] {
        int fd = 3000; // none that is open: they only take place, until the table must grow
        for (const int k : {1, 2}) {
            support::fail_call(support::ALLOC, k);
            while (add(9, fd, 0) > 0)
                ASSERT_LT(++fd, 4000);
            EXPECT_TRUE(support::end_failing());
        }
        EXPECT_EQ(add(1, ready), fd - 3000 + 1);
        app_remove_ctx(&slots[9]);
        EXPECT_EQ(pass(), "1r ");
    });
}

TEST_F(loop_test, the_stack_of_calls_is_paired_beyond_its_size_and_a_broken_pipe_survived)
{
    isolated([] {
        static const char at[300] = {};
        for (const char &addr : at)
            EXPECT_GT(logged_stack_push(&addr), 0);
        for (int i = 299; i >= 2; --i)
            logged_stack_pop(&at[i]);
        logged_stack_pop(&at[0]); // not the innermost: stays
        EXPECT_EQ(logged_stack_push(&at[2]), 3);
        for (int i = 2; i >= -1; --i)
            logged_stack_pop(&at[std::max(i, 0)]);
        EXPECT_EQ(logged_stack_push(&at[0]), 1);
        app_init(0, nullptr, nullptr, "test");
        const captured_log log;
        for (int i = 0; i < 2; ++i)
            raise(SIGPIPE);
        EXPECT_EQ(log.messages(), "sigio_handler: SIGPIPE!\nsigio_handler: SIGPIPE!\n");
    });
    const auto any = [](int) { return true; };
    EXPECT_EXIT((app_init(0, nullptr, nullptr, "test"), exit(0)), any,
                "app_atexit\\(\\): app: [0-9]+: exiting");
}

} // namespace
