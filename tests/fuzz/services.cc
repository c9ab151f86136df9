// A service file, as far as the records of its services.
#include "lumd/lumd.h"
#include "tests/fuzz/memory_file.h"
#include "tests/fuzz/target.h"

void take(std::string_view input)
{
    const memory_file file(input);
    lumd *manager = lumd_create();
    lumd_parse_conf(manager, file.path, -1);
    lumd_init_service_infos(manager);
    for (service_info &slot : manager->svcs)
        free_service_cfg(slot.m_cfg);
    free(manager);
}
