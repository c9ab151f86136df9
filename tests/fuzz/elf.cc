// The symbol table of an executable, in both layouts and as the program reads its own.
#include "app/elf_file.h"
#include "app/symbols.h"

volatile size_t length; // of a name, which is read for it

template <typename Layout>
static void read_names(std::span<const std::byte> bytes)
{
    elf_file<Layout> elf(bytes);
    if (!elf.open())
        elf.each_function([&](const auto &function) { length = elf.name_of(function).value_or("").size(); });
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::span bytes(reinterpret_cast<const std::byte *>(data), size);
    symbol *table = nullptr;
    read_names<elf32_layout>(bytes);
    read_names<elf64_layout>(bytes);
    symbols_read(bytes, &table);
    symbols_free(table);
    return 0;
}
