#include "syscfg/registry.h"
#include "tests/syscfg/fixture.h"
#include "tests/syscfg/power.h"

namespace {

int save_settings(const database &db, char digit, size_t length)
{
    for (const syscfg_var *var = db->vars; var; var = var->next)
        EXPECT_EQ(set(db.get(), var->name, std::string(var->name[0] == 'V' ? length : 4, digit)), 0);
    return save_syscfg(db.get(), false);
}

TEST_F(syscfg_test, power_cut_in_a_save)
{
    std::string definition = "CH choice 2222,4444,6666\nI integer\nIP ip\nP string(16) [246]*\n";
    for (int i = 10; i < 30; ++i)
        definition += "V" + std::to_string(i) + " string\n";
    const database fresh = declare(definition);
    save_settings(fresh, '6', 20);
    write_file("/usr/etc/syscfg.default", read_file(flash5).substr(768));
    const struct {
        const char *name;
        uint32_t first_capacity, length_before, length_after, blocks;
    } saves[] = {{"first start", 512, 0, 20, 1},   {"as long as before", 512, 20, 20, 1},
                 {"longer", 512, 100, 400, 3},     {"shorter", 512, 400, 100, 1},
                 {"longest", 512, 3000, 3250, 17}, {"data behind the first block", 8000, 400, 420, 4}};
    for (const auto &c : saves) {
        write_flash(flash5, {{"hwinfo", c.first_capacity, 0}, {"syscfg", 65536, 0}});
        const database db = start(definition);
        save_settings(db, '2', c.length_before);
        const std::string before = c.length_before ? read_file(flash5) : std::string(128 << 10, '\0');
        write_file(flash5, before);
        record_io = true;
        const char digit = c.length_before ? '4' : '6';
        const int length = save_settings(db, digit, c.length_after);
        const std::string after = read_file(flash5);
        const std::vector<std::string> io = std::exchange(device_io, {});
        EXPECT_EQ(save_syscfg(db.get(), false), length);
        EXPECT_EQ(std::exchange(device_io, {}), io) << "a save without a change writes as much";
        record_io = false;
        size_t blocks = 0, half = 0;
        for (size_t i = 1; i < io.size(); ++i)
            if (io[i] == "write 4096") {
                write_file(flash5, before);
                fail_call(WRITE, static_cast<int>(++blocks), true, true);
                EXPECT_EQ(save_syscfg(db.get(), false), -1);
                half = std::stoul(io[i - 1].substr(5)) + 2048;
                EXPECT_TRUE(end_failing() &&
                            read_file(flash5) == after.substr(0, half) + before.substr(half));
            }
        EXPECT_EQ(blocks, c.blocks) << c.name;
        const std::string name = c.name + (", " + std::to_string(blocks) + " blocks written");
        cut_power(name, device_path(flash5), before, after, half + 2048, 1, [&] {
            log.clear();
            const database up(create_syscfg(nullptr), free_database);
            EXPECT_EQ(up->ops->init(up.get()), 0);
            for (const syscfg_var *var = up->vars; var; var = var->next)
                EXPECT_EQ(set(fresh.get(), var->name, var->text()), 0) << "not of its type: " << var->name;
            std::istringstream shown(show(up.get())); // with the flags
            EXPECT_EQ(save_settings(up, digit, c.length_after), length);
            EXPECT_EQ(registry_read("syscfg", text_buffer, length), length);
            EXPECT_EQ(memcmp(text_buffer, &after[256 + c.first_capacity], static_cast<size_t>(length)), 0);
            return values(std::istream_iterator<std::string>(shown), {});
        });
    }
}

} // namespace
