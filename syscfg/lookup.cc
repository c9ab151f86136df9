#include "syscfg/lookup.h"

#include "app/log.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <utility>

namespace {

constexpr char log_module[] = "syscfg";

void free_names(char **names)
{
    for (char **name = names; name && *name; ++name)
        free(*name);
    free(names);
}

// Makes room for capacity entries, or frees the table and returns false.
bool resize_table(var_entry *&table, int capacity)
{
    const auto entries = static_cast<size_t>(std::max(capacity, 1));
    auto *resized = static_cast<var_entry *>(reallocarray(table, entries, sizeof(var_entry)));
    if (!resized)
        free(table);
    table = resized;
    return resized != nullptr;
}

void sort_table(var_entry *table, int count)
{
    std::sort(table, table + count, [](const var_entry &a, const var_entry &b) { return a.hash < b.hash; });
}

// Compares hashes only: a definition must not declare two names that share one.
syscfg_var *find_in_table(const var_entry *table, int count, std::string_view name)
{
    if (!table)
        return nullptr;
    const uint32_t hash = syscfg_hash(name);
    const var_entry *end = table + count;
    const var_entry *at = std::lower_bound(
        table, end, hash, [](const var_entry &entry, uint32_t wanted) { return entry.hash < wanted; });
    return at != end && at->hash == hash ? at->record : nullptr;
}

// The slot of the variable of that name, or the empty one where it belongs.
syscfg_var **find_slot(const syscfg *db, std::string_view name)
{
    constexpr uint32_t golden_ratio = 0x9E3779B9; // the low bits of the hash hardly differ
    uint32_t at = syscfg_hash(name) * golden_ratio >> 16;
    for (;; ++at) {
        syscfg_var **slot = &db->index[at & (db->index_size - 1)];
        if (!*slot || name == (*slot)->name)
            return slot;
    }
}

void drop_index(syscfg *db)
{
    free(std::exchange(db->index, nullptr));
}

// Makes room for one more variable. Without memory there is no index, and names are looked up in the list.
void grow_index(syscfg *db)
{
    constexpr uint32_t first_size = 64;
    const auto count = static_cast<uint32_t>(db->count);
    if (db->index && count < db->index_size / 2)
        return;
    drop_index(db);
    db->index_size = std::bit_ceil(2 * count + first_size);
    db->index = static_cast<syscfg_var **>(calloc(db->index_size, sizeof(void *)));
    if (!db->index)
        return log_syserror(LOG_AS("add_var"));
    for (syscfg_var *var = db->vars; var; var = var->next)
        *find_slot(db, var->name) = var;
}

syscfg_var *find_by_name(const syscfg *db, std::string_view name)
{
    if (db->index)
        return *find_slot(db, name);
    syscfg_var *var = db->vars;
    while (var && name != var->name)
        var = var->next;
    return var;
}

syscfg_var *find_declared(const syscfg *db, std::string_view name)
{
    if (!db->var_tbl)
        return find_by_name(db, name);
    return find_in_table(db->var_tbl, db->count, name);
}

void add_alias(syscfg *db, syscfg_var *alias)
{
    for (char **name = alias->list; *name; ++name)
        ++db->alias_count;
    alias->next = db->aliases;
    db->aliases = alias;
}

} // namespace

void drop_value(syscfg_var *var)
{
    if (var->type != VAR_CHOICE && var->type != VAR_ALIAS)
        free(var->value);
    var->value = nullptr;
}

void var_deleter::operator()(syscfg_var *var) const
{
    drop_value(var);
    if (var->type == VAR_CHOICE || var->type == VAR_ALIAS)
        free_names(var->list);
    else
        free(var->pattern);
    free(var->name);
    free(var);
}

void add_var(syscfg *db, unique_var var)
{
    if (var->type == VAR_ALIAS)
        return add_alias(db, var.release());
    if (var->size != 0)
        var->value = static_cast<char *>(calloc(1, string_field(var.get())));
    if (syscfg_var *old = find_by_name(db, var->name)) {
        std::swap(var->next, old->next);
        std::swap(*var, *old);
        return;
    }
    grow_index(db);
    if (db->index)
        *find_slot(db, var->name) = var.get();
    var->next = db->vars;
    db->vars = var.release();
    ++db->count;
}

uint32_t syscfg_hash(std::string_view name)
{
    uint32_t hash = 0;
    for (const char c : name) {
        const int s = static_cast<signed char>(c);
        hash = (hash + static_cast<uint32_t>(s >> 4) + static_cast<uint32_t>(s * 16)) * 11;
    }
    return hash;
}

void build_var_tbl(syscfg *db)
{
    drop_index(db);
    if (!resize_table(db->var_tbl, db->count))
        return log_syserror(LOG_HERE);
    int filled = 0;
    for (syscfg_var *var = db->vars; var && filled < db->count; var = var->next)
        db->var_tbl[filled++] = {var->name, syscfg_hash(var->name), var};
    sort_table(db->var_tbl, filled);
}

void build_alias_tbl(syscfg *db)
{
    if (!resize_table(db->alias_tbl, db->alias_count))
        return log_syserror(LOG_HERE);
    int filled = 0;
    for (syscfg_var *alias = db->aliases; alias; alias = alias->next) {
        for (char **name = alias->list; *name && filled < db->alias_count; ++name)
            db->alias_tbl[filled++] = {*name, syscfg_hash(*name), alias};
    }
    sort_table(db->alias_tbl, filled);
}

const char *find_alias(const syscfg *db, std::string_view name)
{
    const syscfg_var *alias = find_in_table(db->alias_tbl, db->alias_count, name);
    return alias ? alias->name : nullptr;
}

syscfg_var *find_var(const syscfg *db, std::string_view name)
{
    if (syscfg_var *var = find_declared(db, name))
        return var;
    const char *declared = find_alias(db, name);
    if (!declared)
        return nullptr;
    syscfg_var *var = find_declared(db, declared);
    return var ? var : find_by_name(db, declared);
}
