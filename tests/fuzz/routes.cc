// Lines of a routing table: a route has the name of an interface, that ends.
#include "app/text.h"
#include "net/interfaces.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    char *table = new char[size]; // nothing is behind it
    std::string_view text(table,
                          std::string_view(reinterpret_cast<const char *>(data), size).copy(table, size));
    for (route read; !text.empty();)
        if (parse_route(cut_until(text, '\n'), read) && strnlen(read.interface.data(), 32) - 1 > 30)
            __builtin_trap();
    delete[] table;
    return 0;
}
