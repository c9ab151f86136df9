// What lies under the objects in a test program, by -Wl,--wrap: a virtual clock, a device's root, the log,
// and calls that fail. Calls that libc makes inside itself, and operator new, are not wrapped. The fixture
// support::test begins and ends every test with the clock at 1,000,000 s, an empty root, no capture and no
// failure. The virtual board has its files in the device's /board, once board_power_on has been called.
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

// The virtual clock, in microseconds; each gettimeofday adds one, as time passes in a pass of the loop. poll
// never waits: when nothing is ready it runs on_idle, looks again, then adds the time-out to the clock.
// Without on_idle a poll without end aborts, since nothing could ever happen.
inline int64_t now_us;
inline bool real_time; // poll, gettimeofday and time as they are
inline std::function<void()> on_idle;
inline std::vector<int> poll_timeouts; // of all polls since the test began

// Passes of the loop, with the clock going from timer to timer, until done() or ms have passed; the last
// done(). In real time it waits 1 ms between the passes.
bool run_until(const std::function<bool()> &done, int64_t ms);
void run_for(int64_t ms);

// The device's files: a path that begins with one of device_prefixes is taken below device_root by open,
// fopen, unlink, mkfifo, access, execv and by bind, connect and sendto of Unix sockets. No other path is
// touched.
inline std::vector<std::string> device_prefixes;
inline std::string device_root; // a temporary directory, made and removed by the fixture
inline std::string device_path(std::string_view path)
{
    return device_root + std::string(path);
}
void write_file(std::string_view path, std::string_view text); // a path of the device
std::string read_file(std::string_view path);
inline int sync_count; // sync only counts
// While record_io: "seek 0", "read 212", "write 4096" of the descriptors that were opened in the device's
// /dev.
inline bool record_io;
inline std::vector<std::string> device_io;

// Keeps what is written to standard error, one string a write, from its beginning to its end. Signal handlers
// write too, also in the middle of another write.
struct captured_log {
    captured_log() { clear(), capturing = true; }
    ~captured_log() { capturing = false; }
    static std::vector<std::string> writes();
    static std::string text();
    static std::string messages(); // the same, "  func(): module: 12: text" shortened to "func: text"
    static bool has(std::string_view part) { return text().find(part) != std::string::npos; }
    static void clear() { used = 0; }
    static std::atomic<size_t> &used; // of the memory behind it, whatever is in there
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

extern const std::map<unsigned, std::vector<int>> call_errors; // those that a kind can give

// From here on the k-th (from 1) call of these kinds fails, with and_later every one after it too. With torn
// a failing write does half of its work and says so. Without an error the kind's first is given.
void fail_call(unsigned kinds, int k, bool and_later = false, bool torn = false, int error = 0);
bool end_failing();          // true when a call was failed; nothing fails from here on
inline unsigned failed_kind; // of the last call that was failed

// Runs scenario as it is, and for each of these kinds, and each error that it can give, with the 1st, 2nd ...
// call of it failing until no call was left to fail. Expects that each run leaves as many descriptors and
// heap blocks as it found, and that scenario, which returns whether all that it did has succeeded by its own
// word, says no when a call has failed, and only then; of the kinds made_good it may say yes. Returns the
// number of failures.
int for_each_failure(unsigned kinds, const std::function<bool()> &scenario, unsigned made_good = 0);
int open_descriptors();
int pipe_end(); // for writing, of the last pipe, which is the one for SIGCHLD; -1 before there is one

// Runs body in a process of its own, which ends with its result, and keeps handlers of SIGCHLD from it. The
// status of the process.
int forked(const std::function<int()> &body);
// The same for what a process does once (app_run, log_set_level). Its expectations count.
void isolated(const std::function<void()> &body);

struct test : testing::Test {
    test();
    ~test() override;
};

} // namespace support
