#include "syscfg/definition.h"

#include "app/file.h"
#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"
#include "syscfg/lookup.h"
#include "syscfg/types.h"

#include <algorithm>
#include <cstring>
#include <strings.h>

namespace {

constexpr char log_module[] = "syscfg";

// Far beyond any real definition. They stop includes that multiply.
constexpr int max_include_depth = 16;
constexpr int max_files = 256;
constexpr int max_lines = 16384;

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

// Options are separate words of two characters. text then begins at the type's keyword.
uint16_t parse_options(std::string_view &text)
{
    unsigned flags = 0;
    while (text.size() >= 2 && text[0] == '-') {
        const char option = text[1];
        if (option == 'n')
            flags |= VAR_NOSAVE;
        else if (option == 'r')
            flags |= VAR_NOSAVE | VAR_RDONLY;
        else
            log_trace(LOG_AS("parse_var_spec"), "unkown option: -%c", option);
        text = skip_space(text.substr(2));
    }
    return static_cast<uint16_t>(flags);
}

bool has_keyword(std::string_view text, std::string_view keyword)
{
    return text.size() >= keyword.size() && strncasecmp(text.data(), keyword.data(), keyword.size()) == 0;
}

// Adds the variable or alias that line declares. On failure line is cut to the part to report.
int parse_var_spec(syscfg *db, std::string_view &line)
{
    const std::string_view name = span_of(line, is_name_char);
    if (name.size() == line.size() || !is_space(line[name.size()])) {
        log_trace(LOG_HERE, "space after name needed");
        return -1;
    }
    std::string_view rest = skip_space(line.substr(name.size() + 1));
    line = name;
    const uint16_t flags = parse_options(rest);
    const auto *type = std::find_if(var_types.begin(), var_types.end(),
                                    [rest](const var_type &t) { return has_keyword(rest, t.keyword); });
    if (type == var_types.end()) {
        const std::string_view shown = trim_end(rest);
        log_trace(LOG_HERE, "invalid type: %.*s", printed(shown), shown.data());
        return -1;
    }
    unique_var var(new_record<syscfg_var>());
    if (var)
        var->name = new_text(name);
    if (!var || !var->name) {
        log_trace(LOG_HERE, "not enougth memory");
        return -1;
    }
    var->flags = flags;
    var->type = static_cast<uint16_t>(type - var_types.begin());
    if (type->parse_spec && type->parse_spec(var.get(), rest.substr(type->keyword.size())) < 0)
        return -1;
    add_var(db, std::move(var));
    return 0;
}

void include_file(syscfg *db, std::string_view rest, char *line_buffer, size_t buffer_size)
{
    // The path lies in the line buffer, which the included file's lines overwrite.
    const unique_text path(new_text(trim_end(skip_space(rest))));
    if (path)
        parse_definition(db, path.get(), line_buffer, buffer_size);
    else
        log_failed(LOG_AS("parse_definition"));
}

// Why this file must not be read now, or null.
const char *include_fault(const struct stat &status)
{
    for (const open_definition *file = innermost; file; file = file->outer) {
        if (file->device == status.st_dev && file->inode == status.st_ino)
            return "includes itself";
    }
    if (innermost && innermost->depth >= max_include_depth)
        return "nested too deep";
    if (files_read >= max_files)
        return "too many files";
    return nullptr;
}

void parse_lines(syscfg *db, FILE *file, char *line_buffer, size_t buffer_size)
{
    constexpr char func[] = "parse_definition";
    while (fgets(line_buffer, static_cast<int>(buffer_size), file)) {
        if (++lines_read > max_lines) {
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
    parse_lines(db, file.get(), line_buffer, buffer_size);
    innermost = here.outer;
    return 0;
}
