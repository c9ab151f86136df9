#include "syscfg/format.h"

#include "app/text.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <strings.h>

namespace {

// Takes a number off the front of text: 0 without digits, at most 1,000.
int take_small_number(std::string_view &text)
{
    int number = 0;
    const std::string_view digits = span_of(text, is_digit);
    for (const char digit : digits)
        number = std::min(number * 10 + (digit - '0'), 1000);
    text.remove_prefix(digits.size());
    return number;
}

// True if text holds no conversion: every '%' is doubled.
bool is_plain_text(std::string_view text)
{
    while (!text.empty()) {
        const bool percent = text.front() == '%';
        if (percent && !text.starts_with("%%"))
            return false;
        text.remove_prefix(percent ? 2 : 1);
    }
    return true;
}

// True for one conversion of one int followed by plain text: printf must not read a second argument or print
// more than an answer holds.
bool is_safe_conversion(std::string_view text)
{
    constexpr int max_width = 127;
    text.remove_prefix(std::min(text.find_first_not_of("-+ #0"), text.size()));
    if (take_small_number(text) > max_width)
        return false;
    if (text.starts_with('.')) {
        text.remove_prefix(1);
        if (take_small_number(text) > max_width)
            return false;
    }
    const bool resized = text.starts_with('h');
    text.remove_prefix(text.starts_with("hh") ? 2 : resized ? 1 : 0);
    const std::string_view kinds = resized ? "diuoxX" : "diuoxXc";
    return !text.empty() && kinds.find(text.front()) != kinds.npos && is_plain_text(text.substr(1));
}

} // namespace

const char *get_string(const syscfg_var *var, const char *option, std::span<char> buffer)
{
    if (strcasecmp(option, "url") != 0)
        return var->value;
    url_escape(var->value, buffer);
    return buffer.data();
}

const char *get_integer(const syscfg_var *var, const char *option, std::span<char> buffer)
{
    constexpr size_t max_option = 15;
    const std::string_view conversion = std::string_view(option).substr(0, max_option);
    if (!is_safe_conversion(conversion))
        return var->value;
    char format[1 + max_option + 1] = "%";
    copy_text(std::span(format).subspan(1), conversion);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    snprintf(buffer.data(), buffer.size(), format,
             atoi(var->value)); // NOLINT(cert-err34-c): a lenient reading
#pragma GCC diagnostic pop
    return buffer.data();
}

const char *get_bool(const syscfg_var *var, const char *option, std::span<char> buffer)
{
    std::string_view when_true = option;
    if (when_true.find(':') == when_true.npos)
        return var->value;
    const std::string_view when_false = cut_until(when_true, ':');
    copy_text(buffer, *var->value == '1' ? when_true : when_false);
    return buffer.data();
}

const char *get_mac(const syscfg_var *var, const char *option, std::span<char> buffer)
{
    if (*option == ':')
        return var->value;
    size_t length = 0;
    for (const char *c = var->value; *c != '\0' && length + 1 < buffer.size(); ++c) {
        if (*c != ':')
            buffer[length++] = *c;
        else if (*option != '\0')
            buffer[length++] = *option;
    }
    buffer[length] = '\0';
    return buffer.data();
}

void url_escape(std::string_view text, std::span<char> out)
{
    constexpr char digits[] = "0123456789ABCDEF";
    constexpr std::string_view kept = "._-";
    if (out.empty())
        return;
    size_t length = 0;
    for (const char c : text) {
        if (length + 1 >= out.size())
            break;
        if (c == ' ') {
            out[length++] = '+';
        } else if (is_letter(c) || is_digit(c) || kept.find(c) != kept.npos) {
            out[length++] = c;
        } else {
            if (length + 3 >= out.size())
                break;
            const auto byte = static_cast<unsigned char>(c);
            out[length++] = '%';
            out[length++] = digits[byte >> 4];
            out[length++] = digits[byte & 0xF];
        }
    }
    out[length] = '\0';
}
