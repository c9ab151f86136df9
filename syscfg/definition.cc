#include "syscfg/definition.h"

#include "app/file.h"
#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace {

constexpr char log_module[] = "syscfg";
constexpr size_t most_choices = 16;

// Far beyond any real definition; what they stop are includes that multiply.
constexpr int deepest_include = 16;
constexpr int most_files = 256;
constexpr int most_lines = 16384;

// A file being read and the one that includes it.
struct open_definition {
    dev_t device;
    ino_t inode;
    const open_definition *outer;
    int depth;
};

const open_definition *innermost;
int files_read;
int lines_read;

void free_names(char **names)
{
    for (char **name = names; name && *name; ++name)
        free(*name);
    free(names);
}

void free_var(syscfg_var *var)
{
    drop_value(var);
    if (var->type == VAR_CHOICE || var->type == VAR_ALIAS)
        free_names(var->list);
    else
        free(var->pattern);
    free(var->name);
    free(var);
}

// Options are separate words of two characters. Leaves text at the type's keyword.
uint16_t parse_options(std::string_view &text, const char *func)
{
    unsigned flags = 0;
    while (text.size() >= 2 && text[0] == '-') {
        const char option = text[1];
        if (option == 'n')
            flags |= VAR_NOSAVE;
        else if (option == 'r')
            flags |= VAR_NOSAVE | VAR_RDONLY;
        else
            log_trace(LOG_AS(func), "unkown option: -%c", option);
        text = skip_space(text.substr(2));
    }
    return static_cast<uint16_t>(flags);
}

bool has_keyword(std::string_view text, std::string_view keyword)
{
    return text.size() >= keyword.size() && strncasecmp(text.data(), keyword.data(), keyword.size()) == 0;
}

// Adds what line declares. On failure line is left as far as it was understood, for the caller's message.
int parse_var_spec(syscfg *db, std::string_view &line)
{
    const std::string_view name = span_of(line, is_name_char);
    if (name.size() == line.size() || !is_space(line[name.size()])) {
        log_trace(LOG_HERE, "space after name needed");
        return -1;
    }
    std::string_view rest = skip_space(line.substr(name.size() + 1));
    line = name;
    const uint16_t flags = parse_options(rest, __func__);
    const auto *type = std::find_if(var_types.begin(), var_types.end(),
                                    [rest](const var_type &t) { return has_keyword(rest, t.keyword); });
    if (type == var_types.end()) {
        const std::string_view shown = trim_end(rest);
        log_trace(LOG_HERE, "invalid type: %.*s", printed(shown), shown.data());
        return -1;
    }
    auto *var = new_record<syscfg_var>();
    if (var)
        var->name = new_text(name);
    if (!var || !var->name) {
        free(var);
        log_trace(LOG_HERE, "not enougth memory");
        return -1;
    }
    var->flags = flags;
    var->type = static_cast<uint16_t>(type - var_types.begin());
    if (type->parse_spec && type->parse_spec(var, rest.substr(type->keyword.size())) < 0) {
        free_var(var);
        return -1;
    }
    add_var(db, var);
    return 0;
}

void include_file(syscfg *db, std::string_view rest, char *line_buffer, size_t buffer_size)
{
    // The path lies in the line buffer, which the included file's lines will take.
    const unique_text path(new_text(trim_end(skip_space(rest))));
    if (path)
        parse_definition(db, path.get(), line_buffer, buffer_size);
    else
        log_failed(LOG_AS("parse_definition"));
}

// What is wrong with reading this file now, or null.
const char *include_fault(const struct stat &status)
{
    for (const open_definition *file = innermost; file; file = file->outer) {
        if (file->device == status.st_dev && file->inode == status.st_ino)
            return "includes itself";
    }
    if (innermost && innermost->depth >= deepest_include)
        return "nested too deep";
    if (files_read >= most_files)
        return "too many files";
    return nullptr;
}

void parse_lines(syscfg *db, FILE *file, const char *func, char *line_buffer, size_t buffer_size)
{
    while (fgets(line_buffer, static_cast<int>(buffer_size), file)) {
        if (++lines_read > most_lines) {
            log_trace(LOG_AS(func), "too many lines, the rest is ignored");
            return;
        }
        std::string_view line = line_buffer;
        const std::string_view text = skip_space(line);
        if (text.empty() || text.front() == '#')
            continue;
        if (text.front() == '%') {
            if (text.substr(1).starts_with("include"))
                include_file(db, text.substr(sizeof "%include" - 1), line_buffer, buffer_size);
            continue;
        }
        if (parse_var_spec(db, line) < 0) {
            const std::string_view shown = trim_end(line);
            log_trace(LOG_AS(func), "invalid line: %.*s", printed(shown), shown.data());
        }
    }
}

// A table of capacity entries in the place of the old one, or null, logged under the caller's name.
var_entry *resize_table(var_entry *table, int capacity, const char *func)
{
    const auto entries = static_cast<size_t>(std::max(capacity, 1));
    auto *resized = static_cast<var_entry *>(reallocarray(table, entries, sizeof(var_entry)));
    if (!resized) {
        log_syserror(LOG_AS(func));
        free(table);
    }
    return resized;
}

void sort_table(var_entry *table, int count)
{
    std::sort(table, table + count, [](const var_entry &a, const var_entry &b) { return a.hash < b.hash; });
}

// By hash alone: the definition's author sees to it that two names do not share one.
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

syscfg_var *find_in_list(const syscfg *db, std::string_view name)
{
    for (syscfg_var *var = db->vars; var; var = var->next) {
        if (name == var->name)
            return var;
    }
    return nullptr;
}

syscfg_var *find_declared(const syscfg *db, std::string_view name)
{
    if (!db->var_tbl)
        return find_in_list(db, name);
    return find_in_table(db->var_tbl, db->count, name);
}

} // namespace

int parse_definition(syscfg *db, const char *path, char *line_buffer, size_t buffer_size)
{
    if (!innermost)
        files_read = lines_read = 0;
    const unique_file file = open_regular_file(path);
    struct stat status;
    if (!file || fstat(fileno(file.get()), &status) < 0) {
        log_trace(LOG_HERE, "cannot open: %s", path);
        return -1;
    }
    if (const char *fault = include_fault(status)) {
        log_trace(LOG_HERE, "not included, %s: %s", fault, path);
        return -1;
    }
    ++files_read;
    const open_definition here = {status.st_dev, status.st_ino, innermost,
                                  innermost ? innermost->depth + 1 : 1};
    innermost = &here;
    parse_lines(db, file.get(), __func__, line_buffer, buffer_size);
    innermost = here.outer;
    return 0;
}

int parse_string_spec(syscfg_var *var, std::string_view text)
{
    if (text.starts_with('(')) {
        const size_t end = text.find(')');
        if (end == text.npos) {
            log_trace(LOG_HERE, "missing ')' in size spec");
            return -1;
        }
        // The text is part of a terminated line.
        const long long size = strtoll(text.data() + 1, nullptr, 10);
        if (size < 0 || size > INT32_MAX) {
            log_trace(LOG_HERE, "size out of range: %lld", size);
            return -1;
        }
        var->size = static_cast<int32_t>(size);
        text.remove_prefix(end + 1);
    }
    text = trim_end(skip_space(text));
    if (!text.empty())
        var->pattern = new_text(text);
    return text.empty() || var->pattern ? 0 : -1;
}

int parse_choice_spec(syscfg_var *var, std::string_view text)
{
    std::array<std::string_view, most_choices> names;
    size_t count = 0;
    for (;;) {
        while (!text.empty() && (is_space(text.front()) || text.front() == ','))
            text.remove_prefix(1);
        if (text.empty())
            break;
        if (count == names.size()) {
            log_trace(LOG_HERE, "too many choice");
            return -1;
        }
        // Whatever ends a name is its separator, and gone with it.
        const std::string_view name = span_of(text, is_name_char);
        names[count++] = name;
        text.remove_prefix(std::min(name.size() + 1, text.size()));
    }
    if (count == 0) {
        log_trace(LOG_HERE, "empty choice list");
        return -1;
    }
    var->list = static_cast<char **>(calloc(count + 1, sizeof(char *)));
    if (!var->list)
        return -1;
    for (size_t i = 0; i < count; ++i) {
        var->list[i] = new_text(names[i]);
        if (!var->list[i])
            return -1;
    }
    var->value = var->list[0];
    return 0;
}

void add_var(syscfg *db, syscfg_var *var)
{
    if (var->type == VAR_ALIAS) {
        for (char **name = var->list; *name; ++name)
            ++db->alias_count;
        var->next = db->aliases;
        db->aliases = var;
        return;
    }
    if (var->size != 0)
        var->value = static_cast<char *>(calloc(1, string_field(var)));
    for (syscfg_var **at = &db->vars; *at; at = &(*at)->next) {
        syscfg_var *old = *at;
        if (strcmp(old->name, var->name) == 0) {
            var->next = old->next;
            *at = var;
            free_var(old);
            return;
        }
    }
    var->next = db->vars;
    db->vars = var;
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
    db->var_tbl = resize_table(db->var_tbl, db->count, __func__);
    if (!db->var_tbl)
        return;
    int filled = 0;
    for (syscfg_var *var = db->vars; var && filled < db->count; var = var->next)
        db->var_tbl[filled++] = {var->name, syscfg_hash(var->name), var};
    sort_table(db->var_tbl, filled);
}

void build_alias_tbl(syscfg *db)
{
    db->alias_tbl = resize_table(db->alias_tbl, db->alias_count, __func__);
    if (!db->alias_tbl)
        return;
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
    return var ? var : find_in_list(db, declared);
}
