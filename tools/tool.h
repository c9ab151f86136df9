// Shared by the command-line tools: exit statuses, errors, options.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

// One table for all tools; it never changes.
enum exit_code {
    code_done = 0,
    code_no = 1, // also: the answer is no
    code_usage = 2,
    code_no_name = 3,
    code_refused = 4,
    code_late = 5,
    code_no_daemon = 6,
    code_storage = 7,
};

// Ends the tool with a line on standard error: its name, ": ", the message.
[[noreturn]] void leave(exit_code code, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Ends the tool: success if all output was written, else an error.
[[noreturn]] void leave_done();

// Ends the tool with the message, as leave does, and the usage on standard error.
[[noreturn]] void leave_with_usage(const char *usage, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// Handles the options common to all tools: -q, -t, -h and -V. letter and value come from getopt. Any other
// option ends the tool with the usage.
void take_common_option(int letter, const char *value, const char *usage);

// The value of -t, or the default.
int seconds();

// Finds the row whose verb is the first word and takes this number of operands. Ends the tool with the usage
// if there is none.
template <typename Verb, size_t count>
const Verb &take_verb(const Verb (&verbs)[count], std::span<char *const> given, const char *usage)
{
    if (given.empty())
        leave_with_usage(usage, "a verb is missing");
    for (const Verb &known : verbs) {
        if (known.name != given[0])
            continue;
        if (given.size() - 1 < known.least)
            leave_with_usage(usage, "%s: an operand is missing", given[0]);
        if (given.size() - 1 > known.most)
            leave_with_usage(usage, "%s: \"%s\" is one operand too many", given[0], given[known.most + 1]);
        return known;
    }
    leave_with_usage(usage, "\"%s\" is no verb", given[0]);
}

constexpr size_t any_number = static_cast<size_t>(-1);

constexpr std::string_view white_space = " \t\n\v\f\r";

constexpr bool is_letter_or_digit(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}
