// The symbol table of an executable: in both layouts, and as the program reads its own.
#include "app/elf_file.h"
#include "app/symbols.h"
#include "tests/fuzz/target.h"

volatile size_t length; // of a name, to make sure that all of it is read

template <typename Layout>
static void read_names(std::span<const std::byte> bytes)
{
    elf_file<Layout> elf(bytes);
    if (!elf.open())
        elf.each_function([&](const auto &function) { length = elf.name_of(function).value_or("").size(); });
}

void take(std::string_view input)
{
    const auto bytes = std::as_bytes(std::span(input));
    symbol *table = nullptr;
    read_names<elf32_layout>(bytes);
    read_names<elf64_layout>(bytes);
    symbols_read(bytes, &table);
    symbols_free(table);
}
