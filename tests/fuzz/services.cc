// A service file, as far as the records of its services.
#include "lumd/lumd.h"
#include "tests/fuzz/memory_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const memory_file file(data, size);
    lumd *manager = lumd_create();
    lumd_parse_conf(manager, file.path, -1);
    lumd_init_service_infos(manager);
    for (service_info &slot : manager->svcs)
        free_service_cfg(slot.m_cfg);
    free(manager);
    return 0;
}
