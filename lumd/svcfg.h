// What the configuration files say of one service, and the parsers of their lines.
//
// A line comes prepared: blanks before it, its end and white space after it are gone. A parser takes the
// whole line, keyword included. What exceeds a capacity is cut (names) or refused with a log line, and the
// rest of the line still counts. A parser fails, with a negative result, only when memory is out.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

struct lumd;
struct service_info;

constexpr size_t svcfg_name_size = 32;
constexpr int svcfg_exec_max = 81;
constexpr size_t svcfg_condition_max = 64;
constexpr size_t svcfg_pattern_max = 64;
constexpr size_t svcfg_depend_max = 16;
constexpr size_t svcfg_cmd_max = 8;
constexpr size_t svcfg_cmd_word_max = 16;
constexpr size_t svcfg_cmd_name_max = 63;

// A variable that must have a value for the service to run; without a value it imposes nothing.
struct svcfg_condition {
    int flag; // a "~" stood before the name
    char *name;
    char *value;
};

struct svcfg_link {
    char *name;
    service_info *info; // the slot of that name, null when there is none
};

struct svcfg_cmd {
    char *name;
    char *argv[svcfg_cmd_word_max + 1];
};

// Lists end at their first null. All text is the record's own, on the heap.
struct svcfg {
    char proc[svcfg_name_size];
    int argc;
    char *argv[svcfg_exec_max + 1];
    svcfg_condition dsyscfg[svcfg_condition_max + 1];
    char *syscfg_patterns[svcfg_pattern_max + 1];
    svcfg_link depend[svcfg_depend_max];
    svcfg_link depended[svcfg_depend_max];
    svcfg_cmd cmds[svcfg_cmd_max + 1];
    lumd *owner;
    int index;
};

// A zeroed record for the slot of that index, or null (logged) when memory is out.
svcfg *create_service_cfg(lumd *owner, int index);

// Frees the record with all its text; null is allowed.
void free_service_cfg(svcfg *cfg);

// Takes the service's name and returns it.
const char *svcfg_parseServiceLine(svcfg *cfg, std::string_view line);
int svcfg_parseExecLine(svcfg *cfg, std::string_view line);
int svcfg_parseDepends(svcfg *cfg, std::string_view line);
int svcfg_parseSyscfgLine(svcfg *cfg, std::string_view line);
int svcfg_parseCmdLine(svcfg *cfg, std::string_view line);

// The words of the last command of that name, or an empty list; never null.
char *const *svcfg_find_command(const svcfg *cfg, std::string_view name);

// Adds a name to one of the record's lists of links, as what (for the log line that refuses it when the list
// is full). -1 when memory is out.
int svcfg_add_link(const svcfg *cfg, std::span<svcfg_link> links, std::string_view name, const char *what);
