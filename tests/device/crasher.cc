// Crashes as its arguments say, some functions deep in a callback within a callback; ends with 7 if it
// survives twice.
#include "app/app.h"
#include "app/timer.h"

#include <csignal>
#include <cstdlib>
#include <string_view>
#include <unistd.h>

#if defined(__arm__)
#define LOSE_FRAME "mov fp, #16\n udf #0"
#else
#define LOSE_FRAME "mov $16, %rbp\n ud2"
#endif

static std::string_view way;
static uintptr_t runs, number;

struct nested {
    static void innermost()
    {
        if (way == "store")
            *reinterpret_cast<volatile char *>(number) = 1;
        else if (way == "kill")
            kill(getpid(), static_cast<int>(number));
        else if (way == "abort")
            abort();
        else if (way == "lose")
            asm volatile(LOSE_FRAME);
        way == "kill" ? (void)0 : __builtin_trap();
    }
    static void middle(uintptr_t n = way == "deep" ? number : 0) { n > 0 ? middle(n - 1) : innermost(); }
    static void on_writable(void *, int, int, app_fd_handler *) { ++runs > 2 ? app_quit(7) : middle(); }
    static void on_timer(void *)
    {
        if (app_add_fd(STDOUT_FILENO, POLLOUT, nullptr, on_writable) < 0)
            abort();
        app_poll_once();
        app_remove_fd(STDOUT_FILENO, nullptr, on_writable);
        timer_call_later(1, nullptr, on_timer);
    }
};

int main(int, char **argv)
{
    way = argv[1];
    number = strtoul(argv[2], nullptr, 0);
    app_init(1, argv, nullptr, "crasher");
    return timer_call_later(0, nullptr, nested::on_timer) < 0 ? 1 : app_run();
}
