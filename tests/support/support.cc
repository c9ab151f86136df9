#include "tests/support/support.h"

#include "app/app.h"
#include "device/board/board.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <pthread.h>
#include <regex>
#include <set>
#include <sstream>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

// Declares the wrapped function's original and begins the wrapper.
#define WRAP(result, name, ...)        \
    result __real_##name(__VA_ARGS__); \
    result __wrap_##name(__VA_ARGS__)
// A wrapper that adds nothing but failures.
#define FAILING(kind, failed, result, name, parameters, call) \
    result __real_##name parameters;                          \
    result __wrap_##name parameters                           \
    {                                                         \
        return fails(kind) ? failed : call;                   \
    }

namespace support {
namespace {

struct {
    unsigned kinds;
    int left;
    bool and_later, torn;
    int error;
    bool happened;
} failing;
std::set<int> flash_fds;
int last_pipe_end = -1;
std::set<const void *> blocks; // allocated since counting began
bool counting;

bool fails(calls kind)
{
    if (!(failing.kinds & kind) || (--failing.left != 0 && !(failing.and_later && failing.left < 0)))
        return false;
    failing.happened = true;
    failed_kind = kind;
    errno = failing.error ? failing.error : call_errors.at(kind).front();
    return true;
}

void *counted(void *block)
{
    if (counting && block)
        blocks.insert(block);
    return block;
}

void *uncounted(void *block)
{
    if (counting)
        blocks.erase(block);
    return block;
}

bool is_of_device(std::string_view path)
{
    const auto leads = [path](const std::string &prefix) { return path.starts_with(prefix); };
    return !device_root.empty() && std::any_of(device_prefixes.begin(), device_prefixes.end(), leads);
}

std::string redirected(std::string_view path)
{
    return is_of_device(path) ? device_path(path) : std::string(path);
}

// An address as passed to the kernel.
struct redirected_address {
    sockaddr_un moved = {};
    const sockaddr *addr;
    socklen_t len;

    redirected_address(const sockaddr *given, socklen_t given_len) : addr(given), len(given_len)
    {
        constexpr size_t path_at = offsetof(sockaddr_un, sun_path);
        if (!given || given_len <= path_at || given->sa_family != AF_UNIX)
            return;
        const char *path = reinterpret_cast<const sockaddr_un *>(given)->sun_path;
        const std::string there = redirected({path, strnlen(path, given_len - path_at)});
        if (there == path)
            return;
        moved.sun_family = AF_UNIX;
        there.copy(moved.sun_path, sizeof moved.sun_path - 1);
        addr = reinterpret_cast<const sockaddr *>(&moved);
        len = given_len == sizeof moved ? given_len : static_cast<socklen_t>(path_at + there.size());
    }
};
#define MOVED(addr, len) redirected_address(addr, len).addr, redirected_address(addr, len).len

void record(int fd, const char *what, long number)
{
    if (record_io && flash_fds.contains(fd))
        device_io.push_back(what + std::to_string(number));
}

} // namespace

const std::map<unsigned, std::vector<int>> call_errors = {
    {ALLOC, {ENOMEM}},
    {OPEN, {EMFILE, ENOENT, EACCES}},
    {READ, {EIO, EINTR, EAGAIN}},
    {WRITE, {EIO, ENOSPC, EINTR, EAGAIN}},
    {LSEEK, {EIO, EINVAL}},
    {SOCKET, {EMFILE, ENOBUFS, EACCES}},
    {BIND, {EADDRINUSE, EACCES}},
    {CONNECT, {ECONNREFUSED, ENOENT, EAGAIN}},
    {SENDTO, {ENOBUFS, EAGAIN, ENETUNREACH, ECONNREFUSED}},
    {LISTEN, {EADDRINUSE}},
    {SETSOCKOPT, {ENOBUFS}},
    {POLL, {EINTR, ENOMEM}},
    {MKFIFO, {EROFS, ENOSPC}},
    {RECV, {EAGAIN, EINTR, ECONNREFUSED}},
    {PIPE, {EMFILE, ENFILE}},
    {VFORK, {EAGAIN, ENOMEM}},
    {IOCTL, {ENODEV, EIO}}};

bool run_until(const std::function<bool()> &done, int64_t ms)
{
    const auto clock = [] {
        timeval now;
        gettimeofday(&now, nullptr);
        return now.tv_sec * 1000000LL + now.tv_usec;
    };
    const long long end = clock() + ms * 1000;
    while (!done()) {
        const int wait = app_poll_once();
        const long long now = clock();
        if (now >= end)
            return done();
        if (real_time)
            usleep(1000);
        else if (wait != 0)
            now_us = wait < 0 ? end : std::min(end, now + wait * 1000LL);
    }
    return true;
}

void run_for(int64_t ms)
{
    run_until([] { return false; }, ms);
}

void write_file(std::string_view path, std::string_view text)
{
    const std::filesystem::path target = device_path(path);
    std::filesystem::create_directories(target.parent_path());
    std::ofstream(target, std::ios::binary) << text;
}

std::string read_file(std::string_view path)
{
    std::stringstream text;
    text << std::ifstream(device_path(path), std::ios::binary).rdbuf();
    return text.str();
}

namespace {

// Untouched pages cost nothing.
struct shared_log {
    std::atomic<size_t> used;
    char text[32 << 20];
};
shared_log &new_log(void *at, int flags)
{
    return *static_cast<shared_log *>(
        mmap(at, sizeof(shared_log), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | flags, -1, 0));
}
// A vfork child writes here too, even where an emulator copies it; a fork child has its own copy.
shared_log &captured = new_log(nullptr, 0);
[[maybe_unused]] const int copies_at_fork = pthread_atfork(nullptr, nullptr, [] {
    const std::string so_far(captured.text, captured.used);
    captured.used = so_far.copy(new_log(&captured, MAP_FIXED).text, so_far.size());
});

// Ends each text with a zero byte, which no log line contains.
void capture(const void *buffer, size_t size)
{
    const size_t at = captured.used.fetch_add(size + 1);
    if (at + size >= sizeof captured.text)
        abort();
    memcpy(captured.text + at, buffer, size);
    captured.text[at + size] = '\0';
}

} // namespace

std::atomic<size_t> &captured_log::used = captured.used;

std::vector<std::string> captured_log::writes()
{
    std::vector<std::string> all;
    for (size_t at = 0; at < used; at += all.back().size() + 1)
        all.emplace_back(captured.text + at);
    return all;
}

std::string captured_log::text()
{
    std::string all;
    for (const std::string &line : writes())
        all += line;
    return all;
}

std::string captured_log::messages()
{
    static const std::regex shape(R"(^  (.*?)\(\): [^:]*: [0-9]+)");
    std::string all;
    for (const std::string &line : writes())
        all += std::regex_replace(line, shape, "$1");
    return all;
}

void fail_call(unsigned kinds, int k, bool and_later, bool torn, int error)
{
    failing = {kinds, k, and_later, torn, error, false};
}

bool end_failing()
{
    failing.kinds = 0;
    return failing.happened;
}

int open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<int>(std::distance(begin(all), end(all)));
}

int pipe_end()
{
    return last_pipe_end;
}

namespace {

// True if a call failed and every expectation held.
bool run_failing(unsigned kind, int error, int k, unsigned made_good, const std::function<bool()> &scenario)
{
    SCOPED_TRACE("call " + std::to_string(k) + " of kind " + std::to_string(kind) + ": " + strerror(error));
    const int descriptors = open_descriptors();
    blocks.clear();
    counting = true;
    fail_call(kind, k, false, false, error);
    const bool done = scenario(), failed = end_failing();
    counting = false;
    EXPECT_TRUE(done == !failed || (failed && (kind & made_good))) << "done: " << done;
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(blocks.size(), 0u);
    return failed && !testing::Test::HasFailure();
}

} // namespace

int for_each_failure(unsigned kinds, const std::function<bool()> &scenario, unsigned made_good)
{
    int failures = 0;
    run_failing(0, 0, 0, made_good, scenario);
    for (const auto &[kind, kind_errors] : call_errors) {
        for (const int error : kinds &kind ? kind_errors : std::vector<int>()) {
            for (int k = 1; run_failing(kind, error, k, made_good, scenario); ++k)
                ++failures;
        }
    }
    return failures;
}

// Not a death test: the daemon's SIGCHLD handler would reap its child.
int forked(const std::function<int()> &body)
{
    sigset_t child_signal, before;
    sigemptyset(&child_signal);
    sigaddset(&child_signal, SIGCHLD);
    sigprocmask(SIG_BLOCK, &child_signal, &before);
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        sigprocmask(SIG_SETMASK, &before, nullptr);
        const int result = body();
        fflush(nullptr);
        _exit(result);
    }
    int status = -1;
    waitpid(child, &status, 0);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return status;
}

void isolated(const std::function<void()> &body)
{
    const int status = forked([&] {
        alarm(30);
        body();
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(status, 0);
}

test::test()
{
    now_us = 1000000LL * 1000000;
    real_time = record_io = false;
    sync_count = 0;
    poll_timeouts.clear();
    device_io.clear();
    device_prefixes = {"/etc/",      "/usr/etc/",           "/dev/mtdblock/", "/dev/watchdog", "/dev/gpio",
                       "/proc/net/", "/tmp/.syscfg-server", "/tmp/svcctl",    "/tmp/log"};
    char name[] = "/tmp/device.XXXXXX";
    device_root = mkdtemp(name);
    setenv("BOARD_DIR", device_path("/board").c_str(), 1);
    std::filesystem::create_directory(device_path("/tmp"));
}

test::~test()
{
    fail_call(0, 0);
    on_idle = nullptr;
    captured_log::capturing = false;
    std::filesystem::remove_all(std::exchange(device_root, ""));
}

} // namespace support

using namespace support;

// clang-format off
extern "C" {

FAILING(ALLOC, nullptr, void *, malloc, (size_t size), counted(__real_malloc(size)))
FAILING(ALLOC, nullptr, void *, calloc, (size_t n, size_t size), counted(__real_calloc(n, size)))
FAILING(ALLOC, nullptr, void *, realloc, (void *old, size_t size),
        counted(__real_realloc(uncounted(old), size)))
FAILING(ALLOC, nullptr, void *, reallocarray, (void *old, size_t n, size_t size),
        counted(__real_reallocarray(uncounted(old), n, size)))
WRAP(void, free, void *block) { __real_free(uncounted(block)); }
// Raw sockets need rights that tests do not have.
FAILING(SOCKET, -1, int, socket, (int domain, int type, int protocol),
        (type & 15) == SOCK_RAW ? __real_socket(domain, SOCK_DGRAM | SOCK_CLOEXEC, 0)
                                : __real_socket(domain, type, protocol))
FAILING(OPEN, nullptr, FILE *, fopen, (const char *path, const char *mode),
        __real_fopen(redirected(path).c_str(), mode))
FAILING(BIND, -1, int, bind, (int fd, const sockaddr *addr, socklen_t len),
        __real_bind(fd, MOVED(addr, len)))
FAILING(CONNECT, -1, int, connect, (int fd, const sockaddr *addr, socklen_t len),
        __real_connect(fd, MOVED(addr, len)))
FAILING(SENDTO, -1, ssize_t, sendto,
        (int fd, const void *data, size_t size, int flags, const sockaddr *addr, socklen_t len),
        __real_sendto(fd, data, size, flags, MOVED(addr, len)))
FAILING(RECV, -1, ssize_t, recv, (int fd, void *data, size_t size, int flags), __real_recv(fd, data, size, flags))
FAILING(RECV, -1, ssize_t, recvfrom,
        (int fd, void *data, size_t size, int flags, sockaddr *from, socklen_t *len),
        __real_recvfrom(fd, data, size, flags, from, len))
FAILING(RECV, -1, ssize_t, recvmsg, (int fd, msghdr *message, int flags), __real_recvmsg(fd, message, flags))
FAILING(LISTEN, -1, int, listen, (int fd, int backlog), __real_listen(fd, backlog))
FAILING(SETSOCKOPT, -1, int, setsockopt, (int fd, int level, int name, const void *value, socklen_t size),
        __real_setsockopt(fd, level, name, value, size))
FAILING(MKFIFO, -1, int, mkfifo, (const char *path, mode_t mode), __real_mkfifo(redirected(path).c_str(), mode))
WRAP(int, unlink, const char *path) { return __real_unlink(redirected(path).c_str()); }
WRAP(int, access, const char *path, int mode) { return __real_access(redirected(path).c_str(), mode); }
WRAP(void, sync, ) { ++sync_count; }
WRAP(time_t, time, time_t *out) { return real_time || out ? __real_time(out) : now_us / 1000000; }
// clang-format on

// Runs in a vfork child, so it must not allocate. Only harmless programs of the machine may run: if a kind
// runs out of memory, its name is looked up among programs, and the machine has a reboot.
WRAP(int, execv, const char *path, char *const *argv)
{
    const std::string_view program = path;
    if (!is_of_device(path) && !program.starts_with(device_root) && program != "/bin/sleep" &&
        program != "/bin/true")
        return errno = EPERM, -1;
    char there[PATH_MAX];
    snprintf(there, sizeof there, "%s%s", is_of_device(path) ? device_root.c_str() : "", path);
    return __real_execv(there, argv);
}

// open and ioctl are called with or without the last argument; it is passed on unread.
WRAP(int, open, const char *path, int flags, mode_t mode)
{
    int fd = fails(OPEN) ? -1 : board_open(path);
    if (fd == BOARD_NOT_MINE)
        fd = __real_open(redirected(path).c_str(), flags, mode);
    flash_fds.erase(fd);
    if (std::string_view(path).starts_with("/dev/mtdblock/"))
        flash_fds.insert(fd);
    return fd;
}

WRAP(ssize_t, read, int fd, void *buffer, size_t size)
{
    record(fd, "read ", static_cast<long>(size));
    return fails(READ) ? -1 : __real_read(fd, buffer, size);
}

WRAP(ssize_t, write, int fd, const void *buffer, size_t size)
{
    if (fd == STDERR_FILENO && captured_log::capturing)
        capture(buffer, size);
    if (fd == STDERR_FILENO)
        return captured_log::capturing ? static_cast<ssize_t>(size) : __real_write(fd, buffer, size);
    record(fd, "write ", static_cast<long>(size));
    if (fails(WRITE))
        return failing.torn ? __real_write(fd, buffer, size / 2) : -1;
    const ssize_t done = board_write(fd, buffer, size);
    return done != BOARD_NOT_MINE ? done : __real_write(fd, buffer, size);
}

// The board looks at no socket: descriptor 0 would do for one that was never opened.
WRAP(int, ioctl, int fd, unsigned long request, void *argument)
{
    if (fd <= STDIN_FILENO)
        return errno = EBADF, -1;
    const int done = fails(IOCTL) ? -1 : board_ioctl(fd, request, argument);
    return done != BOARD_NOT_MINE ? done : __real_ioctl(fd, request, argument);
}

WRAP(int, pipe2, int *ends, int flags)
{
    const int result = fails(PIPE) ? -1 : __real_pipe2(ends, flags);
    last_pipe_end = result == 0 ? ends[1] : last_pipe_end;
    return result;
}

int next_vfork_fails()
{
    return fails(VFORK);
}

WRAP(off_t, lseek, int fd, off_t to, int whence)
{
    record(fd, "seek ", to);
    return fails(LSEEK) ? -1 : __real_lseek(fd, to, whence);
}

WRAP(int, poll, pollfd *fds, nfds_t count, int timeout)
{
    poll_timeouts.push_back(timeout);
    if (fails(POLL))
        return -1;
    int ready = __real_poll(fds, count, real_time ? timeout : 0);
    if (ready != 0 || timeout == 0 || real_time)
        return ready;
    if (on_idle)
        on_idle();
    else if (timeout < 0)
        abort(); // nothing could ever happen
    ready = __real_poll(fds, count, 0);
    now_us += ready == 0 && timeout > 0 ? timeout * 1000LL : 0;
    return ready;
}

WRAP(int, gettimeofday, timeval *now, void *zone)
{
    if (real_time)
        return __real_gettimeofday(now, zone);
    *now = {now_us / 1000000, now_us % 1000000};
    ++now_us;
    return 0;
}

} // extern "C"

// vfork's caller must not return before the child has run its program, so this jumps to the original.
#ifdef __arm__
asm(".text\n.globl __wrap_vfork\n.type __wrap_vfork, %function\n__wrap_vfork:\npush {r3, lr}\nbl "
    "next_vfork_fails\n"
    "cmp r0, #0\npop {r3, lr}\nbeq __real_vfork\nmov r0, #-1\nbx lr\n");
#else
asm(".text\n.globl __wrap_vfork\n__wrap_vfork:\nsubq $8, %rsp\ncall next_vfork_fails\naddq $8, %rsp\n"
    "testl %eax, %eax\njz __real_vfork\nmovl $-1, %eax\nret\n");
#endif
