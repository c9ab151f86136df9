#include "app/crash.h"

#include "app/frame.h"
#include "app/keep_errno.h"
#include "app/log.h"
#include "app/memory.h"
#include "app/symbols.h"
#include "net/sockaddr.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <poll.h>
#include <span>
#include <unistd.h>

// Bounds of our own code, from the linker.
extern "C" const char __executable_start, etext;

namespace {

constexpr char log_module[] = "app";
constexpr char serial_console[] = "/dev/ttyS0";
constexpr char unknown_function[] = "????";
constexpr size_t frames_max = 256;
constexpr size_t text_max = 4096;
constexpr uintptr_t library_frames_size = 16384;
constexpr int last_closed_fd = 255;
constexpr size_t chunk_size = 1024; // a terminal with any room takes this much without blocking
constexpr int console_patience_ms = 1000;

// Frame of the function that started the runtime: main's.
uintptr_t outermost_fp;

void *frames[frames_max];
char text[text_max];

sockaddr *debug_server;
socklen_t debug_server_length;
int debug_server_fd = -1;

// The record at p, if it can be read. stack_top alone would admit the gap between the stack and the kernel's
// own pages above it. A sanitizer takes reading other functions' frames for an error.
__attribute__((no_sanitize("address"))) std::optional<frame_record> frame_at(uintptr_t p, uintptr_t low)
{
    const bool on_stack = p >= stack_begin && p >= low && p <= stack_top && p < stack_end &&
                          stack_end - p >= sizeof(frame_record);
    if (!on_stack || p % alignof(frame_record) != 0)
        return {};
    const frame_record record = *reinterpret_cast<const frame_record *>(p);
    return record;
}

const char *name_of(const void *addr)
{
    const char *name = symbol_lookup(addr);
    return name ? name : unknown_function;
}

bool is_own_code(uintptr_t addr)
{
    return reinterpret_cast<uintptr_t>(&__executable_start) <= addr &&
           addr < reinterpret_cast<uintptr_t>(&etext);
}

// True if the frames from fp on are our own code all the way to the program's outermost function.
bool leads_home(uintptr_t fp, uintptr_t low)
{
    while (fp != outermost_fp) {
        const uintptr_t p = fp - frame_record_below_fp;
        const auto frame = frame_at(p, low);
        if (!frame || !can_be_frame(*frame, p) || !is_own_code(frame->return_address))
            return false;
        low = p + sizeof(frame_record);
        fp = frame->caller_fp;
    }
    return true;
}

// The C library has no frames and uses the frame pointer freely; our frames then lie above its own.
uintptr_t nearest_frame(const code_position &at)
{
    if (leads_home(at.fp, at.sp))
        return at.fp;
    const uintptr_t first = at.sp + -at.sp % alignof(frame_record);
    for (uintptr_t p = first; p - first < library_frames_size; p += alignof(frame_record)) {
        if (leads_home(p + frame_record_below_fp, at.sp))
            return p + frame_record_below_fp;
    }
    return at.fp;
}

// A call that never returns may end its function; the address after it belongs to the next one.
const char *name_of_caller(const void *return_address)
{
    return name_of(static_cast<const char *>(return_address) - 1);
}

// Lines that do not fit are left out.
std::span<const char> format_frames(int count)
{
    size_t length = 0;
    for (int i = 0; i < count; ++i) {
        const size_t room = text_max - length;
        const char *name = i == 0 ? name_of(frames[i]) : name_of_caller(frames[i]);
        const int line = snprintf(text + length, room, "%d: %s:[%p]\n", i, name, frames[i]);
        if (line > 0 && static_cast<size_t>(line) < room)
            length += static_cast<size_t>(line);
    }
    return {text, length};
}

// A stopped console, or a pipe without a reader, must not keep a crashed program from ending.
void write_patiently(int fd, std::span<const char> rest)
{
    while (!rest.empty()) {
        pollfd console = {fd, POLLOUT, 0};
        if (poll(&console, 1, console_patience_ms) <= 0)
            return;
        const ssize_t written = write(fd, rest.data(), std::min(rest.size(), chunk_size));
        if (written <= 0)
            return;
        rest = rest.subspan(static_cast<size_t>(written));
    }
}

// Otherwise the next file opened, perhaps flash, would become descriptor 0 and get the next dump.
void hold_descriptor_0()
{
    unique_fd lowest(open("/dev/null", O_RDWR));
    if (lowest.get() == STDIN_FILENO)
        lowest.release();
}

void put_away(int fd)
{
    fsync(fd);
    close(fd);
}

const char *signal_name(int sig, std::span<char> other)
{
    switch (sig) {
    case SIGILL:
        return "Illegal instruction";
    case SIGABRT:
        return "Aborted";
    case SIGSEGV:
        return "Sigment fault";
    default:
        snprintf(other.data(), other.size(), "Kill by %d", sig);
        return other.data();
    }
}

void dump_interrupted(const void *context)
{
    const code_position at = position_of(*static_cast<const ucontext_t *>(context));
    dump_stack(nearest_frame(at), at.sp, at.pc);
}

void unblock(int sig)
{
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, sig);
    sigprocmask(SIG_UNBLOCK, &one, nullptr);
}

// A shell's background job ignores SIGQUIT; returning would crash again and again. The first process of a PID
// namespace has no default action at all.
[[noreturn]] void end_by_quit()
{
    signal(SIGQUIT, SIG_DFL);
    unblock(SIGQUIT);
    raise(SIGQUIT);
    _exit(128 + SIGQUIT);
}

} // namespace

int backtrace_walk(uintptr_t fp, uintptr_t low, void **out, int max)
{
    int count = 0;
    uintptr_t p = fp - frame_record_below_fp;
    while (count < max) {
        const auto frame = frame_at(p, low);
        if (!frame)
            break;
        out[count++] = reinterpret_cast<void *>(frame->return_address);
        low = p + sizeof(frame_record); // callers' frames lie above: no cycles
        p = frame->caller_fp - frame_record_below_fp;
    }
    return count;
}

__attribute__((noinline)) int app_backtrace(void **out, int max)
{
    const auto own = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    uintptr_t fp = own;
    for (int skipped = 0; skipped < 2; ++skipped) {
        const auto frame = frame_at(fp - frame_record_below_fp, own - frame_record_below_fp);
        if (!frame)
            return 0;
        fp = frame->caller_fp;
    }
    return backtrace_walk(fp, own, out, max);
}

__attribute__((noinline)) int app_backtrace_symbols(const char **names, int max)
{
    const std::unique_ptr<void *, free_deleter> found(
        max > 0 ? static_cast<void **>(calloc(static_cast<size_t>(max), sizeof(void *))) : nullptr);
    const int count = found ? app_backtrace(found.get(), max) : 0;
    for (int i = 0; i < count; ++i)
        names[i] = name_of_caller(found.get()[i]);
    return count;
}

void dump_stack(uintptr_t fp, uintptr_t sp, uintptr_t pc)
{
    frames[0] = reinterpret_cast<void *>(pc);
    const int count = backtrace_walk(fp, sp, &frames[1], frames_max - 1);
    const std::span<const char> lines = format_frames(count);
    send_debug_message(lines.data(), lines.size());
    write_patiently(STDIN_FILENO, lines);
    put_away(STDIN_FILENO);
    const unique_fd serial(open(serial_console, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (serial)
        write_patiently(serial.get(), lines);
}

void close_descriptors()
{
    for (int fd = 0; fd <= last_closed_fd; ++fd)
        put_away(fd);
}

void send_debug_message(const void *buffer, size_t length)
{
    if (!debug_server)
        return;
    log_trace(LOG_HERE, "sending info to debug server...");
    sendto(debug_server_fd, buffer, length, MSG_DONTWAIT | MSG_NOSIGNAL, debug_server, debug_server_length);
}

void crash_init(uintptr_t fp)
{
    if (const auto frame = frame_at(fp - frame_record_below_fp, stack_begin))
        outermost_fp = frame->caller_fp;
}

void debug_server_init()
{
    const char *value = getenv("DEBUG_SERVER");
    sockaddr_storage parsed;
    socklen_t length = sizeof parsed;
    if (!value || sockaddr_parse(value, reinterpret_cast<sockaddr *>(&parsed), &length) < 0)
        return;
    length = sockaddr_len(reinterpret_cast<sockaddr *>(&parsed));
    auto *copy = static_cast<sockaddr *>(malloc(length));
    if (!copy)
        return;
    memcpy(copy, &parsed, length);
    debug_server = copy;
    debug_server_length = length;
    const unique_fd sock(socket(copy->sa_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    debug_server_fd = fcntl(sock.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1); // a dump uses 0 to 2
    const int on = 1;
    setsockopt(debug_server_fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
}

int install_handler(int sig, signal_handler handler)
{
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigfillset(&action.sa_mask);
    if (sigaction(sig, &action, nullptr) < 0)
        return -1;
    unblock(sig); // the parent may have left it blocked
    return 0;
}

void fatal_signal_handler(int sig, siginfo_t *, void *context)
{
    char other[24];
    log_printf(0, "%s!\n", signal_name(sig, other));
    dump_interrupted(context);
    log_flush();
    close_descriptors();
    end_by_quit();
}

void sig_alrm_handler(int sig, siginfo_t *, void *context)
{
    if (sig != SIGALRM)
        return;
    const keep_errno unchanged;
    log_trace(LOG_HERE, "SIGALRM caught!!!!!!");
    dump_interrupted(context);
    hold_descriptor_0();
    if (install_handler(SIGALRM, sig_alrm_handler) < 0) {
        dprintf(STDOUT_FILENO, "signal error: %s\n", strerror(errno));
        exit(1);
    }
}
