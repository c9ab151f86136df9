#include "lumd/svcfg.h"

#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace {

constexpr char log_module[] = "svcfg";

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

// A repeated line replaces the earlier one.
template <typename... Lists>
void drop_earlier(const char *func, const svcfg *cfg, const char *keyword, Lists &...lists)
{
    if ((lists.size() + ...) > 0)
        log_trace(LOG_AS(func), "service %s: another %s line, the earlier one is dropped", cfg->proc,
                  keyword);
    (lists.clear(), ...);
}

// True, with a log line that names the refused word, when the list is full.
template <typename Place, size_t Max>
bool is_full(const char *func, const svcfg *cfg, const svcfg_list<Place, Max> &list, const char *what,
             std::string_view word)
{
    if (list.size() < Max)
        return false;
    log_trace(LOG_AS(func), "service %s: too many %s, refused: %.*s", cfg->proc, what, printed(word),
              word.data());
    return true;
}

// The next word, quoted or plain. One whose quote is not closed is taken as a plain one.
struct parsed_word {
    std::string_view text;
    bool quoted;
    bool unclosed;
};

parsed_word take_any_word(std::string_view &rest)
{
    if (rest.front() != '"')
        return {take_word(rest), false, false};
    const std::string_view quoted = take_quoted_word(rest);
    if (!quoted.empty())
        return {quoted, true, false};
    return {take_word(rest), true, true};
}

int append_condition(svcfg *cfg, std::string_view word)
{
    constexpr char func[] = "svcfg_parseDepends";
    if (is_full(func, cfg, cfg->dsyscfg, "conditions", word))
        return 0;
    std::string_view value = word;
    std::string_view name = cut_until(value, '=');
    const bool flagged = name.starts_with('~');
    if (flagged)
        name.remove_prefix(1);
    svcfg_condition *place = cfg->dsyscfg.append(name);
    if (!place)
        return -1;
    place->flag = flagged;
    if (value.starts_with("''") || value.starts_with("\"\""))
        return 0;
    // A change is announced by the bare name of its variable.
    if (name.starts_with("syscfg:"))
        log_trace(LOG_AS(func), "service %s: changes are not noticed behind a source: %.*s", cfg->proc,
                  printed(word), word.data());
    place->value.reset(new_text(value));
    return place->value ? 0 : -1;
}

// Adds a command with its first word to *added, which is null (logged) when there are too many.
int open_command(svcfg *cfg, std::string_view name, std::string_view word, svcfg_cmd **added)
{
    constexpr char func[] = "svcfg_parseCmdLine";
    *added = nullptr;
    if (is_full(func, cfg, cfg->cmds, "commands", name))
        return 0;
    if (name.size() > svcfg_cmd_name_max) {
        name = name.substr(0, svcfg_cmd_name_max);
        log_trace(LOG_AS(func), "service %s: command name cut: %.*s", cfg->proc, printed(name), name.data());
    }
    *added = cfg->cmds.append(name);
    return *added && (*added)->argv.append(word) ? 0 : -1;
}

} // namespace

template <typename Place>
Place *svcfg_places<Place>::append(std::string_view text)
{
    // Zeros stand behind the last place.
    auto *larger = static_cast<Place *>(calloc(count_ + 2, sizeof(Place)));
    if (!larger)
        return nullptr;
    std::uninitialized_move(begin(), end(), larger);
    std::destroy(begin(), end());
    free(std::exchange(places_, larger));
    char *copy = new_text(text);
    if (!copy)
        return nullptr;
    Place *place = new (end()) Place();
    if constexpr (std::is_same_v<Place, svcfg_word>)
        *place = copy;
    else
        place->name.reset(copy);
    ++count_;
    return place;
}

template <typename Place>
void svcfg_places<Place>::clear()
{
    for (Place &place : *this) {
        if constexpr (std::is_same_v<Place, svcfg_word>)
            free(place);
        else
            std::destroy_at(&place);
    }
    free(std::exchange(places_, nullptr));
    count_ = 0;
}

svcfg::~svcfg() = default;

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
    drop_earlier(__func__, cfg, "exec", cfg->argv);
    cfg->argc = 0;
    while (!rest.empty()) {
        parsed_word word = take_any_word(rest);
        if (word.unclosed)
            log_trace(LOG_HERE, "Missed matched '\"'!\n");
        const bool has_name = !word.quoted && word.text.find('=') != word.text.npos;
        if (has_name)
            cut_until(word.text, '=');
        if (is_full(__func__, cfg, cfg->argv, "words in exec", word.text))
            continue;
        char **place = cfg->argv.append(word.text);
        if (!place)
            return -1;
        ++cfg->argc;
        // A last word that lacks its closing quote counts, but its place stays empty.
        if (word.unclosed && rest.empty())
            free(std::exchange(*place, nullptr));
    }
    return 0;
}

int svcfg_parseDepends(svcfg *cfg, std::string_view line)
{
    std::string_view rest = after_keyword(line, "depends");
    drop_earlier(__func__, cfg, "depends", cfg->dsyscfg, cfg->depend);
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
    drop_earlier(__func__, cfg, "syscfg", cfg->syscfg_patterns);
    while (!rest.empty()) {
        const std::string_view word = take_word(rest);
        if (!is_full(__func__, cfg, cfg->syscfg_patterns, "watch patterns", word) &&
            !cfg->syscfg_patterns.append(word))
            return -1;
    }
    return 0;
}

int svcfg_parseCmdLine(svcfg *cfg, std::string_view line)
{
    std::string_view rest = line;
    const std::string_view name = take_word(rest);
    svcfg_cmd *current = nullptr;
    if (rest.empty())
        return open_command(cfg, name, name, &current);
    bool refused = false;
    while (!rest.empty()) {
        const auto [word, quoted, unclosed] = take_any_word(rest);
        if (unclosed)
            log_trace(LOG_HERE, "Missed matched '\"'!\n");
        if (word.size() > 1 && word.front() == '-') {
            if (open_command(cfg, name, word.substr(1), &current) < 0)
                return -1;
            refused = !current;
        } else if (current) {
            if (!is_full(__func__, cfg, current->argv, "words in a command", word) &&
                !current->argv.append(word))
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
    for (const svcfg_cmd &cmd : cfg->cmds) {
        if (name == cmd.name.get())
            found = cmd.argv.words();
    }
    return found;
}

int svcfg_add_link(const svcfg *cfg, svcfg_links &links, std::string_view name, const char *what)
{
    if (is_full(__func__, cfg, links, what, name))
        return 0;
    // The names of services are cut in the same way.
    return links.append(name.substr(0, svcfg_name_size - 1)) ? 0 : -1;
}
