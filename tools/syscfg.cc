// syscfg: reads, sets, waits for, lists and saves the device's configuration. The daemon's refusals become
// exit statuses; the library's calls only tell success from failure, so the requests are built here.
#include "syscfg/client.h"
#include "tools/json.h"
#include "tools/tool.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fnmatch.h>
#include <getopt.h>
#include <span>
#include <unistd.h>

namespace {

constexpr char usage[] =
    "usage: syscfg get NAME[%OPTION]...             print values, one a line\n"
    "       syscfg set NAME=VALUE... [--apply | --save]\n"
    "       syscfg list [PATTERN] [--json]          print lines that set accepts\n"
    "       syscfg wait NAME=VALUE                  wait until it has that value\n"
    "       syscfg watch PATTERN                    print changes as they happen\n"
    "       syscfg apply [NAME...]                  notify the services of changes\n"
    "       syscfg save | reload | reset            write flash and apply; load again; restore defaults\n"
    "options: -q          write nothing to standard error\n"
    "         -t SECONDS  how long to wait for the daemon in all; for watch, in each round (30)\n"
    "Exit status: 0 done, 1 failed, 2 usage, 3 no such variable, 4 refused, 5 timed out, 6 no daemon,\n"
    "7 flash or the daemon's files failed.\n";

constexpr size_t longest_request = 1024;
constexpr size_t longest_name = 32;
constexpr size_t longest_answer = 1 + 4096;
constexpr long watch_period_ns = 200000000;

using words = std::span<char *const>;

bool wants_json;
bool wants_apply;
bool wants_save;

// ---- one request ----

struct request {
    char text[longest_request];
    size_t length = 0;
    bool fits = true;

    void add(std::string_view part)
    {
        fits = fits && part.size() <= sizeof text - length;
        length += part.copy(text + length, fits ? part.size() : 0);
    }
};

// The library's calls have no time limit of their own. No output is lost here: it was flushed before
// the call.
void end_late(int)
{
    constexpr char text[] = "syscfg: no answer in time\n";
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text, sizeof text - 1);
    _exit(code_late);
}

// The parent may have left the signal blocked or ignored.
void prepare_limit()
{
    struct sigaction ending = {};
    ending.sa_handler = end_late;
    sigaction(SIGALRM, &ending, nullptr);
    sigset_t alarm_only;
    sigemptyset(&alarm_only);
    sigaddset(&alarm_only, SIGALRM);
    sigprocmask(SIG_UNBLOCK, &alarm_only, nullptr);
}

time_t deadline;

time_t monotonic_seconds()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

// Starts the time limit of all following requests together. Whole seconds may stretch it by one.
void begin_limit()
{
    deadline = monotonic_seconds() + seconds() + 1;
}

template <typename Call>
int limited(Call call)
{
    fflush(stdout);
    const time_t left = deadline - monotonic_seconds();
    if (left <= 0)
        end_late(SIGALRM);
    alarm(static_cast<unsigned>(std::min<time_t>(left, seconds())));
    const int result = call();
    alarm(0);
    return result;
}

[[noreturn]] void leave_unanswered()
{
    if (errno == ENOENT || errno == ECONNREFUSED)
        leave(code_no_daemon, "the daemon does not run");
    leave(code_no, "no answer: %s", errno == 0 ? "an empty one came" : strerror(errno));
}

// The text lives until the next request.
std::string_view ask(const request &asked)
{
    static char answer[longest_answer];
    if (!asked.fits)
        leave(code_refused, "more than the %zu bytes that the daemon reads", longest_request);
    const int length =
        limited([&] { return syscfg_request(asked.text, asked.length, answer, sizeof answer); });
    if (length <= 0)
        leave_unanswered();
    return {answer, static_cast<size_t>(length)};
}

std::string_view ask(std::string_view first, std::string_view second)
{
    request asked;
    asked.add(first);
    asked.add(second);
    return ask(asked);
}

constexpr struct {
    std::string_view answer;
    exit_code code;
    const char *why;
} refusals[] = {
    {"!ERR", code_refused, "refused: the name or the value is too long, or a quote is missing"},
    {"!ERR NOENT", code_no_name, "no such variable"},
    {"!ERR BADNAM", code_no_name, "no such variable, names begin with a letter or \"_\""},
    {"!ERR INVAL", code_refused, "refused: not a value of its type"},
    {"!ERR ACCESS", code_refused, "refused: it is read-only"},
    {"!ERR RONLY", code_refused, "refused: computed values cannot be set"},
};

[[noreturn]] void leave_refused(std::string_view what, std::string_view answer)
{
    const int shown = static_cast<int>(std::min<size_t>(what.size(), 64));
    for (const auto &known : refusals) {
        if (known.answer == answer)
            leave(known.code, "%.*s: %s", shown, what.data(), known.why);
    }
    leave(code_no, "%.*s: not an answer of the daemon", shown, what.data());
}

// If one of these fails, the flash or the daemon's files are to blame.
void command(const char *name)
{
    const std::string_view answer = ask("%", name);
    if (answer == "!ERR")
        leave(code_storage, "%s failed: the daemon's log tells why", name);
    if (answer != "!OK")
        leave_refused(name, answer);
}

// ---- names and values ----

bool is_name(std::string_view text)
{
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return is_letter_or_digit(c) || c == '_'; });
}

std::string_view value_of(std::string_view name)
{
    std::string_view answer = ask("?", name);
    if (!answer.starts_with('>'))
        leave_refused(name, answer);
    answer.remove_prefix(1);
    return answer;
}

struct assignment {
    std::string_view name, value;
};

assignment split(std::string_view word)
{
    const size_t equals = word.find('=');
    if (equals == word.npos)
        leave(code_usage, "\"%s\" is not NAME=VALUE", word.data());
    const std::string_view name(word.data(), equals);
    word.remove_prefix(equals + 1);
    // Any other name could turn the assignment into a different request.
    if (name.size() > longest_name ||
        !is_name(name.starts_with('@') ? std::string_view(name.data() + 1, name.size() - 1) : name))
        leave_refused(name, "!ERR NOENT");
    return {name, word};
}

// The daemon drops white space around an unquoted value.
std::string_view send_assignment(std::string_view verb, const assignment &wanted)
{
    const std::string_view value = wanted.value;
    const auto is_space = [](char c) { return white_space.find(c) != white_space.npos; };
    const bool needs_quotes = !value.empty() && (is_space(value.front()) || is_space(value.back()));
    if (needs_quotes && value.find('"') != value.npos)
        leave(code_refused, "a value with a quote cannot begin or end with white space");
    if (value.starts_with('"') && value.find('"', 1) != value.size() - 1)
        leave(code_refused, "a value cannot begin with a quote that does not end it");
    request asked;
    for (const std::string_view part : {verb, wanted.name, std::string_view("=")})
        asked.add(part);
    const std::string_view quote = needs_quotes ? "\"" : "";
    for (const std::string_view part : {quote, value, quote})
        asked.add(part);
    return ask(asked);
}

// ---- variables of a list ----

struct variable {
    char *name;
    char *value;
};

struct variables {
    variable *all;
    size_t count;
    const char *pattern;
};

char *copy(std::string_view text)
{
    char *made = static_cast<char *>(malloc(text.size() + 1));
    if (!made)
        leave(code_no, "out of memory");
    made[text.copy(made, text.size())] = '\0';
    return made;
}

int collect_name(void *context, const char *name, const char *)
{
    auto *found = static_cast<variables *>(context);
    if (fnmatch(found->pattern, name, 0) != 0)
        return 0;
    auto *grown = static_cast<variable *>(realloc(found->all, (found->count + 1) * sizeof *found->all));
    if (!grown)
        leave(code_no, "out of memory");
    found->all = grown;
    found->all[found->count++] = {copy(name), nullptr};
    return 0;
}

// Values are queried one by one: a line of the list ends at its 161st byte, or at a quote in the value.
std::span<variable> find_variables(const char *pattern)
{
    static variables found;
    found.pattern = pattern;
    if (limited([] { return syscfg_list(collect_name, &found); }) < 0)
        leave_unanswered();
    const std::span<variable> all(found.all, found.count);
    std::reverse(all.begin(), all.end()); // into declaration order
    for (variable &var : all)
        var.value = copy(value_of(var.name));
    return all;
}

void print_json(std::span<const variable> all)
{
    const char *before = "[";
    for (const variable &var : all) {
        printf("%s\n  {\"name\": ", before);
        write_json_string(stdout, var.name);
        printf(", \"value\": ");
        write_json_string(stdout, var.value);
        printf("}");
        before = ",";
    }
    printf(all.empty() ? "[]\n" : "\n]\n");
}

// ---- verbs ----

void get(words names)
{
    for (const char *name : names) {
        const std::string_view value = value_of(name);
        fwrite(value.data(), 1, value.size(), stdout);
        putchar('\n');
    }
}

// A value saved in flash ends at a quote or a line end.
void check_savable(std::string_view value)
{
    if (value.size() >= 2 && value.starts_with('"') && value.ends_with('"'))
        value = value.substr(1, value.size() - 2);
    if (value.find_first_of("\"\n") != value.npos)
        leave(code_refused, "a value with a quote or a line end cannot be saved");
}

void set(words assignments)
{
    for (const char *word : assignments) {
        const assignment wanted = split(word);
        if (wants_save)
            check_savable(wanted.value);
    }
    for (const char *word : assignments) {
        const assignment wanted = split(word);
        const std::string_view answer = send_assignment("", wanted);
        if (answer == "!OK")
            continue;
        // Every line of a list may be given back, but some variables cannot be set, or not to an empty value.
        const bool is_read_only = answer == "!ERR ACCESS";
        if (!is_read_only && answer != "!ERR INVAL")
            leave_refused(wanted.name, answer);
        if (value_of(wanted.name) != wanted.value)
            leave_refused(wanted.name, is_read_only ? "!ERR ACCESS" : "!ERR INVAL");
    }
    if (wants_save)
        command("save");
    else if (wants_apply)
        command("apply");
}

// False if the value has a line end: the rest would be read as another variable's line.
bool print_line(const variable &var)
{
    if (strchr(var.value, '\n'))
        return false;
    printf("%s=%s\n", var.name, var.value);
    return true;
}

void list(words patterns)
{
    const auto all = find_variables(patterns.empty() ? "*" : patterns[0]);
    if (wants_json)
        return print_json(all);
    const char *left_out = nullptr;
    for (const variable &var : all) {
        if (!print_line(var))
            left_out = var.name;
    }
    if (left_out)
        leave(code_no, "%s is left out: its value has more than one line (see --json)", left_out);
}

void wait(words assignments)
{
    const assignment wanted = split(assignments[0]);
    if (wanted.name.starts_with('@'))
        leave_refused(wanted.name, "!ERR RONLY");
    const std::string_view answer = send_assignment("%wait ", wanted);
    if (answer == "!ERR NOENT") {
        value_of(wanted.name);
        leave_refused(wanted.name, "!ERR INVAL");
    }
    if (answer == "!ERR")
        leave(code_no, "the daemon has dropped this wait for later ones");
    if (answer != "!OK")
        leave_refused(wanted.name, answer);
}

void apply(words names)
{
    if (names.empty())
        return command("apply");
    request asked;
    asked.add("%apply:");
    for (const char *name : names) {
        if (!is_name(name))
            leave_refused(name, "!ERR NOENT");
        value_of(name); // the daemon ignores unknown names in a wait
        asked.add(name);
        asked.add(" ");
    }
    const std::string_view answer = ask(asked);
    if (answer != "!OK")
        leave_refused("apply", answer);
}

void save(words)
{
    command("save");
}

void reload(words)
{
    command("reload");
}

void reset(words)
{
    command("reset");
}

// No request reports changes, and polling with lists would log a line each time.
[[noreturn]] void watch(words patterns)
{
    const auto all = find_variables(patterns[0]);
    if (all.empty())
        leave(code_no_name, "no variable matches %s", patterns[0]);
    fprintf(stderr, "syscfg: watching %zu of the variables\n", all.size());
    for (;;) {
        constexpr timespec period = {0, watch_period_ns};
        nanosleep(&period, nullptr);
        begin_limit();
        for (variable &var : all) {
            const std::string_view value = value_of(var.name);
            if (value == var.value)
                continue;
            free(var.value);
            var.value = copy(value);
            if (!print_line(var))
                fprintf(stderr, "syscfg: %s: a value with a line end\n", var.name);
        }
        if (fflush(stdout) != 0)
            leave_done();
    }
}

constexpr struct {
    std::string_view name;
    void (*run)(words operands);
    size_t least, most; // operands
} verbs[] = {
    {"get", get, 1, any_number}, {"set", set, 1, any_number},     {"list", list, 0, 1},
    {"wait", wait, 1, 1},        {"apply", apply, 0, any_number}, {"save", save, 0, 0},
    {"reload", reload, 0, 0},    {"reset", reset, 0, 0},          {"watch", watch, 1, 1},
};

void take_option(int letter)
{
    switch (letter) {
    case 'j':
        wants_json = true;
        return;
    case 'a':
        wants_apply = true;
        return;
    case 's':
        wants_save = true;
        return;
    default:
        take_common_option(letter, optarg, usage);
    }
}

} // namespace

int main(int argc, char **argv)
{
    constexpr option options[] = {
        {"json", no_argument, nullptr, 'j'},          {"apply", no_argument, nullptr, 'a'},
        {"save", no_argument, nullptr, 's'},          {"quiet", no_argument, nullptr, 'q'},
        {"timeout", required_argument, nullptr, 't'}, {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},       {}};
    for (int letter; (letter = getopt_long(argc, argv, "qt:hV", options, nullptr)) != -1;)
        take_option(letter);
    const words given(argv + optind, argv + argc);
    const auto &verb = take_verb(verbs, given, usage);
    if (wants_json && verb.run != list)
        leave_with_usage(usage, "--json goes with list only");
    if ((wants_apply || wants_save) && verb.run != set)
        leave_with_usage(usage, "--%s goes with set only", wants_save ? "save" : "apply");
    prepare_limit();
    begin_limit();
    verb.run(given.subspan(1));
    leave_done();
}
