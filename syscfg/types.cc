#include "syscfg/types.h"

#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"
#include "syscfg/format.h"
#include "syscfg/lookup.h"

#include <arpa/inet.h>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex.h>
#include <strings.h>

namespace {

constexpr char log_module[] = "syscfg";
constexpr size_t max_choices = 16;
constexpr size_t integer_field = 20;
constexpr size_t bool_field = 2;
constexpr size_t ip_field = 16;
constexpr size_t mac_field = 18;
constexpr size_t mac_octets = 6;

void mark_changed(syscfg_var *var)
{
    var->flags |= VAR_CHANGED;
}

int clear_value(syscfg_var *var)
{
    if (var->value) {
        drop_value(var);
        mark_changed(var);
    }
    return 0;
}

int mark_if_stored(syscfg_var *var, int stored)
{
    if (stored == 0)
        mark_changed(var);
    return stored;
}

// Stores text in a field of that size, which all values of the type have. 0 or -12.
int store_in_field(syscfg_var *var, size_t field, std::string_view text)
{
    if (!var->value)
        var->value = static_cast<char *>(calloc(1, field));
    if (!var->value)
        return value_no_memory;
    copy_text({var->value, field}, text);
    return 0;
}

// Stores exactly text. 0 or -12.
int store_exactly(syscfg_var *var, std::string_view text)
{
    auto *resized = static_cast<char *>(realloc(var->value, text.size() + 1));
    if (!resized)
        return value_no_memory;
    var->value = resized;
    copy_text({resized, text.size() + 1}, text);
    return 0;
}

struct compiled_pattern {
    unique_text text;
    regex_t regex;
    bool is_compiled;
    int uses;

    ~compiled_pattern()
    {
        if (is_compiled)
            regfree(&regex);
    }
};

// Compiling takes longer than matching, and neighbours in a file often share a pattern.
compiled_pattern *last_pattern;

// Null if the pattern does not compile. The C library remembers states of the text it has matched, so that a
// compiled pattern grows with use and is thrown away after a while.
const regex_t *compile(const char *pattern)
{
    constexpr int max_uses = 100;
    if (last_pattern && last_pattern->uses++ < max_uses && strcmp(last_pattern->text.get(), pattern) == 0)
        return &last_pattern->regex;
    unique_record<compiled_pattern> compiled(new_record<compiled_pattern>());
    free_record(std::exchange(last_pattern, nullptr));
    if (!compiled)
        return nullptr;
    compiled->text.reset(new_text(pattern));
    compiled->is_compiled = regcomp(&compiled->regex, pattern, 0) == 0;
    if (!compiled->text || !compiled->is_compiled)
        return nullptr;
    last_pattern = compiled.release();
    return &last_pattern->regex;
}

int check_pattern(const char *pattern, const char *text)
{
    const regex_t *regex = compile(pattern);
    if (!regex)
        return -1;
    regmatch_t match;
    const bool matches_all =
        regexec(regex, text, 1, &match, 0) == 0 && match.rm_so == 0 && text[match.rm_eo] == '\0';
    return matches_all ? 0 : value_refused;
}

int set_string(const syscfg *, syscfg_var *var, const char *text)
{
    const std::string_view value = text;
    if (value.empty()) {
        if (var->value)
            log_trace(LOG_HERE, "%s=%s", var->name, var->value);
        return clear_value(var);
    }
    if (var->size != 0 && value.size() > static_cast<size_t>(var->size))
        return value_refused;
    if (var->value && value == var->value)
        return 0;
    if (var->pattern) {
        const int checked = check_pattern(var->pattern, text);
        if (checked != 0)
            return checked;
    }
    const int stored =
        var->size != 0 ? store_in_field(var, string_field(var), value) : store_exactly(var, value);
    return mark_if_stored(var, stored);
}

// Newer C libraries read "0b11". We do not: flash must mean the same after an update.
bool is_binary(const char *text)
{
    const std::string_view digits = skip_space(text);
    const bool has_sign = digits.starts_with('-') || digits.starts_with('+');
    return strncasecmp(digits.data() + (has_sign ? 1 : 0), "0b", 2) == 0;
}

bool parse_integer(const char *text, long &number)
{
    if (is_binary(text))
        return false;
    char *end;
    number = strtol(text, &end, 0);
    return end != text && *end == '\0';
}

int set_integer(const syscfg *, syscfg_var *var, const char *text)
{
    if (*text == '\0')
        return clear_value(var);
    long number;
    if (strlen(text) >= integer_field || !parse_integer(text, number))
        return value_refused;
    bool changed = true;
    if (var->value) {
        long old = 0;
        parse_integer(var->value, old);
        // Numbers beyond a long read as its limit, on the board from 0x80000000 on.
        const bool is_limit = number == LONG_MAX || number == LONG_MIN;
        changed = old != number || (is_limit && strcmp(var->value, text) != 0);
        log_trace(LOG_HERE, "old=%ld l=%ld", old, number);
    }
    const int stored = store_in_field(var, integer_field, text);
    return changed ? mark_if_stored(var, stored) : stored;
}

// '0' or '1', or 0 if text is neither.
char parse_bool(const char *text)
{
    if (*text == '0' || *text == '1')
        return *text;
    if (strcasecmp(text, "true") == 0)
        return '1';
    return strcasecmp(text, "false") == 0 ? '0' : '\0';
}

int set_bool(const syscfg *, syscfg_var *var, const char *text)
{
    const char value = parse_bool(text);
    if (value == '\0')
        return value_refused;
    if (var->value && *var->value == value)
        return 0;
    return mark_if_stored(var, store_in_field(var, bool_field, {&value, 1}));
}

char *find_choice(const syscfg_var *var, const char *text)
{
    for (char **name = var->list; *name; ++name) {
        if (strcasecmp(*name, text) == 0)
            return *name;
    }
    return nullptr;
}

int set_choice(const syscfg *db, syscfg_var *var, const char *text)
{
    if (!var->list || *text == '\0')
        return value_refused;
    char *chosen = find_choice(var, text);
    if (!chosen) {
        const char *alias = find_alias(db, text);
        chosen = alias ? find_choice(var, alias) : nullptr;
    }
    if (!chosen)
        return value_refused;
    if (var->value != chosen) {
        var->value = chosen;
        mark_changed(var);
    }
    return 0;
}

int set_ip(const syscfg *, syscfg_var *var, const char *text)
{
    if (*text == '\0')
        return clear_value(var);
    in_addr address;
    in_addr old;
    if (!inet_aton(text, &address))
        return value_refused;
    if (var->value && inet_aton(var->value, &old) && old.s_addr == address.s_addr)
        return 0;
    char dotted[ip_field];
    if (!inet_ntop(AF_INET, &address, dotted, sizeof dotted))
        return value_refused;
    return mark_if_stored(var, store_in_field(var, ip_field, dotted));
}

constexpr char upper_digit(char c)
{
    return c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c;
}

constexpr bool is_hex_digit(char c)
{
    c = upper_digit(c);
    return is_digit(c) || (c >= 'A' && c <= 'F');
}

// Six octets of two digits each, one character of any other kind allowed after each.
bool normalise_mac(std::string_view text, char (&out)[mac_field])
{
    size_t length = 0;
    for (size_t octet = 0; octet < mac_octets; ++octet) {
        if (text.size() < 2 || !is_hex_digit(text[0]) || !is_hex_digit(text[1]))
            return false;
        out[length++] = upper_digit(text[0]);
        out[length++] = upper_digit(text[1]);
        out[length++] = ':';
        text.remove_prefix(2);
        if (!text.empty() && !is_hex_digit(text.front()))
            text.remove_prefix(1);
    }
    out[length - 1] = '\0';
    return true;
}

int set_mac(const syscfg *, syscfg_var *var, const char *text)
{
    if (*text == '\0')
        return clear_value(var);
    char mac[mac_field];
    if (!normalise_mac(text, mac))
        return value_refused;
    if (var->value && strcmp(var->value, mac) == 0)
        return 0;
    return mark_if_stored(var, store_in_field(var, mac_field, mac));
}

int set_sn(const syscfg *, syscfg_var *var, const char *text)
{
    const unique_text stripped(new_text(text));
    if (!stripped)
        return value_no_memory;
    char *end = std::remove_if(stripped.get(), stripped.get() + strlen(stripped.get()), is_space);
    return mark_if_stored(var,
                          store_exactly(var, {stripped.get(), static_cast<size_t>(end - stripped.get())}));
}

int parse_string_spec(syscfg_var *var, std::string_view text)
{
    if (text.starts_with('(')) {
        const size_t end = text.find(')');
        if (end == text.npos) {
            log_trace(LOG_HERE, "missing ')' in size spec");
            return -1;
        }
        // text is part of a terminated line.
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
    std::array<std::string_view, max_choices> names;
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
        // Any character ends a name, and is skipped.
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

int accept_any_spec(syscfg_var *, std::string_view)
{
    return 0;
}

} // namespace

constexpr std::array<var_type, VAR_TYPES> var_types = {{
    {"alias", parse_choice_spec, nullptr, nullptr},
    {"string", parse_string_spec, set_string, get_string},
    {"integer", accept_any_spec, set_integer, get_integer},
    {"bool", nullptr, set_bool, get_bool},
    {"choice", parse_choice_spec, set_choice, nullptr},
    {"ip", nullptr, set_ip, nullptr},
    {"mac", nullptr, set_mac, get_mac},
    {"domain", nullptr, set_string, nullptr},
    {"url", nullptr, set_string, nullptr},
    {"sn", nullptr, set_sn, nullptr},
}};

// A keyword that begins with an earlier one would never be found.
static_assert([] {
    for (size_t i = 0; i < var_types.size(); ++i) {
        for (size_t earlier = 0; earlier < i; ++earlier) {
            if (var_types[i].keyword.starts_with(var_types[earlier].keyword))
                return false;
        }
    }
    return var_types[VAR_ALIAS].keyword == "alias" && var_types[VAR_CHOICE].keyword == "choice" &&
           var_types[VAR_SN].keyword == "sn";
}());

const char *get_value(const syscfg *db, std::string_view name, const char *option, std::span<char> buffer)
{
    const syscfg_var *var = find_var(db, name);
    if (!var)
        return nullptr;
    const auto get = var_types[var->type].get;
    return get && option && var->value ? get(var, option, buffer) : var->text();
}
