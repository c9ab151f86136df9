// The records of the configuration database.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

struct cfgdb;
struct syscfg;
struct syscfg_waiter;

// Longest name and value of an assignment, in a file or a request.
constexpr size_t max_var_name = 32;
constexpr size_t max_var_value = 4096;

// In the order in which keywords are tried; the values of syscfg_var::type.
enum var_type_index : uint16_t {
    VAR_ALIAS,
    VAR_STRING,
    VAR_INTEGER,
    VAR_BOOL,
    VAR_CHOICE,
    VAR_IP,
    VAR_MAC,
    VAR_DOMAIN,
    VAR_URL,
    VAR_SN,
    VAR_TYPES
};

enum var_flag : uint16_t { VAR_NOSAVE = 1, VAR_RDONLY = 2, VAR_CHANGED = 0x8000 };

struct syscfg_var {
    syscfg_var *next;
    uint16_t type;
    uint16_t flags;
    char *name;
    int32_t size; // of a string, in bytes at most; 0 = no limit
    union {
        char **list;   // choice, alias: owned names, ended by null
        char *pattern; // string: basic regular expression, or null
    };
    char *value; // null without one; of a choice an entry of list, else owned
    syscfg_waiter *waiters;

    [[nodiscard]] const char *text() const { return value ? value : ""; }
    [[nodiscard]] bool changed() const { return (flags & VAR_CHANGED) != 0; }
    [[nodiscard]] bool read_only() const { return (flags & VAR_RDONLY) != 0; }
};

// One name in a look-up table. The tables are sorted by hash.
struct var_entry {
    const char *name;
    uint32_t hash;
    syscfg_var *record;
};

// Receives the names of count changed variables; the database owns them.
using syscfg_change_listener = void (*)(cfgdb *listener, const char *const *names, int count);

struct syscfg_ops {
    int (*init)(syscfg *db);
    void (*release)(syscfg *db);
    const char *(*get)(syscfg *db, const char *name);
};

// The database. Variables and alias declarations are listed in reverse order of their first declaration.
struct syscfg {
    const syscfg_ops *ops;
    cfgdb *listener;
    int server_fd;
    int count;
    syscfg_var *vars;
    var_entry *var_tbl;
    int alias_count; // alternative names, over all alias declarations
    syscfg_var *aliases;
    var_entry *alias_tbl;
    syscfg_change_listener changed; // called with listener, unless null
    syscfg_var **index;             // by name, until var_tbl is built: a hash table of index_size slots
    uint32_t index_size;            // a power of two, at least twice count
};

inline void report_changes(const syscfg *db, const char *const *names, int count)
{
    if (db->changed)
        db->changed(db->listener, names, count);
}

// One type of variable; operations that a type lacks are null.
struct var_type {
    std::string_view keyword;

    // Reads the text after the keyword; negative for a bad line.
    int (*parse_spec)(syscfg_var *var, std::string_view text);

    // 0; or, with the value unchanged, -22 (refused), -12 (no memory), -1 (the pattern does not compile).
    int (*set)(const syscfg *db, syscfg_var *var, const char *text);

    // The value, formatted into buffer if the option asks for it. See format.h.
    const char *(*get)(const syscfg_var *var, const char *option, std::span<char> buffer);
};

extern const std::array<var_type, VAR_TYPES> var_types;

// Bytes that hold any value of a string with a size; no value is longer than max_var_value.
inline size_t string_field(const syscfg_var *var)
{
    return std::min(static_cast<size_t>(var->size), max_var_value) + 1;
}
