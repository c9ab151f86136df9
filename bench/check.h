// A failed check ends the benchmark.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <unistd.h>

template <typename Result>
Result check(Result result, const char *what)
{
    if (result < 0) {
        std::fprintf(stderr, "bench: %s: %m\n", what);
        std::exit(1);
    }
    return result;
}

inline void expect(bool is_so, const char *what)
{
    if (!is_so) {
        std::fprintf(stderr, "bench: %s\n", what);
        std::exit(1);
    }
}

inline void put(int fd, std::string_view text)
{
    expect(write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "write");
}
