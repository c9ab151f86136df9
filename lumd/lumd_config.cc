#include "lumd/lumd.h"

#include "app/file.h"
#include "app/log.h"
#include "app/text.h"
#include "lumd/cfgdb.h"
#include "lumd/control.h"
#include "lumd/proc_child.h"

#include <cstring>

namespace {

constexpr char log_module[] = "lumd";
constexpr size_t longest_path = 127;
constexpr size_t line_size = 512;

// A file being read, and where in it.
struct conf_reader {
    lumd *manager;
    const char *path;
    int line_number;
    int last;       // index of the last filled slot
    svcfg *current; // null before the first service, and after one that was refused
};

constexpr char parse_func[] = "lumd_parse_conf";

int begin_service(conf_reader &reader, std::string_view line)
{
    reader.current = nullptr;
    if (reader.last + 1 == lumd_slots) {
        log_trace(LOG_AS(parse_func), "%s: %d: more than %d services, refused: %.*s", reader.path,
                  reader.line_number, lumd_slots, printed(line), line.data());
        return 0;
    }
    const int index = reader.last + 1;
    service_info &slot = reader.manager->svcs[index];
    svcfg *cfg = create_service_cfg(reader.manager, index);
    if (!cfg)
        return -1;
    // Replaces a service of a file that could not be read to its end.
    slot.m_cfg.reset(cfg);
    copy_text(slot.name, svcfg_parseServiceLine(cfg, line));
    slot.owner = reader.manager;
    reader.last = index;
    reader.current = cfg;
    return 0;
}

constexpr struct {
    std::string_view keyword;
    int (*parse)(svcfg *cfg, std::string_view line);
} line_kinds[] = {
    {"exec", svcfg_parseExecLine},
    {"depends", svcfg_parseDepends},
    {"syscfg", svcfg_parseSyscfgLine},
};

int parse_line(conf_reader &reader, std::string_view line)
{
    if (line.starts_with("service"))
        return begin_service(reader, line);
    if (line.empty() || line.front() == '#')
        return 0;
    if (!reader.current) {
        log_trace(LOG_AS(parse_func), "%s: %d: belongs to no service, refused: %.*s", reader.path,
                  reader.line_number, printed(line), line.data());
        return 0;
    }
    for (const auto &kind : line_kinds) {
        if (line.starts_with(kind.keyword))
            return kind.parse(reader.current, line);
    }
    return svcfg_parseCmdLine(reader.current, line);
}

std::string_view prepare_line(std::string_view line)
{
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t'))
        line.remove_prefix(1);
    line = line.substr(0, line.find(line.find('\r') != line.npos ? '\r' : '\n'));
    return trim_end(line);
}

bool depends_on(const svcfg *cfg, std::string_view name)
{
    for (const svcfg_link &link : cfg->depend) {
        if (name == link.name.get())
            return true;
    }
    return false;
}

void link_names(lumd *manager, const svcfg *cfg, svcfg_links &links, const char *list)
{
    int index = 0;
    for (svcfg_link &link : links) {
        link.info = lumd_find_slot(manager, link.name.get());
        log_trace(LOG_AS("lumd_init_service_infos"), "\t%s: svcfg[%d]: %s[%d]: name: %s info name: %s",
                  cfg->proc, cfg->index, list, index++, link.name.get(),
                  link.info ? link.info->name : "(null)");
    }
}

void dump_commands(const svcfg *cfg)
{
    constexpr char func[] = "lumd_init";
    int c = 0;
    for (const svcfg_cmd &cmd : cfg->cmds) {
        log_trace(LOG_AS(func), "%s: ", cmd.name.get());
        int w = 0;
        for (const char *word : cmd.argv)
            log_trace(LOG_AS(func), "lumd->svcs[%d].m_cfg->cmds[%d].argv[%d]: %s", cfg->index, c, w++, word);
        ++c;
    }
}

void dump_table(lumd *manager)
{
    constexpr char func[] = "lumd_init";
    for (const service_info &slot : lumd_used_slots(manager)) {
        const svcfg *cfg = slot.m_cfg.get();
        log_trace(LOG_AS(func), "    lumd->svcs[%d].m_cfg->proc=%s", cfg->index, cfg->proc);
        for (char *const *word = cfg->argv.words(); *word; ++word)
            log_trace(LOG_AS(func), "        %s", *word);
        dump_commands(cfg);
    }
}

// The last index after every file of the list, -1 when none gave a service.
int read_files(lumd *manager, std::string_view list)
{
    int last = -1;
    for (bool more = true; more;) {
        more = list.find(':') != list.npos;
        const std::string_view element = cut_until(list, ':');
        char path[longest_path + 1];
        if (!copy_text(path, element)) {
            log_trace(LOG_AS("lumd_init"), "path too long, passed over: %s...", path);
            continue;
        }
        const int result = lumd_parse_conf(manager, path, last);
        if (result >= 0)
            last = result;
    }
    return last;
}

} // namespace

int lumd_parse_conf(lumd *manager, const char *path, int last_index)
{
    const unique_file file = open_regular_file(path);
    if (!file) {
        log_trace(LOG_HERE, "cannot open: %s", path);
        return -1;
    }
    log_trace(LOG_HERE, "%s", path);
    conf_reader reader = {manager, path, 0, last_index, nullptr};
    char line[line_size];
    for (bool is_whole = true; fgets(line, sizeof line, file.get());) {
        if (is_whole)
            ++reader.line_number;
        else if (*line != '\n')
            log_trace(LOG_HERE, "%s: %d: longer than %d characters, the rest is a line of its own", path,
                      reader.line_number, static_cast<int>(sizeof line) - 1);
        is_whole = strlen(line) < sizeof line - 1 || line[sizeof line - 2] == '\n';
        if (parse_line(reader, prepare_line(line)) < 0) {
            log_failed(LOG_HERE);
            return -1;
        }
    }
    if (ferror(file.get())) {
        log_syserror(LOG_HERE);
        return -1;
    }
    return reader.last;
}

void lumd_init_service_infos(lumd *manager)
{
    const auto slots = lumd_used_slots(manager);
    for (const service_info &slot : slots) {
        for (const service_info &other : slots) {
            if (depends_on(other.m_cfg.get(), slot.name) &&
                svcfg_add_link(slot.m_cfg.get(), slot.m_cfg->depended, other.name, "dependents") < 0) {
                log_failed(LOG_HERE);
            }
        }
    }
    for (const service_info &slot : slots) {
        link_names(manager, slot.m_cfg.get(), slot.m_cfg->depend, "depend");
        link_names(manager, slot.m_cfg.get(), slot.m_cfg->depended, "depended");
    }
}

int lumd_init(lumd *manager, const char *path_list)
{
    if (read_files(manager, path_list) < 0) {
        log_failed(LOG_HERE);
        return -1;
    }
    dump_table(manager);
    lumd_init_service_infos(manager);

    cfgdb *bridge = create_cfgdb(manager);
    if (!bridge || cfgdb_init(bridge) < 0) {
        log_failed(LOG_HERE);
        if (bridge)
            cfgdb_release(bridge);
        return -1;
    }
    bridge->changed = lumd_processSyscfgChange;
    manager->cfgdb = bridge;
    // Before descriptors can run out: without the pipe no end would be seen, and a dead service would stay
    // down.
    if (child_reaper_init() < 0) {
        log_failed(LOG_HERE);
        return -1;
    }
    if (open_control_fifo(manager) < 0) {
        log_syserror(LOG_HERE);
        return -1;
    }
    return 0;
}
