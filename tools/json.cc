#include "tools/json.h"

#include <cstdint>

namespace {

// The fixed bits of the first byte, and the smallest character that needs this many bytes.
constexpr struct {
    uint8_t mask, lead;
    uint32_t least;
} forms[] = {{0x80, 0x00, 0}, {0xe0, 0xc0, 0x80}, {0xf0, 0xe0, 0x800}, {0xf8, 0xf0, 0x10000}};

// The length of the character at the start of text; 0 if it is malformed.
size_t character_length(std::string_view text)
{
    const auto first = static_cast<uint8_t>(text.front());
    for (size_t more = 0; more < std::size(forms); ++more) {
        const auto &form = forms[more];
        if ((first & form.mask) != form.lead)
            continue;
        if (text.size() <= more)
            return 0;
        uint32_t character = first & static_cast<uint8_t>(~form.mask);
        for (size_t i = 1; i <= more; ++i) {
            const auto next = static_cast<uint8_t>(text[i]);
            if ((next & 0xc0) != 0x80)
                return 0;
            character = character << 6 | (next & 0x3f);
        }
        const bool is_surrogate = character >= 0xd800 && character <= 0xdfff;
        return character >= form.least && character <= 0x10ffff && !is_surrogate ? more + 1 : 0;
    }
    return 0;
}

} // namespace

void write_json_string(FILE *out, std::string_view text)
{
    fputc('"', out);
    while (!text.empty()) {
        const size_t length = character_length(text);
        const char first = text.front();
        if (length == 0)
            fputs("\\ufffd", out);
        else if (first == '"' || first == '\\')
            fprintf(out, "\\%c", first);
        else if (static_cast<uint8_t>(first) < ' ' || first == 0x7f)
            fprintf(out, "\\u%04x", static_cast<unsigned>(first));
        else
            fwrite(text.data(), 1, length, out);
        text.remove_prefix(length == 0 ? 1 : length);
    }
    fputc('"', out);
}
