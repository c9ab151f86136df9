#include "syscfg/registry.h"

#include "app/log.h"
#include "app/memory.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <md5.h>
#include <optional>
#include <string_view>
#include <unistd.h>

namespace {

constexpr char hwinfo_device[] = "/dev/mtdblock/6";
constexpr char syscfg_device[] = "/dev/mtdblock/5";

constexpr size_t block_size = 4096;
constexpr size_t magic_size = 4;
constexpr size_t table_offset = magic_size + MD5_DIGEST_LENGTH;
constexpr size_t table_size = registry_header_size - table_offset;
constexpr size_t entry_size = 24;
constexpr size_t entry_count = table_size / entry_size;
constexpr size_t name_size = 16;
constexpr uint32_t data_area = 256;

constexpr char magic[magic_size] = {'R', 'E', 'G', 0};

// The numbers in the messages of this module. Support staff know them by heart.
enum message_number {
    read_open = 232,
    read_seek = 256,
    read_data = 261,
    write_begin = 69,
    write_open = 72,
    write_memory = 80,
    write_overflow = 102,
    write_seek_header = 111,
    write_header = 116,
    write_seek_first = 122,
    write_read_first = 127,
    write_seek_block = 137,
    write_block = 146,
    write_read_next = 154,
};

constexpr char no_such_device[] = "%s:%d: cannot open device %s: %m\n";
constexpr char no_such_name[] = "no data named %s in registry\n";
constexpr char seek_failed[] = "%s:%d: seek to %d error: %m\n";
constexpr char read_failed[] = "%s:%d: read error: %m\n";
constexpr char module[] = "registry";

static_assert(entry_count == 8);

uint32_t load_le32(const uint8_t *bytes)
{
    return bytes[0] | bytes[1] << 8 | bytes[2] << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

void store_le32(uint8_t *bytes, uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        bytes[i] = static_cast<uint8_t>(value >> (8 * i));
}

std::array<uint8_t, MD5_DIGEST_LENGTH> table_digest(const uint8_t *header)
{
    std::array<uint8_t, MD5_DIGEST_LENGTH> digest;
    MD5_CTX context;
    MD5Init(&context);
    MD5Update(&context, header + table_offset, table_size);
    MD5Final(digest.data(), &context);
    return digest;
}

void seal(uint8_t *header)
{
    const auto digest = table_digest(header);
    memcpy(header + magic_size, digest.data(), digest.size());
}

struct blob {
    size_t entry; // offset of its table entry in the header
    uint64_t offset;
    uint32_t capacity;
    int32_t length;

    // The messages print offsets as int.
    [[nodiscard]] bool in_reach() const { return offset + capacity <= INT_MAX; }
    [[nodiscard]] bool has_sane_length() const
    {
        return length >= 0 && static_cast<uint32_t>(length) <= capacity;
    }
};

std::optional<blob> find_blob(const uint8_t *header, std::string_view name)
{
    uint64_t offset = data_area;
    for (size_t i = 0; i < entry_count; ++i) {
        const size_t at = table_offset + i * entry_size;
        const uint8_t *entry = header + at;
        const auto *text = reinterpret_cast<const char *>(entry);
        const uint32_t capacity = load_le32(entry + name_size);
        if (!name.empty() && name == std::string_view(text, strnlen(text, name_size)))
            return blob{at, offset, capacity, static_cast<int32_t>(load_le32(entry + name_size + 4))};
        offset += capacity;
    }
    return std::nullopt;
}

void add_default_entry(uint8_t *header, size_t index, std::string_view name, uint32_t capacity)
{
    uint8_t *entry = header + table_offset + index * entry_size;
    memcpy(entry, name.data(), name.size());
    store_le32(entry + name_size, capacity);
}

void make_default_header(uint8_t *header)
{
    memset(header, 0, registry_header_size);
    memcpy(header, magic, sizeof magic);
    add_default_entry(header, 0, "hwinfo", 512);
    add_default_entry(header, 1, "syscfg", 65536);
    seal(header);
}

bool seek(int fd, off_t to)
{
    return lseek(fd, to, SEEK_SET) == to;
}

bool read_whole(int fd, void *buffer, size_t size)
{
    return read(fd, buffer, size) == static_cast<ssize_t>(size);
}

bool write_whole_block(int fd, const uint8_t *block)
{
    return write(fd, block, block_size) == static_cast<ssize_t>(block_size);
}

int fail_seek(message_number number, int offset)
{
    print_error(seek_failed, module, number, offset);
    return -1;
}

// Writes the data block by block; block holds the first one already. 0 or -1.
int fill_blocks(int fd, uint8_t *block, const blob &at, std::string_view data, const char *name, off_t base)
{
    size_t position = at.offset % block_size;
    off_t block_offset = static_cast<off_t>(at.offset - position);
    for (;;) {
        if (!seek(fd, base + block_offset))
            return fail_seek(write_seek_block, static_cast<int>(block_offset));
        const size_t part = std::min(data.size(), block_size - position);
        memcpy(block + position, data.data(), part);
        data.remove_prefix(part);
        print_error("write %d data to offset %d", static_cast<int>(block_size),
                    static_cast<int>(base + block_offset));
        if (!write_whole_block(fd, block)) {
            print_error("%s:%d: write regitry %s error: %m\n", module, write_block, name);
            return -1;
        }
        if (data.empty())
            return 0;
        block_offset += block_size;
        position = 0;
        if (!read_whole(fd, block, block_size)) {
            print_error(read_failed, module, write_read_next);
            return -1;
        }
    }
}

// Writes the first block, which holds the header, and reads the block where the data begins. 0 or -1.
int advance_to_data(int fd, uint8_t *block, const blob &at, off_t base)
{
    if (!seek(fd, base)) {
        print_error("%s:%d: seek error: %m\n", module, write_seek_header);
        return -1;
    }
    if (!write_whole_block(fd, block)) {
        print_error("%s:%d: write registry header error: %m\n", module, write_header);
        return -1;
    }
    const auto first = static_cast<off_t>(at.offset / block_size * block_size);
    if (!seek(fd, base + first))
        return fail_seek(write_seek_first, static_cast<int>(first));
    if (!read_whole(fd, block, block_size)) {
        print_error(read_failed, module, write_read_first);
        return -1;
    }
    return 0;
}

} // namespace

bool registry_header_valid(const uint8_t *header)
{
    const auto digest = table_digest(header);
    return memcmp(header, magic, sizeof magic) == 0 &&
           memcmp(header + magic_size, digest.data(), digest.size()) == 0;
}

int readregistry(const char *device, const char *name, void *buffer, int buffer_size, off_t base)
{
    const unique_fd fd(open(device, O_RDONLY | O_CLOEXEC));
    if (!fd) {
        print_error(no_such_device, module, read_open, device);
        return -1;
    }
    uint8_t header[registry_header_size];
    if (!seek(fd.get(), base) || !read_whole(fd.get(), header, sizeof header)) {
        print_error("cannot read registry header: %m\n");
        return -1;
    }
    if (!registry_header_valid(header))
        return -1;
    const auto found = find_blob(header, name);
    if (!found) {
        print_error(no_such_name, name);
        return -1;
    }
    if (!found->in_reach())
        errno = EOVERFLOW;
    if (!found->in_reach() || !seek(fd.get(), base + static_cast<off_t>(found->offset)))
        return fail_seek(read_seek, static_cast<int>(found->offset));
    const int length = std::min(buffer_size, found->length);
    if (!found->has_sane_length())
        errno = EOVERFLOW;
    if (!found->has_sane_length() || !read_whole(fd.get(), buffer, static_cast<size_t>(length))) {
        print_error("%s:%d: read regitry %s error: %m\n", module, read_data, name);
        return -1;
    }
    return length;
}

int writeregistry(const char *device, const char *name, const void *data, int length, off_t base)
{
    print_error("%s:%d: To write %d data\n", "writeregistry", write_begin, length);
    unique_fd fd(open(device, O_RDWR | O_CLOEXEC));
    if (!fd) {
        print_error(no_such_device, module, write_open, device);
        return -1;
    }
    const bool at_header = seek(fd.get(), base);
    std::unique_ptr<uint8_t, free_deleter> block(static_cast<uint8_t *>(calloc(1, block_size)));
    if (!block) {
        print_error("%s:%d: malloc error: %m\n", module, write_memory);
        return -1;
    }
    if (!at_header || !read_whole(fd.get(), block.get(), block_size)) {
        print_error("cannot read registry header\n");
        return -1;
    }
    if (!registry_header_valid(block.get()))
        make_default_header(block.get());
    const auto found = find_blob(block.get(), name);
    if (!found) {
        print_error(no_such_name, name);
        return -1;
    }
    if (!found->in_reach()) {
        errno = EOVERFLOW;
        return fail_seek(write_seek_first, static_cast<int>(found->offset / block_size * block_size));
    }
    if (!data || length < 0 || static_cast<uint32_t>(length) > found->capacity) {
        print_error("%s:%d: registry %s overflow!\n", module, write_overflow, name);
        return -1;
    }
    store_le32(block.get() + found->entry + name_size + 4, static_cast<uint32_t>(length));
    seal(block.get());
    if (found->offset >= block_size && advance_to_data(fd.get(), block.get(), *found, base) < 0)
        return -1;
    const std::string_view bytes(static_cast<const char *>(data), static_cast<size_t>(length));
    if (fill_blocks(fd.get(), block.get(), *found, bytes, name, base) < 0)
        return -1;
    // The block device writes its cache out on close, and its first sync returns too early.
    block.reset();
    fd.reset();
    for (int i = 0; i < 3; ++i)
        sync();
    return length;
}

int registry_read_hwinfo(void *buffer, int size)
{
    return readregistry(hwinfo_device, "hwinfo", buffer, size, 0);
}

int registry_write_hwinfo(const void *data, int length)
{
    return writeregistry(hwinfo_device, "hwinfo", data, length, 0);
}

int registry_read(const char *name, void *buffer, int size)
{
    return readregistry(syscfg_device, name, buffer, size, 0);
}

int registry_write(const char *name, const void *data, int length)
{
    return writeregistry(syscfg_device, name, data, length, 0);
}
