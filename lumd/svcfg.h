// What the configuration files say of one service, and the parsers of their lines.
//
// A line comes prepared: blanks before it, its end and white space after it are gone. A parser takes the
// whole line, keyword included. What exceeds a capacity is cut (names) or refused with a log line, and the
// rest of the line still counts. A parser fails, with a negative result, only when memory is out.
#pragma once

#include <cstddef>
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

// As many places as have been filled, at most Max, on the heap; an empty one ends them.
template <typename Place, size_t Max>
struct svcfg_list {
    Place *places; // null as long as nothing has been added
    size_t count;

    [[nodiscard]] Place *begin() const { return places; }
    [[nodiscard]] Place *end() const { return places + count; }

    // Never null: a list to which nothing has been added is an empty place.
    operator const Place *() const
    {
        static constexpr Place empty = {};
        return places ? places : &empty;
    }
};

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
    svcfg_list<char *, svcfg_cmd_word_max> argv;
};

using svcfg_links = svcfg_list<svcfg_link, svcfg_depend_max>;

// All text is the record's own, on the heap.
struct svcfg {
    char proc[svcfg_name_size];
    int argc;
    svcfg_list<char *, svcfg_exec_max> argv;
    svcfg_list<svcfg_condition, svcfg_condition_max> dsyscfg;
    svcfg_list<char *, svcfg_pattern_max> syscfg_patterns;
    svcfg_links depend;
    svcfg_links depended;
    svcfg_list<svcfg_cmd, svcfg_cmd_max> cmds;
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
int svcfg_add_link(const svcfg *cfg, svcfg_links &links, std::string_view name, const char *what);
