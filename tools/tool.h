// What the command-line tools have in common: exit statuses, complaints, options.
#pragma once

#include <string_view>

// One table for all of them, which never changes.
enum exit_code {
    code_done = 0,
    code_no = 1, // or not so
    code_usage = 2,
    code_no_name = 3,
    code_refused = 4,
    code_late = 5,
    code_no_daemon = 6,
    code_storage = 7,
};

// Ends the tool after a line on standard error: its name, ": ", the message.
[[noreturn]] void leave(exit_code code, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Ends the tool; not with success when its output could not be written.
[[noreturn]] void leave_done();

// Ends the tool with the usage on standard error.
[[noreturn]] void leave_with_usage(const char *usage);

// Takes the options that every tool has: -q, -t, -h and -V, whose letter it is; value is getopt's. Leaves
// with the usage on any other.
void take_common_option(int letter, const char *value, const char *usage);

// The value of -t, or else the default.
int seconds();

constexpr std::string_view white_space = " \t\n\v\f\r";

constexpr bool is_letter_or_digit(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}
