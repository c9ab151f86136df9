// Values as files give them, for a variable of each type.
#include "syscfg/definition.h"
#include "syscfg/store.h"
#include "syscfg/syscfg.h"
#include "tests/fuzz/memory_file.h"

#include <string>

void cfgdb_processSyscfgChange(cfgdb *, const char *const *, int) {}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static syscfg *const db = [] {
        constexpr char definition[] =
            "s string\nl string(8) [a-z]*\ni integer\nb bool\nc choice on,off\na ip\n"
            "m mac\nd domain\nu url\nn sn\no alias s\n";
        char line[256];
        syscfg *created = create_syscfg(nullptr);
        parse_definition(created, memory_file(definition, sizeof definition - 1).path, line, sizeof line);
        build_var_tbl(created);
        build_alias_tbl(created);
        return created;
    }();
    std::string text(reinterpret_cast<const char *>(data), size);
    return load_config(db, text.data(), static_cast<int>(size), LOAD_VALUES, 0);
}
