// About half a minute of load: the daemon must neither grow nor lose a service, whatever it is asked.
#include "tests/device/under_test.h"

#include <gtest/gtest.h>
#include <random>

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr long most_growth = 1 << 20; // allows for freed memory that is kept
#else
constexpr long most_growth = 64;
#endif
constexpr int services = 20, rounds = 10, starts_a_round = 200, requests_a_round = 10000;

const char *const forms[] = {"?NAME",      "?NUM%05d",      "?NAME%url", "?NONE",
                             "?@time",     "?@version",     "?@lo_ip",   "?@no",
                             "NAME=abc",   "NAME=\"a",      "NUM=7",     "NUM=x",
                             "PICK=green", "HOST=10.0.0.1", "MODEL=x",   "@time=1",
                             "1a=2",       "NAME",          "%wait NUM", "%apply",
                             "%list",      "%wait NONE=1",  "%nothing",  "%apply:NAME NUM",
                             "NOTE=never", "FLAG=1",        "?",         "%wait MODEL=gw100"};
const char *const rare_forms[] = {"%save", "%reload", "%reset"}; // they sync the machine's file systems

struct soak : testing::Test {
    std::mt19937 random{1};
    int below(size_t end) { return static_cast<int>(random() % end); }
    static std::string word(int i) { return std::to_string(2000 + i); }

    static bool all_run(const running_lumd &lumd)
    {
        const auto all = lumd.children();
        for (int i = 0; i < services; ++i) {
            if (all.count(word(i)) != 1)
                return false;
        }
        return all.size() == services; // a zombie would add one
    }

    // Kills dependents first, so that the manager stops none of them itself.
    static void kill_all(const running_lumd &lumd)
    {
        const auto before = lumd.children();
        for (auto at = before.rbegin(); at != before.rend(); ++at)
            EXPECT_EQ(kill(at->second, SIGKILL), 0);
        EXPECT_TRUE(eventually([&] {
            return std::all_of(before.begin(), before.end(),
                               [&](auto &old) { return lumd.runs_anew(old.first, old.second); });
        }));
        EXPECT_TRUE(eventually([&] { return all_run(lumd); }));
    }

    // Every request gets an answer; waits stay until the end of the round.
    void ask_everything(const client &asking, const client &waiting)
    {
        for (int n = 0; n < requests_a_round; ++n) {
            if (n % 100 == 99) {
                waiting.send("%wait NOTE=later");
                continue;
            }
            const std::string text = n < 3 ? rare_forms[n] : forms[below(std::size(forms))];
            std::string answer = asking.ask(text);
            while (text == "%list" && answer.starts_with('>'))
                answer = asking.receive();
            ASSERT_TRUE(answer.starts_with('>') || answer.starts_with('!')) << text << ": " << answer;
        }
        EXPECT_EQ(asking.ask("NOTE=later"), "!OK");
        for (int n = 0; n < requests_a_round / 100; ++n)
            ASSERT_EQ(waiting.receive(), "!OK");
    }
};

TEST_F(soak, nothing_grows_and_nothing_is_lost)
{
    std::string conf, every;
    for (int i = 0; i < services; ++i) {
        conf += "service s" + std::to_string(i) + "\nexec sleep " + word(i) + "\n";
        conf += i < 4 ? "" : "depends s" + std::to_string(i - 4) + "\n";
        every = " s" + std::to_string(i) + every;
    }
    write_file("/tmp/svc.conf", conf);
    write_file("/etc/syscfg.def", "NAME string\nNUM integer\nPICK choice red,green\nHOST ip\nFLAG bool\n"
                                  "NOTE -n string\nMODEL -r string\n");
    running_lumd lumd("/tmp/svc.conf", "/dev/null");
    ASSERT_TRUE(lumd.has_started());
    request("start" + every + "\n");
    ASSERT_TRUE(eventually([&] { return all_run(lumd); }));
    const auto descriptors = [&] {
        return std::distance(std::filesystem::directory_iterator(lumd.proc("fd")), {});
    };
    const auto resident = [&] {
        const std::string status = read_file(lumd.proc("status"));
        return stol(status.substr(status.find("VmRSS:") + 6));
    };
    const auto first_descriptors = descriptors();
    long first_resident = 0;
    const client asking, waiting;
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        for (int i = 0; i < starts_a_round; ++i)
            request((below(2) ? "start s" : "stop s") + std::to_string(below(services)) + "\n");
        request("stop" + every + "\n");
        ASSERT_TRUE(eventually([&] { return lumd.children().empty(); })) << round;
        request("start" + every + "\n");
        ASSERT_TRUE(eventually([&] { return all_run(lumd); })) << round;
        kill_all(lumd);
        ask_everything(asking, waiting);
        first_resident = round == 0 ? resident() : first_resident;
    }
    EXPECT_TRUE(all_run(lumd));
    EXPECT_EQ(descriptors(), first_descriptors);
    EXPECT_LE(resident(), first_resident + most_growth);
    printf("resident: %ld KiB after the first tenth, %ld KiB at the end\n", first_resident, resident());
}

} // namespace
