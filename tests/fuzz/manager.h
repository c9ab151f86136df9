// A service manager whose variables all have the same value.
#include "lumd/cfgdb.h"
#include "lumd/kinds.h"
#include "lumd/lumd.h"
#include "syscfg/variables.h"

static std::string value_of_all;
static syscfg_ops operations = {nullptr, nullptr,
                                [](syscfg *, const char *) { return value_of_all.c_str(); }};
static syscfg database = [] {
    syscfg empty = {};
    empty.ops = &operations;
    return empty;
}();
static cfgdb bridge = {nullptr, &database, nullptr};
static lumd manager = {{}, &bridge, -1, all_kinds, {}, {}};
