#include "app/glob.h"

// Only the last '*' ever has to grow: everything before it has matched as early as possible.
bool glob_match(std::string_view pattern, std::string_view name)
{
    constexpr size_t none = std::string_view::npos;
    size_t p = 0;
    size_t n = 0;
    size_t after_star = none;
    size_t star_end = 0;
    while (n < name.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            after_star = ++p;
            star_end = n;
        } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
            ++p;
            ++n;
        } else if (after_star != none) {
            p = after_star;
            n = ++star_end;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', p) == none;
}
