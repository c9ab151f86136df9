// Text helpers shared by all line-oriented formats here. White space is that of the C locale.
#pragma once

#include <algorithm>
#include <cstring>
#include <span>
#include <string_view>

constexpr bool is_space(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}
constexpr bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}
constexpr bool is_letter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
constexpr bool is_name_char(char c)
{
    return is_letter(c) || is_digit(c) || c == '_';
}

// The length of text, for %.*s.
constexpr int printed(std::string_view text)
{
    return static_cast<int>(text.size());
}

constexpr std::string_view skip_space(std::string_view text)
{
    while (!text.empty() && is_space(text.front()))
        text.remove_prefix(1);
    return text;
}

constexpr std::string_view trim_end(std::string_view text)
{
    while (!text.empty() && is_space(text.back()))
        text.remove_suffix(1);
    return text;
}

// Cuts off and returns the text before the first end, or all of it; end itself is removed, too.
constexpr std::string_view cut_until(std::string_view &text, char end)
{
    const size_t at = text.find(end);
    const std::string_view head = text.substr(0, at);
    text.remove_prefix(at == text.npos ? text.size() : at + 1);
    return head;
}

// The longest prefix of text whose characters all pass test.
template <typename Test>
constexpr std::string_view span_of(std::string_view text, Test test)
{
    size_t length = 0;
    while (length < text.size() && test(text[length]))
        ++length;
    return text.substr(0, length);
}

// Copies as much of text as fits and terminates it. True if all of it fitted.
inline bool copy_text(std::span<char> out, std::string_view text)
{
    if (out.empty())
        return false;
    const size_t length = std::min(text.size(), out.size() - 1);
    memcpy(out.data(), text.data(), length);
    out[length] = '\0';
    return length == text.size();
}
