#include "tests/device/under_test.h"
#include "tests/syscfg/power.h"

namespace {

TEST(power, cut_in_a_save)
{
    constexpr char flash[] = "/dev/mtdblock/5";
    write_file("/etc/syscfg.def", "A string\nB string\nC string\nD string\nE string\n");
    write_file("/tmp/svc.conf", "service a\n");
    const auto boot = [](const std::string &saved) {
        running_lumd lumd("/tmp/svc.conf");
        EXPECT_TRUE(lumd.has_started());
        for (int i = 0; i < 5 && saved != ""; ++i)
            EXPECT_EQ(ask({static_cast<char>('A' + i) + ("=" + saved), "%save"}), "!OK!OK");
        FILE *answers = popen("syscfg get A B C D E", "r");
        values all;
        for (char line[5000]; fgets(line, sizeof line, answers);)
            all.emplace_back(line);
        EXPECT_EQ(pclose(answers), 0);
        return all;
    };
    boot(std::string(890, 'b'));
    const std::string before = read_file(flash);
    boot(std::string(900, 'c'));
    cut_power("the daemon", flash, before, read_file(flash), 8192, 8, [&] { return boot(""); });
}

} // namespace
