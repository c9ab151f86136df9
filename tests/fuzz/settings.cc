// Definition files and values for their variables, each ending at 0xFF. The first file, "a", can include the
// others, "b" to "z"; values are read from the last.
#include "tests/fuzz/machine.h"
#include "tests/fuzz/target.h"
#include "tests/syscfg/records.h"

void take(std::string_view input)
{
    std::map<char, memory_file> files;
    std::string text;
    machine = {};
    for (char name = 'a'; !input.empty() && name <= 'z'; ++name) {
        text = cut_until(input, '\xFF');
        machine.files[{name}] = files.try_emplace(name, text).first->second.path;
    }
    auto *db = new_record<syscfg>();
    char line[256];
    parse_definition(db, "a", line, sizeof line);
    build_var_tbl(db);
    build_alias_tbl(db);
    load_config(db, text.data(), static_cast<int>(text.size()), LOAD_VALUES, 0);
    free_records(db);
}
