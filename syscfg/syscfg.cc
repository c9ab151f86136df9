#include "syscfg/syscfg.h"

#include "app/app.h"
#include "app/log.h"
#include "app/memory.h"
#include "syscfg/definition.h"
#include "syscfg/lookup.h"
#include "syscfg/registry.h"
#include "syscfg/server.h"
#include "syscfg/store.h"

namespace {

constexpr char log_module[] = "syscfg";
constexpr char definition_file[] = "/etc/syscfg.def";
constexpr size_t definition_line_size = 256;
constexpr int max_hwinfo = 4096;

void load_hwinfo(syscfg *db)
{
    const int length = registry_read_hwinfo(text_buffer, max_hwinfo);
    if (length < 0) {
        print_error("failed to read hwinfo\n");
        print_error("load hwinfo failed\n");
        return;
    }
    load_config(db, text_buffer, length, LOAD_CONSTANTS, VAR_STRING);
}

int syscfg_init(syscfg *db)
{
    char line[definition_line_size];
    if (parse_definition(db, definition_file, line, sizeof line) < 0) {
        print_error("cannot load syscfg definition!\n");
        return -1;
    }
    load_hwinfo(db);
    build_var_tbl(db);
    build_alias_tbl(db);
    if (load_syscfg(db) < 0)
        print_error("load syscfg failed\n");
    for (syscfg_var *var = db->vars; var; var = var->next)
        var->flags &= static_cast<uint16_t>(~VAR_CHANGED);

    db->server_fd = open_server_socket();
    if (db->server_fd < 0) {
        log_syserror(LOG_HERE);
        return -1;
    }
    if (app_add_fd(db->server_fd, POLLIN, db, syscfg_recvCallback) < 0) {
        log_failed(LOG_HERE);
        return -1;
    }
    return 0;
}

void syscfg_release(syscfg *) {}

const char *syscfg_get_value(syscfg *db, const char *name)
{
    return get_value(db, name, nullptr, {});
}

constexpr syscfg_ops operations = {syscfg_init, syscfg_release, syscfg_get_value};

} // namespace

syscfg *create_syscfg(cfgdb *listener)
{
    auto *db = new_record<syscfg>();
    if (!db) {
        log_failed(LOG_HERE);
        return nullptr;
    }
    db->ops = &operations;
    db->listener = listener;
    db->server_fd = -1;
    return db;
}
