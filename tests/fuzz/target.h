// The entry point of each target: takes an input, with nothing readable after its end, and aborts if it
// does harm.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string_view>

void take(std::string_view input);

inline void require(bool holds)
{
    if (!holds)
        abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    take({reinterpret_cast<const char *>(data), size});
    return 0;
}
