#include "net/route_table.h"

#include "app/text.h"

#include <charconv>

namespace {

enum column : size_t { name_column, destination_column, gateway_column, flags_column, mask_column = 7 };

constexpr size_t columns = mask_column + 1;

std::string_view cut_word(std::string_view &text)
{
    text = skip_space(text);
    const std::string_view word = span_of(text, [](char c) { return !is_space(c); });
    text.remove_prefix(word.size());
    return word;
}

bool read_hex(std::string_view word, uint32_t &out)
{
    const char *end = word.data() + word.size();
    const auto parsed = std::from_chars(word.data(), end, out, 16);
    return parsed.ec == std::errc() && parsed.ptr == end;
}

bool is_decimal(std::string_view word)
{
    if (word.starts_with('-'))
        word.remove_prefix(1);
    return !word.empty() && span_of(word, is_digit).size() == word.size();
}

} // namespace

bool parse_route(std::string_view line, route &out)
{
    std::string_view words[columns];
    line = line.substr(0, line.find('\0'));
    for (std::string_view &word : words)
        word = cut_word(line);
    copy_text(out.interface, words[name_column]);
    const std::span between(words + flags_column, words + mask_column);
    out.is_complete = std::ranges::all_of(between, is_decimal);
    return !words[name_column].empty() && read_hex(words[destination_column], out.destination) &&
           read_hex(words[gateway_column], out.gateway) && read_hex(words[mask_column], out.mask);
}

bool route_table::next(std::span<char> line)
{
    const auto read_line = [&] {
        return fgets(line.data(), static_cast<int>(line.size()), file.get()) != nullptr;
    };
    const bool has_line = read_line();
    const bool is_heading =
        std::exchange(is_at_heading, false) && has_line && std::string_view(line.data()).starts_with("Iface");
    return is_heading ? read_line() : has_line;
}
