#include "syscfg/registry.h"
#include "syscfg/reply.h"
#include "tests/syscfg/fixture.h"

#include <climits>
#include <filesystem>
#include <regex>
#include <sys/stat.h>
#include <unistd.h>

namespace {

void put(const char *device, const std::string &text)
{
    const char *name = device == flash6 ? "hwinfo" : "syscfg";
    EXPECT_GT(writeregistry(device, name, text.data(), static_cast<int>(text.size()), 0), 0);
}

TEST_F(syscfg_test, assignments)
{
    const std::string n32(32, 'n'), v4096(4096, 'v');
    const std::pair<std::string, std::string> cases[] = {{"A=b", "A/b"},
                                                         {"  A b \t=\t c d \r", "A b/c d"},
                                                         {"A=", "A/"},
                                                         {"=x", "/x"},
                                                         {"A=\" b \" # c", "A/ b "},
                                                         {"A=\"b", ""},
                                                         {"A=b\"c", "A/b\"c"},
                                                         {"A==b", "A/=b"},
                                                         {"A", ""},
                                                         {"", ""},
                                                         {n32 + "=x", n32 + "/x"},
                                                         {n32 + "n=x", ""},
                                                         {"A=" + v4096, "A/" + v4096},
                                                         {"A=" + v4096 + "v", ""},
                                                         {"A=\"" + v4096 + "\"", "A/" + v4096}};
    for (const auto &[line, parts] : cases) {
        char name[max_var_name + 1], value[max_var_value + 1];
        const int parsed = parse_assignment(line, name, value);
        EXPECT_EQ(parsed == 0 ? name + std::string("/") + value : "", parts) << line;
    }
}

constexpr char definition[] =
    "V -r string\nV alias VENID\nVENID -r string\nHW string\nC string\nCH choice a,b,c\n"
    "S string(8)\nP string\nI integer\nM mac\n";

TEST_F(syscfg_test, each_source_loads_over_the_one_before_except_what_is_read_only)
{
    put(flash6, "VENID=acme\nNEW=1\nHW=x\nlost=1");
    put(flash5, "I=\"7\"\nP=\"saved\"\nVENID=\"evil\"\nC=saved\nI=seven\nlost=1");
    write_file("/usr/etc/syscfg.constant", "C=const\nCH=b\nS=k\n");
    write_file("/usr/etc/syscfg.constant.acme", "M=001122334455\nHW=y\n");
    write_file("/usr/etc/syscfg.default",
               "C=other\nCH=C\nP=\"d e\" x\nbad line\n\nNONE=1\nI=1\nS=too long!\n");
    write_file("/usr/etc/syscfg.default.acme", "P=vendor\nM=000000000000\n");
    const database db = start(definition);
    ASSERT_TRUE(db);
    EXPECT_EQ(
        show(db.get()),
        "NEW=1/3 M=00:11:22:33:44:55/3 I=7/0 P=saved/0 S=k/0 CH=c/0 C=const/3 HW=y/3 VENID=acme/3 V=/3 ");
    for (const char *line :
         {"load_config: add var: NEW=\"1\"\n", "load_config: set var: HW=\"y\"\n",
          "load_config: cannot change existing var: VENID=acme\n\n",
          "load_config: var I exist: value=1 flags=8000\n\nset_integer: old=1 l=7\nload_config: set var: "
          "I=\"7\"\n",
          "load_config: I: invalid value: seven\n", "load_config: S: invalid value: too long!\n",
          "invalid syscfg line: bad line\n", "invalid syscfg line: \n", "no var definition for NONE\n"})
        EXPECT_NE(log.messages().find(line), std::string::npos) << line << "\n" << log.messages();
    EXPECT_FALSE(log.has("lost"));
    EXPECT_EQ(reported, "");
}

TEST_F(syscfg_test, the_first_start_saves_the_defaults_and_nothing_stops_it)
{
    write_file("/usr/etc/syscfg.default", "P=a \"b\nI=1\nM=001122334455\nC=no end");
    database db = start(definition);
    ASSERT_TRUE(db);
    EXPECT_STREQ(read_file(flash5).c_str() + 768, "M=\"00:11:22:33:44:55\"\nI=\"1\"\nS=\"\"\nCH=\"a\"\n");
    EXPECT_TRUE(log.has("cannot be saved: P\n")) << "for its quote";
    EXPECT_EQ(show(db.get()), "M=00:11:22:33:44:55/0 I=1/0 P=a \"b/0 S=/0 CH=a/0 C=/0 HW=/0 VENID=/3 V=/3 ");
    EXPECT_EQ(sync_count, 3);
    db.reset();
    write_file(flash5, "");
    write_file(flash6, "");
    unlink("/usr/etc/syscfg.default");
    log.clear();
    db = start(definition);
    ASSERT_TRUE(db);
    for (const char *line :
         {"failed to read hwinfo\nload hwinfo failed\n",
          "cannot open default syscfg\ncannot open default syscfg\n",
          "failed to read syscfg, using default...\n", "failed to save syscfg\n", "load syscfg failed\n"})
        EXPECT_TRUE(log.has(line)) << line << "\n" << log.text();
    EXPECT_EQ(db->ops->get(db.get(), "CH"), std::string("a"));
    EXPECT_EQ(db->ops->get(db.get(), "NONE"), nullptr);
    db.reset();
    unlink("/etc/syscfg.def");
    database none(create_syscfg(nullptr), free_database);
    EXPECT_EQ(none->ops->init(none.get()), -1);
    EXPECT_TRUE(log.has("cannot load syscfg definition!\n"));
    log.clear();
    unlink("/tmp/.syscfg-server");
    std::filesystem::create_directory(device_path("/tmp/.syscfg-server"));
    EXPECT_FALSE(start(definition));
    const std::string owner = std::to_string(geteuid());
    EXPECT_TRUE(log.messages().ends_with(
        "open_server_socket: cannot remove /tmp/.syscfg-server, a directory of user " + owner +
        ": Is a directory\nSYSERROR: syscfg_init: Address already in use\n"))
        << log.messages();
    if (geteuid() != 0)
        return;
    // A file of root's, in a directory that only root may write.
    std::filesystem::remove(device_path("/tmp/.syscfg-server"));
    mkfifo("/tmp/.syscfg-server", 0600);
    chmod(device_root.c_str(), 0711);
    chmod(device_path("/tmp").c_str(), 01777);
    isolated([&] {
        EXPECT_EQ(setresuid(65534, 65534, 65534), 0);
        EXPECT_EQ(open_server_socket(), -1);
        EXPECT_TRUE(log.has("a FIFO of user 0: Operation not permitted\n")) << log.text();
    });
}

TEST_F(syscfg_test, apply_reports_what_has_changed_1023_at_a_time)
{
    std::string text, first;
    for (int i = 0; i < 1100; ++i)
        text += "B" + std::to_string(i) + " bool\n";
    const database db = declare(text);
    EXPECT_EQ(apply_syscfg(db.get()), 0);
    EXPECT_EQ(reported, ";");
    for (int i = 1099; i >= 0; --i) {
        set(db.get(), "B" + std::to_string(i), "1");
        first += i >= 77 ? "B" + std::to_string(i) + (i == 77 ? ";" : " ") : "";
    }
    reported.clear();
    apply_syscfg(db.get());
    EXPECT_EQ(reported, first);
    reported.clear();
    EXPECT_GT(save_syscfg(db.get(), true), 0);
    EXPECT_EQ(reported.substr(0, 8) + reported.substr(reported.size() - 6), "B76 B75 B1 B0;");
    EXPECT_NE(log.messages().find("apply_syscfg: flags=8000 B1099=1\n"), std::string::npos);
    EXPECT_EQ(show(db.get()).find("8000"), std::string::npos);
}

// At most 65,536 bytes can be saved; a table with more room must not accept half of a longer text.
TEST_F(syscfg_test, a_text_too_long_is_not_saved)
{
    for (const uint32_t capacity : {65536u, 100000u}) {
        write_flash(flash5, {{"hwinfo", 512, 0}, {"syscfg", capacity, 0}});
        std::string text;
        for (int i = 10; i < 26; ++i)
            text += "V" + std::to_string(i) + " string\n";
        const database db = declare(text);
        for (int i = 10; i < 26; ++i)
            set(db.get(), "V" + std::to_string(i), std::string(4089, 'x'));
        EXPECT_EQ(save_syscfg(db.get(), false), 65536);
        EXPECT_EQ(registry_read("syscfg", text_buffer, INT_MAX), 65536);
        const std::string before = read_file(flash5);
        set(db.get(), "V17", std::string(4090, 'x'));
        EXPECT_EQ(save_syscfg(db.get(), true), -1);
        for (const char *line : {"writeregistry:69: To write 65537 data\n",
                                 "registry:102: registry syscfg overflow!\nfailed to save syscfg\n"})
            EXPECT_TRUE(log.has(line)) << log.text();
        EXPECT_EQ(read_file(flash5), before);
        EXPECT_NE(reported.find("V17"), std::string::npos) << "applied all the same";
    }
}

TEST_F(syscfg_test, a_failing_call_at_start_save_and_load_leaves_nothing_behind)
{
    put(flash6, "VENID=acme\nNEW=1\n");
    write_file("/usr/etc/syscfg.constant", "C=const\n");
    write_file("/usr/etc/syscfg.default", "P=1\nI=1\nS=x\n");
    write_file("/etc/b", "B choice x,y\n");
    // Without a variable or a value the daemon starts, but logs it.
    static const std::regex passed_over(
        "failed to read |invalid |cannot open|(FAILED|SYSERROR): (add_var|build_|load_|parse_def)");
    std::string text = std::string(definition) + "%include /etc/b\n";
    const auto scenario = [&, this] {
        log.clear();
        const database db = start(text);
        const bool all = db && set(db.get(), "P", "a") >= 0 && save_syscfg(db.get(), true) > 0 &&
                         load_syscfg(db.get()) >= 0;
        return all && !regex_search(log.messages(), passed_over);
    };
    scenario(); // the loop's table is kept
    using namespace support;
    const unsigned made_good = OPEN | POLL | SETSOCKOPT;                      // a vendor's file is optional
    EXPECT_GE(for_each_failure(ALL_CALLS, scenario, made_good | ALLOC), 100); // a first value is empty anyway
    text.erase(text.find("(8)"), 3);
    EXPECT_GE(for_each_failure(ALL_CALLS, scenario, made_good), 100);
}

} // namespace
