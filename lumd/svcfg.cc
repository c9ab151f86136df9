#include "lumd/svcfg.h"

#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"

#include <algorithm>

namespace {

constexpr char log_module[] = "svcfg";

// For %.*s.
int printed(std::string_view text)
{
    return static_cast<int>(text.size());
}

std::string_view after_keyword(std::string_view line, std::string_view keyword)
{
    return skip_space(line.substr(std::min(keyword.size(), line.size())));
}

// A word ends at a space, not at a tab; white space after that space belongs to neither word.
std::string_view take_word(std::string_view &rest)
{
    const std::string_view word = cut_until(rest, ' ');
    rest = skip_space(rest);
    return word;
}

// A word in double quotes, which stay part of it; empty when the closing one is missing.
std::string_view take_quoted_word(std::string_view &rest)
{
    const size_t end = rest.find('"', 1);
    if (end == rest.npos)
        return {};
    const std::string_view word = rest.substr(0, end + 1);
    rest = skip_space(rest.substr(end + 1));
    return word;
}

void log_refused(const char *func, const svcfg *cfg, const char *what, std::string_view word)
{
    log_trace(LOG_AS(func), "service %s: too many %s, refused: %.*s", cfg->proc, what, printed(word),
              word.data());
}

// A line that is given again takes the place of the earlier one.
void clear_words(std::span<char *> list)
{
    for (char *&word : list) {
        free(word);
        word = nullptr;
    }
}

void clear_depends(svcfg *cfg)
{
    for (svcfg_condition &condition : cfg->dsyscfg) {
        free(condition.name);
        free(condition.value);
        condition = {};
    }
    for (svcfg_link &link : cfg->depend) {
        free(link.name);
        link = {};
    }
}

// Stores a copy of word at the first free place of a list whose last place stays null. -1 when memory is out.
int append_word(const char *func, const svcfg *cfg, std::span<char *> list, const char *what,
                std::string_view word)
{
    const auto place = std::find(list.begin(), list.end() - 1, nullptr);
    if (place == list.end() - 1) {
        log_refused(func, cfg, what, word);
        return 0;
    }
    *place = new_text(word);
    return *place ? 0 : -1;
}

// The next word, quoted or plain. A quote that is not closed is logged, and its word taken as a plain one.
struct parsed_word {
    std::string_view text;
    bool quoted;
    bool unclosed;
};

parsed_word take_any_word(const char *func, std::string_view &rest)
{
    if (rest.front() != '"')
        return {take_word(rest), false, false};
    const std::string_view quoted = take_quoted_word(rest);
    if (!quoted.empty())
        return {quoted, true, false};
    log_trace(LOG_AS(func), "Missed matched '\"'!\n");
    return {take_word(rest), true, true};
}

int append_condition(svcfg *cfg, std::string_view word)
{
    svcfg_condition *const end = cfg->dsyscfg + svcfg_condition_max;
    svcfg_condition *place = std::find_if(cfg->dsyscfg, end, [](const auto &c) { return !c.name; });
    if (place == end) {
        log_refused("svcfg_parseDepends", cfg, "conditions", word);
        return 0;
    }
    std::string_view value = word;
    std::string_view name = cut_until(value, '=');
    if (name.starts_with('~')) {
        name.remove_prefix(1);
        place->flag = 1;
    }
    const bool has_value = !value.starts_with("''") && !value.starts_with("\"\"");
    place->value = has_value ? new_text(value) : nullptr;
    place->name = new_text(name);
    return place->name && (place->value || !has_value) ? 0 : -1;
}

// The first free command entry under that name, or null (logged) when all are taken or memory is out.
svcfg_cmd *open_command(svcfg *cfg, std::string_view name, std::string_view word)
{
    svcfg_cmd *const end = cfg->cmds + svcfg_cmd_max;
    svcfg_cmd *place = std::find_if(cfg->cmds, end, [](const auto &cmd) { return !cmd.name; });
    if (place == end) {
        log_refused("svcfg_parseCmdLine", cfg, "commands", name);
        return nullptr;
    }
    if (name.size() > svcfg_cmd_name_max) {
        name = name.substr(0, svcfg_cmd_name_max);
        log_trace(LOG_AS("svcfg_parseCmdLine"), "service %s: command name cut: %.*s", cfg->proc,
                  printed(name), name.data());
    }
    place->name = new_text(name);
    place->argv[0] = new_text(word);
    return place;
}

bool is_complete(const svcfg_cmd *cmd)
{
    return cmd->name && cmd->argv[0];
}

} // namespace

void free_service_cfg(svcfg *cfg)
{
    if (!cfg)
        return;
    clear_words(cfg->argv);
    clear_words(cfg->syscfg_patterns);
    clear_depends(cfg);
    for (svcfg_link &link : cfg->depended)
        free(link.name);
    for (svcfg_cmd &cmd : cfg->cmds) {
        free(cmd.name);
        clear_words(cmd.argv);
    }
    free(cfg);
}

svcfg *create_service_cfg(lumd *owner, int index)
{
    auto *cfg = new_record<svcfg>();
    if (!cfg) {
        log_failed(LOG_HERE);
        return nullptr;
    }
    cfg->owner = owner;
    cfg->index = index;
    return cfg;
}

const char *svcfg_parseServiceLine(svcfg *cfg, std::string_view line)
{
    const std::string_view name = after_keyword(line, "service");
    if (!copy_text(cfg->proc, name))
        log_trace(LOG_HERE, "service name cut: %s", cfg->proc);
    return cfg->proc;
}

int svcfg_parseExecLine(svcfg *cfg, std::string_view line)
{
    std::string_view rest = after_keyword(line, "exec");
    clear_words(cfg->argv);
    cfg->argc = 0;
    while (!rest.empty()) {
        parsed_word word = take_any_word(__func__, rest);
        const bool has_name = !word.quoted && word.text.find('=') != word.text.npos;
        if (has_name)
            cut_until(word.text, '=');
        if (cfg->argc == svcfg_exec_max) {
            log_refused(__func__, cfg, "words in exec", word.text);
            continue;
        }
        // A last word that lacks its closing quote counts, but its place stays empty.
        char *&place = cfg->argv[cfg->argc++];
        if (word.unclosed && rest.empty())
            break;
        place = new_text(word.text);
        if (!place)
            return -1;
    }
    return 0;
}

int svcfg_parseDepends(svcfg *cfg, std::string_view line)
{
    std::string_view rest = after_keyword(line, "depends");
    clear_depends(cfg);
    while (!rest.empty()) {
        const std::string_view word = take_word(rest);
        const int added = word.find('=') != word.npos
                              ? append_condition(cfg, word)
                              : svcfg_add_link(cfg, cfg->depend, word, "dependencies");
        if (added < 0)
            return -1;
    }
    return 0;
}

int svcfg_parseSyscfgLine(svcfg *cfg, std::string_view line)
{
    std::string_view rest = after_keyword(line, "syscfg");
    clear_words(cfg->syscfg_patterns);
    while (!rest.empty()) {
        if (append_word(__func__, cfg, cfg->syscfg_patterns, "watch patterns", take_word(rest)) < 0)
            return -1;
    }
    return 0;
}

int svcfg_parseCmdLine(svcfg *cfg, std::string_view line)
{
    std::string_view rest = line;
    const std::string_view name = take_word(rest);
    if (rest.empty()) {
        const svcfg_cmd *cmd = open_command(cfg, name, name);
        return !cmd || is_complete(cmd) ? 0 : -1;
    }
    svcfg_cmd *current = nullptr;
    bool refused = false;
    while (!rest.empty()) {
        const std::string_view word = take_any_word(__func__, rest).text;
        if (word.size() > 1 && word.front() == '-') {
            current = open_command(cfg, name, word.substr(1));
            refused = !current;
            if (current && !is_complete(current))
                return -1;
        } else if (current) {
            if (append_word(__func__, cfg, current->argv, "words in a command", word) < 0)
                return -1;
        } else if (!refused) {
            log_trace(LOG_HERE, "service %s: %.*s: no \"-\" word before it, refused: %.*s", cfg->proc,
                      printed(name), name.data(), printed(word), word.data());
        }
    }
    return 0;
}

char *const *svcfg_find_command(const svcfg *cfg, std::string_view name)
{
    static char *const none[] = {nullptr};
    char *const *found = none;
    for (size_t i = 0; i < svcfg_cmd_max && cfg->cmds[i].name; ++i) {
        if (name == cfg->cmds[i].name)
            found = cfg->cmds[i].argv;
    }
    return found;
}

int svcfg_add_link(const svcfg *cfg, std::span<svcfg_link> links, std::string_view name, const char *what)
{
    const auto place = std::find_if(links.begin(), links.end(), [](const auto &link) { return !link.name; });
    if (place == links.end()) {
        log_refused(__func__, cfg, what, name);
        return 0;
    }
    // A service of a longer name was cut to this too.
    place->name = new_text(name.substr(0, svcfg_name_size - 1));
    return place->name ? 0 : -1;
}
