// An ELF executable as bytes in memory. Nothing in it is trusted: each offset, count and link is checked
// against the file's size where it is used.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <elf.h>
#include <optional>
#include <span>
#include <string_view>

struct elf32_layout {
    using header = Elf32_Ehdr;
    using section = Elf32_Shdr;
    using symbol = Elf32_Sym;
    static constexpr unsigned char file_class = ELFCLASS32;
};

struct elf64_layout {
    using header = Elf64_Ehdr;
    using section = Elf64_Shdr;
    using symbol = Elf64_Sym;
    static constexpr unsigned char file_class = ELFCLASS64;
};

template <typename Layout>
class elf_file {
  public:
    using header = typename Layout::header;
    using section = typename Layout::section;
    using symbol = typename Layout::symbol;

    explicit elf_file(std::span<const std::byte> bytes) : bytes_(bytes) {}

    // Returns why the file is useless here, in one line, or null if its symbols can be read.
    const char *open()
    {
        if (const char *wrong = check_header())
            return wrong;
        if (!find_symbols())
            return "no symbols were associated to this file\n";
        if (symbols_.sh_link == 0)
            return "the symbol table didn't have an associated string table, wtf??\n";
        const auto strings = section_at(symbols_.sh_link);
        if (!strings || strings->sh_type != SHT_STRTAB)
            return "the associated string table for the symbol table is not valid!\n";
        names_ = contents(strings->sh_offset, strings->sh_size);
        if (symbols_.sh_entsize == 0 || symbols_.sh_size / symbols_.sh_entsize == 0)
            return "there were no symbols in the symbol table!\n";
        return nullptr;
    }

    // Calls use(symbol) for every function in table order. Symbol 0 is a placeholder.
    template <typename Use>
    void each_function(Use use) const
    {
        const uint64_t count = symbols_.sh_size / symbols_.sh_entsize;
        for (uint64_t i = 1; i < count; ++i) {
            const auto entry = entry_at<symbol>(symbols_.sh_offset, i);
            if (!entry)
                return;
            if ((entry->st_info & 0xF) == STT_FUNC)
                use(*entry);
        }
    }

    // Nothing if the name does not lie wholly inside the name table.
    [[nodiscard]] std::optional<std::string_view> name_of(const symbol &of) const
    {
        if (of.st_name >= names_.size())
            return {};
        const std::string_view rest = names_.substr(of.st_name);
        const size_t length = rest.find('\0');
        return length == rest.npos ? std::optional<std::string_view>() : rest.substr(0, length);
    }

  private:
    template <typename Entry>
    [[nodiscard]] std::optional<Entry> entry_at(uint64_t table, uint64_t index) const
    {
        if (table > bytes_.size() || index >= (bytes_.size() - table) / sizeof(Entry))
            return {};
        Entry entry;
        memcpy(&entry, bytes_.data() + table + index * sizeof(Entry), sizeof entry);
        return entry;
    }

    [[nodiscard]] std::optional<section> section_at(uint64_t index) const
    {
        return index < header_.e_shnum ? entry_at<section>(header_.e_shoff, index) : std::nullopt;
    }

    [[nodiscard]] std::string_view contents(uint64_t offset, uint64_t size) const
    {
        if (offset > bytes_.size() || size > bytes_.size() - offset)
            return {};
        return {reinterpret_cast<const char *>(bytes_.data() + offset), static_cast<size_t>(size)};
    }

    const char *check_header()
    {
        std::array<unsigned char, EI_NIDENT> ident = {};
        const auto *bytes = reinterpret_cast<const unsigned char *>(bytes_.data());
        std::copy_n(bytes, std::min(bytes_.size(), ident.size()), ident.begin());
        if (memcmp(ident.data(), ELFMAG, SELFMAG) != 0)
            return "not a valid ELF file\n";
        if (ident[EI_CLASS] != Layout::file_class)
            return "file class not supported\n";
        if (ident[EI_DATA] == ELFDATANONE)
            return "invalid data encoding\n";
        if (ident[EI_VERSION] == EV_NONE)
            return "invalid ELF file version\n";
        const auto found = entry_at<header>(0, 0);
        if (!found)
            return "not a valid ELF file\n";
        header_ = *found;
        if (header_.e_type != ET_EXEC)
            return "not an executable ELF file\n";
        if (header_.e_version == EV_NONE)
            return "wrong version number in ELF file\n";
        if (header_.e_phoff == 0)
            return "program header not found\n";
        return header_.e_shoff == 0 ? "section header not found\n" : nullptr;
    }

    bool find_symbols()
    {
        for (uint64_t i = 0; const auto found = section_at(i); ++i) {
            if (found->sh_type != SHT_SYMTAB)
                continue;
            symbols_ = *found;
            return i != 0;
        }
        return false;
    }

    std::span<const std::byte> bytes_;
    header header_ = {};
    section symbols_ = {};
    std::string_view names_;
};
