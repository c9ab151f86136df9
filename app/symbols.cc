#include "app/symbols.h"

#include "app/elf_file.h"
#include "app/file.h"
#include "app/log.h"
#include "app/memory.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <sys/resource.h>
#include <type_traits>
#include <unistd.h>

uintptr_t stack_top;
uintptr_t stack_begin;
uintptr_t stack_end;

namespace {

using own_layout = std::conditional_t<sizeof(void *) == 4, elf32_layout, elf64_layout>;

constexpr size_t line_max = 255;
constexpr size_t path_max = 255;

symbol *symbols;

uintptr_t address(const void *pointer)
{
    return reinterpret_cast<uintptr_t>(pointer);
}

template <typename Copied>
Copied *wanted(Copied *memory, const char *call)
{
    if (!memory) {
        print_error("%s: %m\n", call);
        abort();
    }
    return memory;
}

// The kernel maps nothing else into the room reserved for the stack's growth. Without a stack limit, that
// room exceeds the upper quarter of the addresses below the stack's end.
void note_stack(uintptr_t end)
{
    rlimit limit;
    const rlim_t quarter = end / 4;
    const rlim_t size = getrlimit(RLIMIT_STACK, &limit) < 0 ? quarter : std::min(quarter, limit.rlim_cur);
    stack_end = end;
    stack_begin = end - static_cast<uintptr_t>(size);
}

void note_mapping(const char *line)
{
    void *start, *end;
    char permissions[line_max + 1], path[line_max + 1];
    if (sscanf(line, "%p-%p %s %*x %*s %*d %s", &start, &end, permissions, path) < 3) {
        print_error("invalid line:\n%s", line);
        return;
    }
    stack_top = std::max(stack_top, address(end));
    const uintptr_t here = address(__builtin_frame_address(0));
    if (address(start) <= here && here < address(end))
        note_stack(address(end));
}

bool read_mappings()
{
    char path[32], line[line_max + 1];
    snprintf(path, sizeof path, "/proc/%d/maps", getpid());
    const unique_file maps(fopen(path, "re"));
    if (!maps) {
        print_error("cannot open %s\n", path);
        return false;
    }
    stack_top = 0;
    for (bool begins = true; fgets(line, sizeof line, maps.get()); begins = strchr(line, '\n') != nullptr) {
        if (begins)
            note_mapping(line);
    }
    return true;
}

struct mapped_file {
    std::span<const std::byte> bytes;
    ~mapped_file()
    {
        if (bytes.data() && munmap(const_cast<std::byte *>(bytes.data()), bytes.size()) < 0)
            print_error("munmap: %m\n");
    }
};

void read_executable(const char *path)
{
    const unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd) {
        print_error(" couldn't open \"%s\"\n", path);
        return;
    }
    struct stat status;
    if (fstat(fd.get(), &status) < 0) {
        print_error("fstat: %m\n");
        return;
    }
    const size_t size = static_cast<size_t>(status.st_size);
    void *memory = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd.get(), 0);
    if (memory == MAP_FAILED) {
        print_error("mmap: %m\n");
        return;
    }
    const mapped_file file = {{static_cast<const std::byte *>(memory), size}};
    if (const char *wrong = symbols_read(file.bytes, &symbols))
        print_error("%s", wrong);
}

} // namespace

const char *symbols_read(std::span<const std::byte> file, symbol **table)
{
    elf_file<own_layout> elf(file);
    if (const char *wrong = elf.open())
        return wrong;
    size_t count = 0;
    elf.each_function([&](const auto &) { ++count; });
    symbol *last = wanted(static_cast<symbol *>(calloc(count + 1, sizeof(symbol))), "calloc");
    *table = last;
    elf.each_function([&](const auto &function) {
        const auto name = elf.name_of(function);
        if (function.st_shndx == SHN_UNDEF || !name)
            return;
        const auto start = static_cast<uintptr_t>(function.st_value);
        *last++ = {wanted(new_text(*name), "strdup"), start,
                   start + static_cast<uintptr_t>(function.st_size)};
    });
    return nullptr;
}

void symbols_free(symbol *table)
{
    for (const symbol *each = table; each && each->name; ++each)
        free(each->name);
    free(table);
}

void symbols_load()
{
    if (!read_mappings())
        return;
    char link[32], path[path_max + 1] = {};
    snprintf(link, sizeof link, "/proc/%u/exe", static_cast<unsigned>(getpid()));
    if (readlink(link, path, path_max) < 0) {
        print_error("readlink: %m\n");
        return;
    }
    read_executable(path);
}

const char *symbol_lookup(const void *addr)
{
    for (const symbol *each = symbols; each && each->name; ++each) {
        if (each->start <= address(addr) && address(addr) < each->end)
            return each->name;
    }
    return nullptr;
}
