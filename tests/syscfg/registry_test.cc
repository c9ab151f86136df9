#include "syscfg/registry.h"
#include "tests/syscfg/fixture.h"

#include <climits>

namespace {

using support::captured_log;
using support::device_io;
using support::read_file;
using support::write_file;

std::string read_blob(const std::string &name, int size = 100000)
{
    std::string text(100000, '\0');
    const int length = registry_read(name.c_str(), text.data(), size);
    return length < 0 ? "failed" : text.substr(0, static_cast<size_t>(length));
}

int write_text(const std::string &text)
{
    return registry_write("syscfg", text.data(), static_cast<int>(text.size()));
}

TEST_F(syscfg_test, the_first_write_lays_out_the_device)
{
    write_file(flash5, std::string(128 << 10, '\xff'));
    const captured_log log;
    EXPECT_EQ(read_blob("syscfg"), "failed");
    EXPECT_EQ(log.text(), "") << "an unused device is no error";
    support::record_io = true;
    EXPECT_EQ(write_text("hello"), 5);
    EXPECT_EQ(device_io, (std::vector<std::string>{"seek 0", "read 4096", "seek 0", "write 4096"}));
    EXPECT_EQ(log.text(), "writeregistry:69: To write 5 data\nwrite 4096 data to offset 0");
    EXPECT_EQ(support::sync_count, 3);
    std::string header("REG\0\x1f\x42\x21\x5d\x86\x23\x39\xda\x56\xe1\x4b\x19\x70\xbe\x4a\x2d", 20);
    header += std::string("hwinfo\0\0\0\0\0\0\0\0\0\0\0\2\0\0\0\0\0\0", 24);
    header += std::string("syscfg\0\0\0\0\0\0\0\0\0\0\0\0\1\0\5\0\0\0", 24) + std::string(144, '\0');
    std::string image(128 << 10, '\xff');
    image.replace(0, 212, header).replace(768, 5, "hello");
    EXPECT_TRUE(read_file(flash5) == image);
    EXPECT_EQ(read_blob("syscfg") + read_blob("syscfg", 2) + read_blob("hwinfo"), "hellohe");
}

TEST_F(syscfg_test, only_the_blocks_of_the_header_and_the_blob_are_written)
{
    const struct {
        size_t length;
        uint32_t first_capacity;
        std::vector<int> blocks;
    } cases[] = {
        {0, 512, {0}},           {3328, 512, {0}},
        {3329, 512, {0, 1}},     {0, 8000, {0, 2}},
        {4033, 8000, {0, 2, 3}}, {65536, 512, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}},
    };
    for (const auto &c : cases) {
        const captured_log log;
        write_flash(flash5, {{"hwinfo", c.first_capacity, 0}, {"syscfg", 65536, 9}});
        std::vector<int> written;
        const std::string text(c.length, 'x');
        support::record_io = true;
        device_io.clear();
        EXPECT_EQ(write_text(text), static_cast<int>(c.length));
        support::record_io = false;
        for (size_t i = 1; i < device_io.size(); ++i) {
            if (device_io[i] == "write 4096")
                written.push_back(std::stoi(device_io[i - 1].substr(5)) / 4096);
        }
        EXPECT_EQ(written, c.blocks) << c.length;
        EXPECT_TRUE(read_blob("syscfg") == text) << c.length;
    }
}

TEST_F(syscfg_test, registry_failures_are_told)
{
    using namespace support;
    const std::string far = "far"; // lies beyond the first block
    write_flash(flash5, {{"hwinfo", 8000, 0}, {"far", 8192, 8000}, {"near", 100, 0}});
    const std::string before = read_file(flash5);
    const struct {
        const char *name;
        bool write;
        const char *blob;
        unsigned kind;
        int k;
        std::string message;
    } cases[] = {
        {"open", false, "far", OPEN, 1,
         "registry:232: cannot open device /dev/mtdblock/5: Too many open files\n"},
        {"header", false, "far", READ, 1, "cannot read registry header: Input/output error\n"},
        {"header seek", false, "far", LSEEK, 1, "cannot read registry header: Input/output error\n"},
        {"name", false, "fa", 0, 1, "no data named fa in registry\n"},
        {"no name", false, "", 0, 1, "no data named  in registry\n"},
        {"seek", false, "far", LSEEK, 2, "registry:256: seek to 8256 error: Input/output error\n"},
        {"read", false, "far", READ, 2, "registry:261: read regitry far error: Input/output error\n"},
        {"open", true, "far", OPEN, 1,
         "registry:72: cannot open device /dev/mtdblock/5: Too many open files\n"},
        {"memory", true, "far", ALLOC, 1, "registry:80: malloc error: Cannot allocate memory\n"},
        {"header", true, "far", READ, 1, "cannot read registry header\n"},
        {"header seek", true, "far", LSEEK, 1, "cannot read registry header\n"},
        {"name", true, "syscfg", 0, 1, "no data named syscfg in registry\n"},
        {"overflow", true, "near", 0, 1, "registry:102: registry near overflow!\n"},
        {"seek header", true, "far", LSEEK, 2, "registry:111: seek error: Input/output error\n"},
        {"write header", true, "far", WRITE, 1,
         "registry:116: write registry header error: Input/output error\n"},
        {"seek first", true, "far", LSEEK, 3, "registry:122: seek to 8192 error: Input/output error\n"},
        {"read first", true, "far", READ, 2, "registry:127: read error: Input/output error\n"},
        {"seek block", true, "far", LSEEK, 4, "registry:137: seek to 8192 error: Input/output error\n"},
        {"write block", true, "far", WRITE, 2, "registry:146: write regitry far error: Input/output error\n"},
        {"read next", true, "far", READ, 3, "registry:154: read error: Input/output error\n"},
    };
    for (const auto &c : cases) {
        write_file(flash5, before);
        const int descriptors = open_descriptors();
        captured_log log;
        std::string data(9000, 'x');
        fail_call(c.kind, c.k);
        const int result =
            c.write ? registry_write(c.blob, data.data(), 8000) : registry_read(c.blob, data.data(), 9000);
        EXPECT_EQ(end_failing(), c.kind != 0) << c.name;
        EXPECT_EQ(result, -1) << c.name;
        EXPECT_EQ(log.writes.back(), c.message) << c.name;
        EXPECT_EQ(open_descriptors(), descriptors) << c.name;
        EXPECT_EQ(sync_count, 0) << c.name;
    }
}

// The digest is right: whoever wrote these tables meant them.
TEST_F(syscfg_test, absurd_tables_fail_and_nothing_is_written)
{
    constexpr uint32_t huge = 0xFFFFFFFF;
    const struct {
        const char *name;
        std::vector<flash_entry> table;
        bool readable;
        bool writable;
    } cases[] = {
        {"negative length", {{"syscfg", 100, huge}}, false, true},
        {"lowest length", {{"syscfg", 100, 0x80000000}}, false, true},
        {"length over capacity", {{"syscfg", 100, 101}}, false, true},
        {"offset over 2^31", {{"a", 0x7FFFFFFF, 0}, {"syscfg", 100, 5}}, false, false},
        {"offset round 2^32", {{"a", huge, 0}, {"b", 257, 0}, {"syscfg", 100, 5}}, false, false},
        {"capacity of 4 GiB", {{"syscfg", huge, 5}}, false, false},
        {"end at 2^31", {{"syscfg", 0x7FFFFFFF - 255, 5}}, false, false},
        {"end below 2^31", {{"syscfg", 0x7FFFFFFF - 256, 5}}, true, true},
        {"length past the device", {{"a", 60000, 0}, {"syscfg", 1 << 20, 1 << 20}}, false, true},
        {"offset past the device", {{"a", 1 << 20, 0}, {"syscfg", 100, 5}}, false, false},
        {"name without end", {{"syscfgsyscfgsysc", 100, 0}, {"syscfg", 100, 5}}, true, true},
        {"no capacity", {{"syscfg", 0, 0}}, true, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const captured_log log;
        write_flash(flash5, c.table);
        const std::string before = read_file(flash5);
        EXPECT_EQ(read_blob("syscfg") != "failed", c.readable);
        EXPECT_EQ(write_text("hello"), c.writable ? 5 : -1);
        EXPECT_EQ(read_file(flash5).size(), before.size());
        EXPECT_TRUE(c.writable ? read_blob("syscfg") == "hello"
                               : read_file(flash5).substr(256) == before.substr(256));
    }
}

// What is on the device is always the new image up to the block that was cut, and the old one from there.
TEST_F(syscfg_test, power_lost_in_a_write_leaves_the_blocks_before)
{
    for (const uint32_t first_capacity : {512u, 8000u}) {
        const captured_log log;
        const std::string old_text(9000, 'o'), new_text(10000, 'n');
        write_flash(flash5, {{"hwinfo", first_capacity, 0}, {"syscfg", 65536, 0}});
        write_text(old_text);
        const std::string old_image = read_file(flash5);
        write_text(new_text);
        const std::string new_image = read_file(flash5);
        const size_t first_block = (256 + first_capacity) / 4096;
        bool failed = true;
        for (int k = 1; failed; ++k) {
            for (const bool torn : {true, false}) {
                write_file(flash5, old_image);
                support::fail_call(support::WRITE, k, true, torn);
                const int result = write_text(new_text);
                failed = support::end_failing();
                EXPECT_EQ(result, failed ? -1 : 10000);
                std::string image = old_image;
                for (int i = 0; i < k && failed; ++i) {
                    const size_t at = (first_block != 0 && i > 0 ? first_block + i - 1 : i) * 4096;
                    const size_t size = i < k - 1 ? 4096 : torn ? 2048 : 0;
                    image.replace(at, size, new_image, at, size);
                }
                EXPECT_TRUE(read_file(flash5) == (failed ? image : new_image)) << k << torn;
                const size_t length = k == 1 && !torn ? 9000 : 10000;
                EXPECT_TRUE(read_blob("syscfg") == image.substr(256 + first_capacity, length) || !failed)
                    << k;
            }
        }
    }
}

} // namespace
