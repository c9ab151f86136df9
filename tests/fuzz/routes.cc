// Lines of a routing table: the interface name of a route must be terminated.
#include "app/text.h"
#include "net/route_table.h"
#include "tests/fuzz/target.h"

void take(std::string_view input)
{
    for (route read; !input.empty();)
        if (parse_route(cut_until(input, '\n'), read))
            require(strnlen(read.interface.data(), 32) - 1 <= 30);
}
