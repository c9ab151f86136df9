// The only part of a C++ runtime library that the daemon needs: what std::string_view calls if a caller
// breaks its contract. Defining it here keeps a megabyte of library off the device.

#include <cstdlib>

namespace std {

[[noreturn]] void __throw_out_of_range_fmt(const char *, ...)
{
    abort();
}

} // namespace std
