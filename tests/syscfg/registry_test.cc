#include "syscfg/registry.h"
#include "tests/syscfg/fixture.h"

#include <algorithm>

namespace {

std::string read_blob(const std::string &name, int size = 100000)
{
    std::string text(100000, '\0');
    const int length = registry_read(name.c_str(), text.data(), size);
    return length < 0 ? "failed" : text.substr(0, static_cast<size_t>(length));
}

int write_blob(const std::string &text, const char *name = "syscfg")
{
    return registry_write(name, text.data(), static_cast<int>(text.size()));
}

TEST_F(syscfg_test, the_first_write_lays_out_the_device)
{
    std::string image(128 << 10, '\xff');
    write_file(flash5, image);
    EXPECT_EQ(read_blob("syscfg") + log.text(), "failed") << "an unused device is no error";
    record_io = true;
    EXPECT_EQ(write_blob("hello"), 5);
    EXPECT_EQ(device_io, (std::vector<std::string>{"seek 0", "read 4096", "seek 0", "write 4096"}));
    EXPECT_EQ(log.text(), "writeregistry:69: To write 5 data\nwrite 4096 data to offset 0");
    EXPECT_EQ(sync_count, 3);
    std::string header("REG\0\x1f\x42\x21\x5d\x86\x23\x39\xda\x56\xe1\x4b\x19\x70\xbe\x4a\x2d", 20);
    header += std::string("hwinfo\0\0\0\0\0\0\0\0\0\0\0\2\0\0\0\0\0\0", 24);
    header += std::string("syscfg\0\0\0\0\0\0\0\0\0\0\0\0\1\0\5\0\0\0", 24) + std::string(144, '\0');
    EXPECT_TRUE(read_file(flash5) == image.replace(0, 212, header).replace(768, 5, "hello"));
    EXPECT_EQ(read_blob("syscfg") + read_blob("syscfg", 2) + read_blob("hwinfo"), "hellohe");
}

TEST_F(syscfg_test, only_the_blocks_of_the_header_and_the_blob_are_written)
{
    record_io = true;
    for (const auto &[length, first_capacity, blocks] :
         {std::tuple(0, 512U, 1), {3328, 512U, 1}, {3329, 512U, 2}, {0, 8000U, 2}, {4033, 8000U, 3}}) {
        write_flash(flash5, {{"hwinfo", first_capacity, 0}, {"syscfg", 65536, 9}}, 256 << 10);
        device_io.clear();
        const std::string text(static_cast<size_t>(length), 'x');
        EXPECT_EQ(write_blob(text), length);
        EXPECT_EQ(std::count(device_io.begin(), device_io.end(), "write 4096"), blocks) << length;
        EXPECT_TRUE(read_blob("syscfg") == text) << length;
    }
}

TEST_F(syscfg_test, failures_are_told)
{
    write_flash(flash5, {{"hwinfo", 8000, 0}, {"far", 8192, 8000}, {"near", 100, 0}});
    const std::string before = read_file(flash5), data(8000, 'x');
    const std::map<std::string, unsigned> kinds = {{"open", OPEN},  {"read", READ},    {"write", WRITE},
                                                   {"seek", LSEEK}, {"memory", ALLOC}, {"", 0}};
    for (const auto &row : rows(R"(
        get | far  | open  | 1 | registry:232: cannot open device /dev/mtdblock/5: Too many open files
        get | far  | read  | 1 | cannot read registry header: Input/output error
        get | far  | seek  | 1 | cannot read registry header: Input/output error
        get | fa   |       | 1 | no data named fa in registry
        get |      |       | 1 | no data named  in registry
        get | far  | seek  | 2 | registry:256: seek to 8256 error: Input/output error
        get | far  | read  | 2 | registry:261: read regitry far error: Input/output error
        put | far  | open  | 1 | registry:72: cannot open device /dev/mtdblock/5: Too many open files
        put | far  | memory | 1 | registry:80: malloc error: Cannot allocate memory
        put | far  | read  | 1 | cannot read registry header
        put | far  | seek  | 1 | cannot read registry header
        put | far_ |       | 1 | no data named far_ in registry
        put | near |       | 1 | registry:102: registry near overflow!
        put | far  | seek  | 2 | registry:111: seek error: Input/output error
        put | far  | write | 1 | registry:116: write registry header error: Input/output error
        put | far  | seek  | 3 | registry:122: seek to 8192 error: Input/output error
        put | far  | read  | 2 | registry:127: read error: Input/output error
        put | far  | seek  | 4 | registry:137: seek to 8192 error: Input/output error
        put | far  | write | 2 | registry:146: write regitry far error: Input/output error
        put | far  | read  | 3 | registry:154: read error: Input/output error)")) {
        write_file(flash5, before);
        const int descriptors = open_descriptors();
        char buffer[9000];
        EXPECT_EQ(registry_read("far", buffer, 9000), 8000); // leaves a valid header on the stack
        fail_call(kinds.at(row[2]), std::stoi(row[3]));
        EXPECT_EQ(row[0] == "put" ? write_blob(data, row[1].c_str())
                                  : registry_read(row[1].c_str(), buffer, 9000),
                  -1);
        EXPECT_EQ(end_failing(), row[2] != "") << row[4];
        EXPECT_EQ(log.writes().back(), row[4] + "\n");
        EXPECT_EQ(open_descriptors() - descriptors + sync_count, 0) << row[4];
    }
}

// Their digests are right, so these tables were written on purpose.
TEST_F(syscfg_test, absurd_tables_fail_and_nothing_is_written)
{
    constexpr uint32_t huge = 0xFFFFFFFF, top = 0x7FFFFFFF;
    const struct {
        const char *name;
        std::vector<flash_entry> table;
        bool readable, writable;
    } cases[] = {
        {"negative length", {{"syscfg", 100, huge}}, false, true},
        {"lowest length", {{"syscfg", 100, top + 1}}, false, true},
        {"length over capacity", {{"syscfg", 100, 101}}, false, true},
        {"offset over 2^31", {{"a", top, 0}, {"syscfg", 100, 5}}, false, false},
        {"offset round 2^32", {{"a", huge, 0}, {"b", 257, 0}, {"syscfg", 100, 5}}, false, false},
        {"capacity of 4 GiB", {{"syscfg", huge, 5}}, false, false},
        {"end at 2^31", {{"syscfg", top - 255, 5}}, false, false},
        {"end below 2^31", {{"syscfg", top - 256, 5}}, true, true},
        {"length past the device", {{"a", 60000, 0}, {"syscfg", 1 << 20, 1 << 20}}, false, true},
        {"offset past the device", {{"a", 1 << 20, 0}, {"syscfg", 100, 5}}, false, false},
        {"name without end", {{"syscfgsyscfgsysc", 100, 0}, {"syscfg", 100, 5}}, true, true},
        {"no capacity", {{"syscfg", 0, 0}}, true, false},
    };
    for (const auto &c : cases) {
        write_flash(flash5, c.table);
        const std::string before = read_file(flash5);
        EXPECT_EQ(read_blob("syscfg") != "failed", c.readable) << c.name;
        EXPECT_EQ(write_blob("hello"), c.writable ? 5 : -1) << c.name;
        EXPECT_EQ(read_file(flash5).size(), before.size()) << c.name;
        EXPECT_TRUE(c.writable ? read_blob("syscfg") == "hello"
                               : read_file(flash5).substr(256) == before.substr(256));
    }
}

} // namespace
