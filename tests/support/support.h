// Replaces what lies under the objects in a test program, by -Wl,--wrap: a virtual clock, a device root, the
// log, and failing calls. Calls inside libc and operator new are not wrapped. Fixture support::test runs
// every test with the clock at 1,000,000 s, an empty root, no capture and no failures. The virtual board
// keeps its files in the device's /board, once board_power_on has been called.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace support {

// The virtual clock in microseconds; each gettimeofday adds one, as time passes within a pass of the loop.
// poll never waits: if nothing is ready it runs on_idle, looks again, then adds the time-out to the clock. An
// infinite poll without on_idle aborts, since nothing could ever happen.
inline int64_t now_us;
inline bool real_time; // poll, gettimeofday and time are the real ones
inline std::function<void()> on_idle;
inline std::vector<int> poll_timeouts; // of all polls since the test began

// Runs passes of the loop, moving the clock from timer to timer, until done() or until ms have passed;
// returns the last done(). In real time it waits 1 ms between passes.
bool run_until(const std::function<bool()> &done, int64_t ms);
void run_for(int64_t ms);

// The device's files: open, fopen, unlink, mkfifo, access, execv, and bind, connect and sendto of
// Unix sockets look up a path that begins with one of device_prefixes below device_root. Other paths
// are untouched.
inline std::vector<std::string> device_prefixes;
inline std::string device_root; // a temporary directory, made and removed by the fixture
inline std::string device_path(std::string_view path)
{
    return device_root + std::string(path);
}
void write_file(std::string_view path, std::string_view text); // path on the device
std::string read_file(std::string_view path);
inline int sync_count; // sync does nothing but count
// While record_io is set: "seek 0", "read 212", "write 4096" on descriptors of the device's /dev.
inline bool record_io;
inline std::vector<std::string> device_io;

// While it lives, keeps the text of each write to standard error. Signal handlers write too, even in the
// middle of another write.
struct captured_log {
    captured_log() { clear(), capturing = true; }
    ~captured_log() { capturing = false; }
    static std::vector<std::string> writes();
    static std::string text();
    static std::string messages(); // the same, "  func(): module: 12: text" shortened to "func: text"
    static bool has(std::string_view part) { return text().find(part) != std::string::npos; }
    static void clear() { used = 0; }
    static std::atomic<size_t> &used; // bytes used of the memory behind it
    static inline bool capturing;
};

// Kinds of calls that can fail; a write to standard error never does.
enum calls : unsigned {
    ALLOC = 1, // malloc, calloc, realloc, reallocarray
    OPEN = 2,
    READ = 4,
    WRITE = 8,
    LSEEK = 16,
    SOCKET = 32,
    BIND = 64,
    CONNECT = 128,
    SENDTO = 256,
    LISTEN = 512,
    SETSOCKOPT = 1024,
    POLL = 2048,
    MKFIFO = 4096,
    RECV = 8192, // recv, recvfrom, recvmsg
    PIPE = 16384,
    VFORK = 32768,
    IOCTL = 65536,
    ALL_CALLS = 131071
};

extern const std::map<unsigned, std::vector<int>> call_errors; // possible errors by kind

// From now on, the k-th call (from 1) of these kinds fails; with and_later, all later ones too. With torn, a
// failing write writes half and reports it. The default error is the kind's first.
void fail_call(unsigned kinds, int k, bool and_later = false, bool torn = false, int error = 0);
bool end_failing();          // true if a call failed; ends failing
inline unsigned failed_kind; // of the last failed call

// Runs scenario once without failures. Then, for each kind and each of its errors, runs it with the 1st, 2nd
// ... call failing until none is left to fail. Each run must leave as many descriptors and heap blocks as
// before. scenario returns whether all it did succeeded: it must return false exactly when a call failed, but
// for the kinds made_good it may return true. Returns the number of failures.
int for_each_failure(unsigned kinds, const std::function<bool()> &scenario, unsigned made_good = 0);
int open_descriptors();
int pipe_end(); // writing end of the last pipe, i.e. that of SIGCHLD; -1: none yet

// Runs body in a forked process that exits with its result; SIGCHLD handlers do not see it. Returns
// the status.
int forked(const std::function<int()> &body);
// The same for what a process does only once (app_run, log_set_level). Its expectations count.
void isolated(const std::function<void()> &body);

struct test : testing::Test {
    test();
    ~test() override;
};

} // namespace support
