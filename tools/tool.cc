#include "tools/tool.h"

#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int longest_seconds = 86400;

// A save syncs the flash, which can be slow.
int given_seconds = 30;

// Also silences the library's lines.
void be_quiet()
{
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere < 0 || nowhere == STDERR_FILENO)
        return;
    dup2(nowhere, STDERR_FILENO);
    close(nowhere); // may close a reused standard output
}

int read_seconds(std::string_view text)
{
    int value = 0;
    const char *end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, value);
    if (parsed.ec != std::errc() || parsed.ptr != end || value < 1 || value > longest_seconds)
        leave(code_usage, "SECONDS are 1 to %d, not \"%s\"", longest_seconds, text.data());
    return value;
}

__attribute__((format(printf, 1, 0))) void complain(const char *format, va_list args)
{
    char text[512];
    vsnprintf(text, sizeof text, format, args);
    fflush(stdout);
    dprintf(STDERR_FILENO, "%s: %s\n", program_invocation_short_name, text);
}

} // namespace

void leave(exit_code code, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    complain(format, args);
    va_end(args);
    exit(code);
}

void leave_done()
{
    if (fflush(stdout) != 0 || ferror(stdout))
        leave(code_no, "cannot write: %s", strerror(errno));
    exit(code_done);
}

void leave_with_usage(const char *usage, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    complain(format, args);
    va_end(args);
    dprintf(STDERR_FILENO, "%s", usage);
    exit(code_usage);
}

void take_common_option(int letter, const char *value, const char *usage)
{
    switch (letter) {
    case 'q':
        return be_quiet();
    case 't':
        given_seconds = read_seconds(value);
        return;
    case 'h':
        printf("%s", usage);
        leave_done();
    case 'V':
        printf("%s %s\n", program_invocation_short_name, LUMD_VERSION);
        leave_done();
    default: // getopt has printed the error
        dprintf(STDERR_FILENO, "%s", usage);
        exit(code_usage);
    }
}

int seconds()
{
    return given_seconds;
}
