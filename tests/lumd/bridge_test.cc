#include "tests/lumd/fixture.h"

#include "app/app.h"
#include "lumd/control.h"
#include "lumd/time_zone.h"

#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

static uid_t other_user; // the daemon's user; 0: unchanged

extern "C" uid_t __real_geteuid();
extern "C" uid_t __wrap_geteuid()
{
    return other_user ? other_user : __real_geteuid();
}

namespace {

struct bridge : lumd_test {};

TEST_F(bridge, names_of_values)
{
    load("service a");
    play("start a > start a");
    const std::string longest(255, 'N');
    variables = {{"TZ", "+8"}, {"A:B", "ab"}, {"", "nameless"}, {"HOME", "here"}, {longest, "long"}};
    for (const auto &[name, value, logged] :
         table("TZ => +8\nsyscfg:TZ => +8\nsyscfg:A:B => ab\nsyscfg: => nameless\n"
               "tz\nSyscfg:TZ =>  => FAILED: \n:TZ =>  => FAILED: \n"
               "env:HOME =>  => CHECKPOINT: \nfoo:TZ =>  => FAILED: \n" +
               longest + "M => long")) {
        log.clear();
        const char *found = svcent_getSyscfg(slot("a")->svcent, name.c_str());
        EXPECT_EQ(found ? found : "", value) << name;
        EXPECT_EQ(log.text().find(logged), logged.empty() ? 0u : 2u) << name;
    }
}

TEST_F(bridge, time_zones)
{
    const std::string zeros(127, '0'); // fill a zone
    const time_t epoch = 0;
    for (const auto &[value, zone, east] :
         table("+8 => STD-8 => 480\n-3:30 => STD+3:30 => -210\nUTC => UTC => 0\n"
               "CST+8 => CST-8 => 480\nGMT-2 => GMT+2 => -120\nA+1-2 => A-1-2\n"
               "B-1+2 => B-1-2\n+" +
               zeros + " => STD-" + zeros + "\n+0" + zeros)) {
        unsetenv("TZ");
        EXPECT_EQ(init_tz(value.c_str()), 0);
        EXPECT_EQ(getenv("TZ") ? getenv("TZ") : "", zone) << value;
        EXPECT_TRUE(east.empty() || localtime(&epoch)->tm_gmtoff == stoi(east) * 60) << value;
    }
    unsetenv("TZ");
    init_tz("");
    EXPECT_EQ(getenv("TZ"), nullptr);
    setenv("TZ", "STD+5", 1);
    init_tz("+8");
    EXPECT_STREQ(getenv("TZ"), "STD+5");
    unsetenv("TZ");
}

struct control : lumd_test {
    void write_fifo(std::string_view text)
    {
        const int fd = open(support::device_path("/tmp/svcctl").c_str(), O_WRONLY | O_NONBLOCK);
        EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        close(fd);
        log.clear();
        app_poll_once();
    }
};

TEST_F(control, requests)
{
    const std::string long_name(31, 'n');
    load("service a;exec fake eager;service b;exec fake eager;service ped;exec fake eager;service two words;"
         "service " +
         long_name);
    ASSERT_EQ(open_control_fifo(manager), 0);
    const std::string cut =
        "start b" + std::string(244, ' ') + "\nstart ped\n"; // a read ends within its second line
    const std::pair<std::string, std::string> rows[] = {
        {"start b a\n", "start b, start a"},
        {"  \tstop   a\n", "stop a, release a"},
        {"startped\n", "start ped"},
        {"stopped\n", "stop ped, release ped"},
        {"start a\nstop b", "start a, stop b, release b"},
        {"start nobody b\n\n\r\nstop\nstart \n", "start b"},
        {"start " + long_name + "n\n", ""},
        {"start " + long_name + "\nstop " + long_name + "n\n", "start " + long_name},
        {"restart a\nSTOP a\nstar a\nstart two words\n", ""},
        {"start\tb\r\nstop a\vb\r\n", "stop a, release a, stop b, release b"},
        {{"start a\0start b\n", 16}, "start a"},
        {cut, "start b"}};
    for (const auto &[request, done] : rows) {
        write_fifo(request);
        EXPECT_EQ(trace(), done) << request;
        EXPECT_EQ(log.text().find("  lumd_recvCallback(): lumd: "), 0u);
        app_poll_once();
        EXPECT_EQ(trace(), "");
    }
    support::fail_call(support::READ, 1);
    write_fifo("start a\n");
    EXPECT_TRUE(support::end_failing() && log.has("FAILED: lumd_recvCallback") && trace().empty());
    app_poll_once();
    log.clear();
    app_poll_once(); // the daemon holds a writer, so the FIFO never reports its end
    EXPECT_EQ(log.text(), "");
    app_remove_ctx(manager);
}

// Only a directory, which may hold another program's files, keeps the daemon from its FIFO.
TEST_F(control, what_stands_in_the_place_of_the_fifo)
{
    const std::string path = support::device_path("/tmp/svcctl"), other = path + "2",
                      told = "open_control_fifo: /tmp/svcctl", advice = ": remove it, then start again\n";
    const std::tuple<const char *, mode_t, bool> rows[] = {
        {"nothing", 0, false},          {"another FIFO", S_IFIFO, false},    {"a file", S_IFREG, false},
        {"a link to nothing", 0, true}, {"a link to a FIFO", S_IFIFO, true}, {"a socket", S_IFSOCK, false},
        {"a directory", S_IFDIR, false}};
    for (const auto &[name, type, linked] : rows) {
        SCOPED_TRACE(name);
        load("service a");
        std::filesystem::remove(path);
        if (linked)
            std::filesystem::create_symlink(other, path);
        if (type == S_IFDIR)
            std::filesystem::create_directory(path);
        else if (type)
            mknod((linked ? other : path).c_str(), type | 0600, 0);
        const int before = support::open_descriptors();
        const bool replaced = type != S_IFDIR;
        EXPECT_EQ(open_control_fifo(manager), replaced ? 0 : -1);
        EXPECT_EQ(support::open_descriptors(), before + (replaced ? 2 : 0));
        EXPECT_EQ(std::filesystem::is_fifo(std::filesystem::symlink_status(path)), replaced);
        EXPECT_EQ(log.messages(), replaced ? "" : told + " is a directory" + advice);
        if (replaced && !HasFailure()) {
            write_fifo("start a\n");
            EXPECT_EQ(trace(), "start a");
            end_services();
        }
        app_remove_ctx(manager);
    }
    // Another user's FIFO, which can be opened or not.
    std::filesystem::remove(path);
    mkfifo(path.c_str(), 0600);
    other_user = getuid() + 1;
    for (const int failing : {0, 1}) {
        log.clear();
        support::fail_call(support::OPEN, failing, false, false, EACCES);
        const int opened = open_control_fifo(manager), error = errno;
        EXPECT_TRUE(failing ? opened == -1 && error == EACCES : opened == 0);
        EXPECT_EQ(log.messages(), told + " belongs to user " + std::to_string(getuid()) + advice);
        app_remove_ctx(manager);
    }
    other_user = 0;
}

} // namespace
