// What parts of the daemon cost: its loop and timers beside those of Debian's libuv, libevent and libev; the
// look-up of a variable among few and among many. Every measurement of a loop is a process of its own, so
// that none inherits another's heap. Nothing here waits, so processor time is measured, which other load on
// the machine affects less.
#include "bench/check.h"
#include "bench/figures.h"
#include "bench/loops.h"
#include "syscfg/definition.h"
#include "syscfg/lookup.h"

#include <algorithm>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int dispatches = 2000;
constexpr int restarts = 2000;

int64_t processor_ns()
{
    timespec spent;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &spent);
    return int64_t{spent.tv_sec} * 1000000000 + spent.tv_nsec;
}

// ---- one loop, in a process of its own ----

// The input of a process under measurement.
struct trial {
    const loop *under_test;
    int timers;
    bool of_restarts;
    int token[2]; // passes one byte round
    int result;
    int calls;
    int64_t begin_ns;
};

trial current;

[[noreturn]] void end_with(int64_t spent_ns, int operations)
{
    const double each = static_cast<double>(spent_ns) / operations;
    expect(write(current.result, &each, sizeof each) == sizeof each, "write");
    _exit(0);
}

[[noreturn]] void measure_restarts()
{
    constexpr int step = 17; // coprime to the numbers of timers
    int index = 0;
    const int64_t begin = processor_ns();
    for (int i = 0; i < restarts; ++i) {
        index = (index + step) % current.timers;
        current.under_test->restart(index);
    }
    end_with(processor_ns() - begin, restarts);
}

void run_bare_loop(const int *idle_fds)
{
    pollfd polled[] = {{current.token[0], POLLIN, 0}, {idle_fds[0], POLLIN, 0}, {idle_fds[1], POLLIN, 0}};
    for (;;) {
        poll(polled, std::size(polled), -1);
        on_ready();
    }
}

[[noreturn]] void run_trial()
{
    int idle[2][2];
    expect(pipe(current.token) == 0 && pipe(idle[0]) == 0 && pipe(idle[1]) == 0, "pipe");
    const int idle_fds[] = {idle[0][0], idle[1][0]};
    put(current.token[1], "x");
    if (!current.under_test)
        run_bare_loop(idle_fds);
    current.under_test->prepare(current.token[0], idle_fds, current.timers);
    current.under_test->run();
    std::abort();
}

// Nanoseconds per operation. A null loop measures a bare poll.
double measure_loop(const loop *under_test, int timers, bool of_restarts)
{
    int ends[2];
    expect(pipe(ends) == 0, "pipe");
    const pid_t pid = check(fork(), "fork");
    if (pid == 0) {
        current = {under_test, timers, of_restarts, {-1, -1}, ends[1], 0, 0};
        run_trial();
    }
    close(ends[1]);
    double each = 0;
    expect(read(ends[0], &each, sizeof each) == sizeof each, "a loop did not run");
    close(ends[0]);
    waitpid(pid, nullptr, 0);
    return each;
}

side loop_side(const loop *under_test, int timers, bool of_restarts)
{
    return {under_test ? under_test->name : "bare poll",
            [=] { return measure_loop(under_test, timers, of_restarts); }};
}

void add_loops(const char *dispatch_name, const char *restart_name, int timers, double restarts_at_most)
{
    const loop *const all[] = {&loop_of_lumd, &loop_of_libuv, &loop_of_libevent, &loop_of_libev};
    figure dispatch = {dispatch_name, "ns", 10, 0, {}, false};
    figure restart = {restart_name, "ns", 10, restarts_at_most, {}, true};
    for (const loop *under_test : all) {
        dispatch.sides.push_back(loop_side(under_test, timers, false));
        restart.sides.push_back(loop_side(under_test, timers, true));
    }
    dispatch.sides.push_back(loop_side(nullptr, 0, false));
    add_figure(dispatch);
    add_figure(restart);
}

// ---- look-up ----

struct variables {
    syscfg database;
    std::vector<std::string> names;
};

// Declares the variables in a file, as the daemon does.
void declare(variables &declared, int count)
{
    std::string text;
    for (int i = 0; i < count; ++i) {
        declared.names.push_back("V_" + std::to_string(1000 + i));
        text += declared.names.back() + " integer\n";
    }
    const int file = check(memfd_create("declarations", MFD_CLOEXEC), "memfd_create");
    put(file, text);
    const std::string path = "/proc/self/fd/" + std::to_string(file);
    char line[512];
    expect(parse_definition(&declared.database, path.c_str(), line, sizeof line) == 0, path.c_str());
    build_var_tbl(&declared.database);
    build_alias_tbl(&declared.database);
    close(file);
    for (const std::string &name : declared.names) {
        const syscfg_var *var = find_var(&declared.database, name);
        expect(var && name == var->name, "another variable was found");
    }
}

double time_look_ups(const variables &among)
{
    constexpr int look_ups = 10000;
    constexpr size_t step = 37;
    static size_t last;
    int found = 0;
    const int64_t begin = processor_ns();
    for (int i = 0; i < look_ups; ++i) {
        last = (last + step) % among.names.size();
        found += find_var(&among.database, among.names[last]) != nullptr;
    }
    const double each = static_cast<double>(processor_ns() - begin) / look_ups;
    expect(found == look_ups, "a variable was not found");
    return each;
}

void add_look_up(const char *name, const variables &many, const variables &few)
{
    add_figure(
        {name, "ns", 20, 1.05, {{"lumd", [&many] { return time_look_ups(many); }}, {"among 100", [=] {
                                                                                        return time_look_ups(
                                                                                            few);
                                                                                    }}}});
}

} // namespace

void on_ready()
{
    if (current.of_restarts)
        measure_restarts();
    if (current.calls++ == 0)
        current.begin_ns = processor_ns();
    if (current.calls > dispatches)
        end_with(processor_ns() - current.begin_ns, dispatches);
    char token;
    expect(read(current.token[0], &token, 1) == 1 && write(current.token[1], &token, 1) == 1,
           "the token is lost");
}

int main(int argc, char **argv)
{
    add_loops("dispatch, 32 timers", "timer stop and start, 32 timers", 32, 1.0);
    add_loops("dispatch, 1,000 timers", "timer stop and start, 1,000 timers", 1000, 0);
    static variables few, many, very_many;
    declare(few, 100);
    declare(many, 1000);
    declare(very_many, 5000);
    add_look_up("look-up among 1,000 variables", many, few);
    add_look_up("look-up among 5,000 variables", very_many, few);
    run_figures(argc, argv, stdout);
}
