#include "app/app_options.h"

#include "app/file.h"
#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <strings.h>

namespace {

constexpr char log_module[] = "app";
constexpr size_t line_max = 1022;
constexpr size_t path_size = 128;
constexpr size_t list_growth = 4;
constexpr size_t longest_listed_int = 19;
constexpr int failure = -1;

app_optrec *records;

int32_t base_type(int32_t type)
{
    return type & ~APP_OPT_LIST;
}
bool is_list(int32_t type)
{
    return (type & APP_OPT_LIST) != 0;
}
bool is_flag(int32_t type)
{
    return base_type(type) == APP_OPT_FLAG;
}
bool has_list(const app_optrec &record)
{
    return is_list(record.type) && !is_flag(record.type);
}

bool same_name(const char *a, const char *b)
{
    return a == b || (a && b && strcmp(a, b) == 0);
}

app_optrec *find_record(const char *name)
{
    app_optrec *record = records;
    while (record && !same_name(record->name, name))
        record = record->next;
    return record;
}

app_optrec *record_of(const app_option &entry)
{
    if (app_optrec *existing = find_record(entry.name))
        return existing;
    unique_text name(entry.name ? new_text(entry.name) : nullptr);
    auto *record = new_record<app_optrec>();
    if (!record || (entry.name && !name)) {
        free(record);
        return nullptr;
    }
    record->name = name.release();
    record->type = entry.type;
    record->next = records;
    records = record;
    return record;
}

// ---- values -------------------------------------------------------------------------------------------

std::optional<int> whole_int(const char *text)
{
    char *end;
    errno = 0;
    const long value = strtol(text, &end, 0);
    if (end == text || *end != '\0' || errno != 0 || value < INT_MIN || value > INT_MAX)
        return {};
    return static_cast<int>(value);
}

int set_text(app_optrec &record, std::string_view value)
{
    char *copy = new_text(value);
    if (!copy)
        return -1;
    free(record.text);
    record.text = copy;
    return 0;
}

// Makes room for one item behind count others, and one word more, growing the array a few items at a time.
template <typename Item>
bool make_room(Item *&items, size_t count)
{
    if (items && count % list_growth != 0)
        return true;
    void *larger = reallocarray(items, count + list_growth + 1, sizeof(Item));
    if (larger)
        items = static_cast<Item *>(larger);
    return larger != nullptr;
}

size_t list_length(const app_optrec &record)
{
    size_t length = 0;
    while (record.list && record.list[length])
        ++length;
    return length;
}

int append_text(app_optrec &record, std::string_view value)
{
    const size_t length = list_length(record);
    unique_text copy(new_text(value));
    if (!copy || !make_room(record.list, length))
        return -1;
    record.list[length] = copy.release();
    record.list[length + 1] = nullptr;
    return 0;
}

int set_flag(const app_option &entry)
{
    app_optrec *record = record_of(entry);
    return record ? set_text(*record, "") : -1;
}

int count_flag(const app_option &entry)
{
    app_optrec *record = record_of(entry);
    if (record && !record->parsed)
        record->parsed = new_record<int>();
    if (!record || !record->parsed)
        return -1;
    ++*static_cast<int *>(record->parsed);
    return 0;
}

int set_string(const app_option &entry, const char *value)
{
    app_optrec *record = record_of(entry);
    return record ? set_text(*record, value) : -1;
}

int set_int(const app_option &entry, const char *value)
{
    const auto number = whole_int(value);
    app_optrec *record = number ? record_of(entry) : nullptr;
    if (record && !record->parsed)
        record->parsed = new_record<int>();
    if (!record || !record->parsed || set_text(*record, value) < 0)
        return -1;
    *static_cast<int *>(record->parsed) = *number;
    return 0;
}

int append_string(const app_option &entry, std::string_view piece)
{
    app_optrec *record = record_of(entry);
    if (!record || append_text(*record, piece) < 0)
        return -1;
    record->parsed = record->list;
    return 0;
}

int append_int(const app_option &entry, std::string_view piece)
{
    char text[longest_listed_int + 1];
    const auto number = copy_text(text, trim_end(skip_space(piece))) ? whole_int(text) : std::nullopt;
    app_optrec *record = number ? record_of(entry) : nullptr;
    if (!record)
        return -1;
    const size_t length = list_length(*record);
    auto *numbers = static_cast<int *>(record->parsed);
    if (!make_room(numbers, length))
        return -1;
    record->parsed = numbers;
    numbers[0] = static_cast<int>(length);
    if (append_text(*record, text) < 0)
        return -1;
    numbers[++numbers[0]] = *number;
    return 0;
}

template <int append(const app_option &, std::string_view)>
int set_list(const app_option &entry, const char *value)
{
    std::string_view rest = value;
    for (bool more = true; more;) {
        more = rest.find(',') != rest.npos;
        if (append(entry, cut_until(rest, ',')) < 0)
            return -1;
    }
    return 0;
}

// ---- the command line ---------------------------------------------------------------------------------

const app_option *find_long(const app_option *options, std::string_view name)
{
    while (options->name && name != options->name)
        ++options;
    return options->name ? options : nullptr;
}

const app_option *find_short(const app_option *options, char name)
{
    while (options->name && options->short_name != name)
        ++options;
    return options->name ? options : nullptr;
}

// The arguments still to parse; an option may take the next one as its value.
struct arguments {
    const app_option *options;
    std::span<char *> rest;

    [[nodiscard]] const char *next() const { return rest.empty() ? nullptr : rest.front(); }
    const char *take();
    void positional(const char *argument) const;
    bool long_option(const char *argument);
    bool short_options(const char *letters);
    void short_value(const app_option &entry, bool is_last);
};

const char *arguments::take()
{
    const char *argument = next();
    rest = rest.subspan(argument ? 1 : 0);
    return argument;
}

void arguments::positional(const char *argument) const
{
    const app_option *last = options;
    while (last->name)
        ++last;
    if (last->type == APP_OPT_FLAG)
        print_error("Warning: no argument needed!\n");
    app_opt_set(last, argument);
}

bool is_option(const char *argument)
{
    return argument[0] == '-' && argument[1] != '\0';
}

// False if there is no such option.
bool arguments::long_option(const char *argument)
{
    const std::string_view text = argument + 2;
    const size_t name_length = std::min(text.find('='), text.size());
    const app_option *entry = find_long(options, text.substr(0, name_length));
    if (!entry)
        return false;
    const char *value = name_length < text.size() ? text.data() + name_length + 1 : nullptr;
    if (is_flag(entry->type)) {
        if (value)
            print_error("Warning: option \"--%s\" should not have an argument\n", entry->name);
    } else if (!value) {
        value = next() && !is_option(next()) ? take() : nullptr;
        if (!value) {
            print_error("option \"%s\" require an argument\n", argument);
            exit(failure);
        }
    }
    if (app_opt_set(entry, value) < 0)
        exit(failure);
    return true;
}

void arguments::short_value(const app_option &entry, bool is_last)
{
    const char *value = is_last ? take() : nullptr;
    if (!value) {
        print_error("option \"-%c\" require an argument\n", entry.short_name);
        exit(failure);
    }
    app_opt_set(&entry, value);
}

// False if a letter is unknown.
bool arguments::short_options(const char *letters)
{
    for (; *letters; ++letters) {
        const app_option *entry = find_short(options, *letters);
        if (!entry)
            return false;
        if (!is_flag(entry->type))
            short_value(*entry, letters[1] == '\0');
        else if (app_opt_set(entry, nullptr) < 0)
            exit(failure);
    }
    return true;
}

// ---- configuration files ------------------------------------------------------------------------------

// Stores what fits of the next line, without its end; returns its full length, or -1 at the end of the file.
ssize_t read_line(FILE *file, std::span<char> line)
{
    size_t length = 0;
    int c;
    for (; (c = getc(file)) != EOF && c != '\n'; ++length) {
        if (length < line.size() - 1)
            line[length] = static_cast<char>(c);
    }
    line[std::min(length, line.size() - 1)] = '\0';
    return c == EOF && length == 0 ? -1 : static_cast<ssize_t>(length);
}

bool is_comment(std::string_view line)
{
    return skip_space(line).starts_with('#');
}

// False if the line names no option.
bool take_line(const app_option *options, char *line)
{
    const std::string_view text = trim_end(skip_space(line));
    if (text.empty() || is_comment(text))
        return true;
    line[text.data() + text.size() - line] = '\0';
    const size_t equals = text.find('=');
    const app_option *entry = find_long(options, trim_end(text.substr(0, equals)));
    if (entry && !find_record(entry->name))
        app_opt_set(entry, equals == text.npos ? nullptr : text.data() + equals + 1);
    return entry != nullptr;
}

__attribute__((format(printf, 2, 3))) void load_default(const app_option *options, const char *format, ...)
{
    char path[path_size];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(path, sizeof path, format, args);
    va_end(args);
    const bool fits = length >= 0 && length < static_cast<int>(sizeof path);
    if (const unique_file file = fits ? open_regular_file(path) : nullptr)
        app_conf_load(options, file.get());
}

void free_record(app_optrec *record)
{
    if (has_list(*record)) {
        for (size_t i = list_length(*record); i > 0; --i)
            free(record->list[i - 1]);
        if (record->parsed == record->list)
            record->parsed = nullptr;
    }
    free(record->parsed);
    free(record->text);
    free(record->name);
    free(record);
}

} // namespace

int app_opt_set(const app_option *entry, const char *value)
{
    const bool listed = is_list(entry->type);
    if (is_flag(entry->type))
        return listed ? count_flag(*entry) : set_flag(*entry);
    if (!value)
        return -1;
    if (base_type(entry->type) == APP_OPT_INT)
        return listed ? set_list<append_int>(*entry, value) : set_int(*entry, value);
    return listed ? set_list<append_string>(*entry, value) : set_string(*entry, value);
}

const char *app_opt_get(const char *name, int flags, int index)
{
    const app_optrec *record = find_record(name);
    if (!record || !(flags & APP_OPT_ELEMENT))
        return record ? record->text : nullptr;
    if (!has_list(*record))
        return index == 0 ? record->text : nullptr;
    const bool present = index >= 0 && static_cast<size_t>(index) < list_length(*record);
    return present ? record->list[index] : nullptr;
}

const void *app_opt_value(const char *name)
{
    const app_optrec *record = find_record(name);
    return record ? record->parsed : nullptr;
}

int app_opt_isset(const char *name)
{
    const app_optrec *record = find_record(name);
    const char *text = record && !has_list(*record) ? record->text : nullptr;
    const bool set = text && (strcasecmp(text, "true") == 0 || strtol(text, nullptr, 0) != 0);
    const char *shown = name ? name : "";
    if (set)
        log_trace(LOG_HERE, "%s is set", shown);
    else
        log_trace(LOG_HERE, "%s not set", shown);
    return set;
}

void app_opt_parse(int argc, char **argv, const app_option *options)
{
    arguments left = {options, {argv, static_cast<size_t>(argc)}};
    left.take();
    while (const char *argument = left.take()) {
        const std::string_view text = argument;
        if (!is_option(argument)) {
            left.positional(argument);
        } else if (text == "--") {
            if (const char *next = left.take())
                left.positional(next);
        } else if (!(text.starts_with("--") ? left.long_option(argument)
                                            : left.short_options(argument + 1))) {
            return;
        }
    }
}

void app_conf_load(const app_option *options, FILE *file)
{
    char line[line_max + 1];
    for (int number = 1;; ++number) {
        const ssize_t length = read_line(file, line);
        if (length < 0)
            return;
        // An overlong line is rejected whole, never truncated; an overlong comment is fine.
        const bool fits = static_cast<size_t>(length) <= line_max;
        if (!(fits ? take_line(options, line) : is_comment(line)))
            print_error("invalid line %d\n", number);
    }
}

void app_conf_load_all(const app_option *options, const char *appname)
{
    for (const app_option *entry = options; entry->name; ++entry) {
        const char *path = entry->type == APP_OPT_CONFIG ? app_opt_get(entry->name, 0, 0) : nullptr;
        if (path) {
            // Not only a regular file: a file named by the user may be a pipe.
            if (const unique_file file{fopen(path, "re")})
                app_conf_load(options, file.get());
            return;
        }
    }
    if (const char *home = getenv("HOME"))
        load_default(options, "%s/.%src", home, appname);
    load_default(options, "/etc/%s.conf", appname);
}

void app_opt_env(const app_option *options)
{
    for (const app_option *entry = options; entry->name; ++entry) {
        const char *value = entry->env ? getenv(entry->env) : nullptr;
        if (value && !app_opt_get(entry->name, 0, 0))
            app_opt_set(entry, value);
    }
}

void app_opt_clear()
{
    while (app_optrec *record = records) {
        records = record->next;
        free_record(record);
    }
}
