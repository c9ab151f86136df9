#include "syscfg/store.h"

#include "app/file.h"
#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"
#include "syscfg/lookup.h"
#include "syscfg/registry.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <unistd.h>

char text_buffer[text_buffer_size + 1];

namespace {

constexpr char log_module[] = "syscfg";
constexpr char constant_file[] = "/usr/etc/syscfg.constant";
constexpr char default_file[] = "/usr/etc/syscfg.default";
constexpr char registry_name[] = "syscfg";
constexpr int max_applied = 1023;

// Reads at most size bytes from the start of a file. Bytes read, or -1.
int read_file(const char *path, char *buffer, int size)
{
    const unique_fd fd = open_regular(path);
    if (!fd)
        return -1;
    int total = 0;
    while (total < size) {
        const ssize_t got = read(fd.get(), buffer + total, static_cast<size_t>(size - total));
        if (got < 0)
            return -1;
        if (got == 0)
            break;
        total += static_cast<int>(got);
    }
    return total;
}

// Reads PATH, then as much of the vendor's PATH.VENID as fits. Bytes read; -1 if PATH cannot be read.
int read_with_vendor(const syscfg *db, const char *path, char *buffer, int size)
{
    const int base = read_file(path, buffer, size);
    const syscfg_var *vendor = find_var(db, "VENID");
    if (base < 0 || !vendor || !vendor->value || *vendor->value == '\0')
        return base;
    char vendor_path[PATH_MAX];
    const int length = snprintf(vendor_path, sizeof vendor_path, "%s.%s", path, vendor->value);
    if (length >= static_cast<int>(sizeof vendor_path))
        return base;
    const int added = read_file(vendor_path, buffer + base, size - base);
    return base + std::max(added, 0);
}

void add_loaded_var(syscfg *db, const char *name, const char *value, load_mode mode, uint16_t type)
{
    unique_var var(new_record<syscfg_var>());
    if (var) {
        var->type = type;
        var->flags = mode;
        var->name = new_text(name);
        var->value = new_text(value);
    }
    if (!var || !var->name || !var->value)
        return log_failed(LOG_AS("load_config"));
    log_trace(LOG_AS("load_config"), "add var: %s=\"%s\"", name, value);
    add_var(db, std::move(var));
}

void load_value(const syscfg *db, syscfg_var *var, const char *name, const char *value, load_mode mode)
{
    constexpr char func[] = "load_config";
    log_trace(LOG_AS(func), "var %s exist: value=%s flags=%x\n", var->name, var->text(), var->flags);
    if (var->read_only() && !(mode & LOAD_CONSTANTS)) {
        log_trace(LOG_AS(func), "cannot change existing var: %s=%s\n", var->name, var->text());
        return;
    }
    if (!var->value)
        var->flags |= mode;
    if (var_types[var->type].set(db, var, value) < 0)
        log_trace(LOG_AS(func), "%s: invalid value: %s", name, value);
    log_trace(LOG_AS(func), "set var: %s=\"%s\"", var->name, var->text());
}

void load_line(syscfg *db, std::string_view line, load_mode mode, uint16_t add_type)
{
    char name[max_var_name + 1];
    char value[max_var_value + 1];
    line = line.substr(0, line.find('\0'));
    if (parse_assignment(line, name, value) < 0) {
        print_error("invalid syscfg line: %.*s\n", static_cast<int>(line.size()), line.data());
        return;
    }
    if (syscfg_var *var = find_var(db, name))
        load_value(db, var, name, value, mode);
    else if (add_type != 0)
        add_loaded_var(db, name, value, mode, add_type);
    else
        print_error("no var definition for %s\n", name);
}

void load_constants(syscfg *db)
{
    const int length = read_with_vendor(db, constant_file, text_buffer, text_buffer_size);
    if (length > 0)
        load_config(db, text_buffer, length, LOAD_CONSTANTS, 0);
    else
        print_error("cannot open default syscfg\n");
}

int read_saved()
{
    return registry_read(registry_name, text_buffer, text_buffer_size);
}

// Prints name="value" lines into text_buffer. Returns their full length, even if the buffer cuts them.
size_t print_saved_text(const syscfg *db)
{
    size_t length = 0;
    for (const syscfg_var *var = db->vars; var; var = var->next) {
        if (!var->value || (var->flags & VAR_NOSAVE))
            continue;
        // Loading ends a value at a quote, and reads a new assignment after a line end.
        if (strpbrk(var->value, "\"\n")) {
            log_trace(LOG_AS("save_syscfg"), "cannot be saved: %s", var->name);
            continue;
        }
        const size_t used = std::min(length, sizeof text_buffer);
        length += static_cast<size_t>(
            snprintf(text_buffer + used, sizeof text_buffer - used, "%s=\"%s\"\n", var->name, var->value));
    }
    return length;
}

} // namespace

int parse_assignment(std::string_view line, std::span<char> name_out, std::span<char> value_out)
{
    std::string_view value = skip_space(line);
    if (value.find('=') == value.npos)
        return -1;
    const std::string_view name = trim_end(cut_until(value, '='));
    value = skip_space(value);
    if (value.starts_with('"')) {
        const size_t end = value.find('"', 1);
        if (end == value.npos)
            return -1;
        value = value.substr(1, end - 1);
    } else {
        value = trim_end(value);
    }
    return copy_text(name_out, name) && copy_text(value_out, value) ? 0 : -1;
}

int load_config(syscfg *db, char *text, int length, load_mode mode, uint16_t add_type)
{
    text[length] = '\0';
    std::string_view rest(text, static_cast<size_t>(length));
    while (rest.find('\n') != rest.npos)
        load_line(db, cut_until(rest, '\n'), mode, add_type);
    return 0;
}

int load_defaults(syscfg *db, char *buffer, int buffer_size)
{
    return read_with_vendor(db, default_file, buffer, buffer_size);
}

int load_syscfg(syscfg *db)
{
    load_constants(db);
    const int defaults = load_defaults(db, text_buffer, text_buffer_size);
    if (defaults > 0)
        load_config(db, text_buffer, defaults, LOAD_VALUES, 0);
    else
        print_error("cannot open default syscfg\n");

    int length = read_saved();
    if (length < 1) {
        print_error("failed to read syscfg, using default...\n");
        save_syscfg(db, false);
        length = read_saved();
        if (length < 1)
            return length;
    }
    load_config(db, text_buffer, length, LOAD_VALUES, 0);
    return length;
}

int save_syscfg(syscfg *db, bool apply)
{
    const size_t length = print_saved_text(db);
    // A text that was cut must not be saved, even if its blob has room: the registry refuses null.
    const char *text = length <= text_buffer_size ? text_buffer : nullptr;
    const int written = registry_write(registry_name, text, static_cast<int>(length));
    if (written < 0)
        print_error("failed to save syscfg\n");
    if (apply)
        apply_syscfg(db);
    return written;
}

int reset_syscfg(syscfg *db)
{
    const int length = load_defaults(db, text_buffer, text_buffer_size);
    if (length < 0 || (length > 0 && registry_write(registry_name, text_buffer, length) < 0))
        return -1;
    return load_syscfg(db);
}

int apply_syscfg(syscfg *db)
{
    const char *names[max_applied + 1];
    int count = 0;
    for (syscfg_var *var = db->vars; var && count < max_applied; var = var->next) {
        if (!var->changed())
            continue;
        log_trace(LOG_HERE, "flags=%x %s=%s", var->flags, var->name, var->text());
        names[count++] = var->name;
        var->flags &= static_cast<uint16_t>(~VAR_CHANGED);
    }
    names[count] = nullptr;
    report_changes(db, names, count);
    return 0;
}
