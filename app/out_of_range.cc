// The one thing the daemon needs of a C++ runtime library: what std::string_view calls when a caller breaks
// its contract. Ours keeps a megabyte of library off the device.

#include <cstdlib>

namespace std {

[[noreturn]] void __throw_out_of_range_fmt(const char *, ...)
{
    abort();
}

} // namespace std
