#include "app/crash.h"
#include "app/frame.h"
#include "app/symbols.h"
#include "tests/support/support.h"

#include <csignal>
#include <fcntl.h>
#include <link.h>
#include <sys/resource.h>

// clang-format off
// The asm after the call prevents a tail call.
#define CALLER(name, call) \
    extern "C" __attribute__((noinline)) int name(const char **names, int max) { const int n = call(names, max); asm volatile(""); return n; }
CALLER(inner, app_backtrace_symbols)
CALLER(outer, inner)

namespace {

using namespace support;
using symbols_test = test;

std::string executable; // what its link returns, if not our own

// Functions none, one, two (undefined), three, a variable and last, at 0, 10, 20 ... Their table ends
// the file.
struct image {
    ElfW(Ehdr) head = {{0x7f, 'E', 'L', 'F', sizeof(void *) / 4, 1, 1}, ET_EXEC, 0, 1, 0, 1, offsetof(image, none), 0, 0, 0, 0, 0, 3, 0};
    ElfW(Shdr) none = {}, strings = {0, SHT_STRTAB, 0, 0, offsetof(image, names), sizeof names, 0, 0, 0, 0};
    ElfW(Shdr) table = {0, SHT_SYMTAB, 0, 0, offsetof(image, functions), sizeof functions, 1, 0, 0, sizeof functions[0]};
    char names[33] = "none\0one\0two\0three\0variable\0last";
    ElfW(Sym) functions[6] = {};
    image()
    {
        for (unsigned i = 0, name = 0; i < 6; name += strlen(names + name) + 1, ++i) {
            functions[i].st_name = name, functions[i].st_value = 10 * i, functions[i].st_size = 5, functions[i].st_shndx = i != 2;
            functions[i].st_info = static_cast<unsigned char>(0x10 | (i == 4 ? STT_OBJECT : STT_FUNC));
        }
    }
    [[nodiscard]] std::string bytes(size_t size = sizeof(image)) const { return {reinterpret_cast<const char *>(this), size}; }
};

// The error for a file with nothing readable beyond its end, or else its functions.
std::string read(const std::string &file)
{
    const std::vector<char> bytes(file.begin(), file.end());
    symbol *table = nullptr;
    std::string all;
    if (const char *wrong = symbols_read(std::as_bytes(std::span(bytes)), &table))
        all = wrong;
    for (const symbol *each = table; each && each->name; ++each)
        all += each->name + std::to_string(each->start) + "-" + std::to_string(each->end) + " ";
    symbols_free(table);
    return all;
}

const std::string every_one = "one10-15 three30-35 last50-55 ", no_table = "no symbols were associated to this file\n",
    no_names = "the associated string table for the symbol table is not valid!\n", no_entries = "there were no symbols in the symbol table!\n";

TEST_F(symbols_test, an_executable_is_checked_in_order_and_nothing_is_read_beyond_its_end)
{
    const std::pair<void (*)(image &), std::string> changes[] = {
        {[](auto &i) { i.head.e_ident[1] = 'e'; }, "not a valid ELF file\n"},
        {[](auto &i) { i.head.e_ident[4] ^= 3; }, "file class not supported\n"},
        {[](auto &i) { i.head.e_ident[5] = 0; }, "invalid data encoding\n"},
        {[](auto &i) { i.head.e_ident[6] = 0; }, "invalid ELF file version\n"},
        {[](auto &i) { i.head.e_type = ET_DYN; }, "not an executable ELF file\n"},
        {[](auto &i) { i.head.e_version = 0; }, "wrong version number in ELF file\n"},
        {[](auto &i) { i.head.e_phoff = 0; }, "program header not found\n"},
        {[](auto &i) { i.head.e_shoff = 0; }, "section header not found\n"}, {[](auto &i) { i.none.sh_type = SHT_SYMTAB; }, no_table},
        {[](auto &i) { i.table.sh_link = 0; }, "the symbol table didn't have an associated string table, wtf??\n"},
        {[](auto &i) { i.strings.sh_type = SHT_NOBITS; }, no_names}, {[](auto &i) { i.table.sh_entsize = 0; }, no_entries},
        {[](auto &) {}, every_one}, {[](auto &i) { i.table.sh_size = ~0u; }, every_one}, {[](auto &i) { i.table.sh_entsize = 1; }, every_one},
        {[](auto &i) { i.table.sh_size = 3 * sizeof i.functions[0]; }, "one10-15 "}, {[](auto &i) { i.head.e_shnum = 1; }, no_table},
        {[](auto &i) { i.table.sh_entsize = sizeof i.functions + 1; }, no_entries}, {[](auto &i) { i.table.sh_offset = ~0u; }, ""},
        {[](auto &i) { i.strings.sh_offset = ~0u; }, ""}, {[](auto &i) { i.strings.sh_size = sizeof i; }, ""},
        {[](auto &i) { i.strings.sh_size = 32; }, "one10-15 three30-35 "},
        {[](auto &i) { i.functions[3].st_name = 33; }, "one10-15 last50-55 "}, {[](auto &i) { i.table.sh_link = 3; }, no_names},
        {[](auto &i) { i = image(), std::swap(i.strings, i.table), i.strings.sh_link = i.head.e_shnum = 2; }, no_names}, // one past the last
        {[](auto &i) { i.head.e_shnum = 0xffff, i.table.sh_link = 0xfffe; }, no_names},
        {[](auto &i) { i.head.e_shoff = sizeof i - 1; }, no_table}, {[](auto &i) { i.head.e_shoff = static_cast<ElfW(Off)>(-8); }, no_table}};
    image worse; // backwards, since earlier checks report first
    for (size_t i = std::size(changes); i-- > 0;) {
        image changed;
        changes[i].first(changed), changes[i].first(i < 12 ? worse : changed);
        EXPECT_EQ(read(changed.bytes()), changes[i].second) << i;
        EXPECT_TRUE(i >= 12 || read(worse.bytes()) == changes[i].second) << i;
    }
    for (size_t size = 0; size < sizeof(image); ++size) {
        const std::string text = read(image().bytes(size));
        EXPECT_TRUE(size < offsetof(image, functions) ? text.empty() || text.ends_with('\n') : every_one.starts_with(text)) << size << text;
    }
}

TEST_F(symbols_test, what_cannot_be_loaded_is_told_and_the_program_goes_on_without_names)
{
    write_file("/self", image().bytes()), write_file("/empty", "");
    const auto load = [](const std::string &file, rlim_t descriptors) {
        const rlimit limit = {descriptors, descriptors};
        setrlimit(RLIMIT_NOFILE, &limit);
        executable = file;
        symbols_load();
        const auto name = [](uintptr_t at) { return std::string_view(symbol_lookup(reinterpret_cast<void *>(at)) ?: ""); };
        _exit(name(9).empty() && name(15).empty() && name(10) == name(14) ? (stack_top != 0) + (name(10) == "one") : 3);
    };
    for (const auto &[file, descriptors, known, message] : {
             std::tuple{"/self", 100, 2, std::string()}, {"/self", 0, 0, "cannot open /proc/[0-9]+/maps\n"},
             {"/none", 100, 1, " couldn't open \".*/none\"\n"}, {"/empty", 100, 1, "mmap: Invalid argument\n"}})
        EXPECT_EXIT(load(device_path(file), descriptors), testing::ExitedWithCode(known), "^" + message + "$");
    const auto aborted = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT((fail_call(ALLOC, 1), read(image().bytes())), aborted, "^calloc: Cannot allocate memory\n");
    EXPECT_EXIT((fail_call(ALLOC, 2), read(image().bytes())), aborted, "^strdup: Cannot allocate memory\n");
}

TEST_F(symbols_test, a_walk_ends_where_the_frames_do_and_knows_callers_by_name)
{
    isolated([] {
        auto *frames = static_cast<frame_record *>(__builtin_alloca(5 * sizeof(frame_record))); // sanitizers move arrays elsewhere
        const auto at = [&](size_t i) { return reinterpret_cast<uintptr_t>(frames + i); };
        const auto fp = [&](size_t i) { return at(i) + frame_record_below_fp; };
        const auto walk = [&](uintptr_t third, uintptr_t low, int max) {
            for (size_t i = 0; i < 5; ++i)
                frames[i].caller_fp = i == 4 ? 0 : i == 2 ? third : fp(i + 1), frames[i].return_address = i;
            void *found[8];
            const int count = backtrace_walk(fp(0), low, found, max);
            return count < 1 || reinterpret_cast<uintptr_t>(found[count - 1]) == static_cast<uintptr_t>(count - 1) ? count : -1;
        };
        const captured_log log;
        const char *names[20] = {};
        EXPECT_EQ(walk(fp(3), at(0), 8), 0) << "nothing is known of the stack";
        symbols_load();
        EXPECT_EQ(log.text(), "");
        EXPECT_TRUE(stack_begin < at(0) && at(5) < stack_end && stack_end <= stack_top && stack_end - stack_begin <= 8u << 20);
        for (const auto &[max, found] : {std::pair{8, 5}, {5, 5}, {3, 3}, {0, 0}, {-1, 0}})
            EXPECT_EQ(walk(fp(3), at(0), max), found);
        for (const auto &[low, found] : {std::pair{at(0) + 1, 0}, {stack_end, 0}, {stack_begin - 1, 5}, {uintptr_t(0), 5}})
            EXPECT_EQ(walk(fp(3), low, 8), found) << low;
        const uintptr_t end = stack_end + frame_record_below_fp, word = sizeof(void *), none = 0;
        for (const uintptr_t third : {fp(3) + 1, fp(2), fp(1), fp(0), none, word, end, end - word, end + 8 * word, -word, stack_begin})
            EXPECT_EQ(walk(third, at(0), 8), 3) << third;
        EXPECT_EQ(outer(names, 1) * 10 + outer(names, 0), 10);
        EXPECT_GT(outer(names, 20), 1);
        EXPECT_TRUE(std::string_view(names[0]) == "outer" && std::string_view(names[1]).find("symbols_test") != std::string::npos);
        EXPECT_FALSE(symbol_lookup(nullptr) || symbol_lookup(names) || symbol_lookup(reinterpret_cast<void *>(-1)));
        fail_call(ALLOC, 1);
        EXPECT_EQ(outer(names, 20), 0);
        stack_top = at(1);
        EXPECT_EQ(walk(fp(3), at(0), 8), 2);
        rlimit limit = {};
        getrlimit(RLIMIT_STACK, &limit), limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_STACK, &limit), getrlimit(RLIMIT_STACK, &limit); // an emulator ignores it
        symbols_load();
        EXPECT_GE(stack_end - stack_begin, std::min<rlim_t>(limit.rlim_cur, 256 << 20));
    });
}

TEST_F(symbols_test, what_a_crash_has_written_to_is_closed)
{
    isolated([] {
        const int other = dup2(STDERR_FILENO, 255), beyond = dup2(STDERR_FILENO, 256);
        dup2(open("/dev/null", O_RDWR), STDIN_FILENO);
        device_prefixes = {"/dev/"}; // no dump on the machine's own console
        const auto is_open = [](int fd) { return fcntl(fd, F_GETFD) >= 0; };
        dump_stack(0, 0, 0);
        EXPECT_TRUE(!is_open(STDIN_FILENO) && is_open(other));
        close_descriptors();
        EXPECT_TRUE(!is_open(other) && is_open(beyond));
    });
}

} // namespace

extern "C" ssize_t __real_readlink(const char *, char *, size_t);
extern "C" ssize_t __wrap_readlink(const char *path, char *text, size_t size)
{
    return executable.empty() ? __real_readlink(path, text, size) : static_cast<ssize_t>(executable.copy(text, size));
}
// clang-format on
