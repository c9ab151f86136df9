// A configuration file, with an option of each kind.
#include "app/app_options.h"
#include "tests/fuzz/memory_file.h"
#include "tests/fuzz/target.h"

void take(std::string_view input)
{
    constexpr app_option options[] = {{"flag", 'f', nullptr, APP_OPT_FLAG},
                                      {"flags", 'F', nullptr, APP_OPT_FLAG | APP_OPT_LIST},
                                      {"int", 'i', nullptr, APP_OPT_INT},
                                      {"ints", 'I', nullptr, APP_OPT_INT | APP_OPT_LIST},
                                      {"text", 't', nullptr, 1},
                                      {"texts", 'T', nullptr, 1 | APP_OPT_LIST},
                                      {"config", 'c', nullptr, APP_OPT_CONFIG},
                                      {nullptr, 0, nullptr, 1 | APP_OPT_LIST}};
    const memory_file bytes(input);
    const unique_file file(fopen(bytes.path, "re"));
    app_conf_load(options, file.get());
    app_opt_clear();
}
