#include "tests/lumd/fixture.h"

#include "app/app.h"
#include "lumd/cfgdb.h"
#include "lumd/child.h"
#include "lumd/kinds.h"
#include "syscfg/syscfg.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <regex>
#include <set>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

std::map<std::string, std::string> variables;
int fakes_alive;
bool old_kernel;

namespace {

struct fake_svcent : svcent {
    bool live;
};

std::string operations;
auto &managers = *new std::vector<lumd *>; // they live as long as the process

void note(const std::string &operation, const svcent *entry, char *const *argv)
{
    operations += (operations.empty() ? "" : ", ") + operation + " " + entry->name.get();
    for (; *argv; ++argv)
        operations += " " + std::string(*argv);
}

bool is(const svcent *entry, const char *word)
{
    return entry->owner->m_cfg->argc > 1 && strcmp(entry->owner->m_cfg->argv.words()[1], word) == 0;
}

char *const no_words[] = {nullptr};

int fake_start(svcent *base, int, char *const *, const svcfg *cfg)
{
    auto *entry = static_cast<fake_svcent *>(base);
    for (const svcfg_link *at = cfg->depend.begin(); at != cfg->depend.end() && at->info; ++at)
        EXPECT_NE(at->info->svcent, nullptr) << entry->name.get() << " was started before " << at->name.get();
    for (const auto &[flag, name, value] : cfg->dsyscfg)
        EXPECT_TRUE(!value || strchr(name.get(), ':') || variables[name.get()] == value.get())
            << entry->name.get();
    if (is(entry, "fails") || entry->live)
        return is(entry, "fails") ? -1 : 0;
    entry->live = true;
    note("start", entry, no_words);
    if (is(entry, "eager")) {
        entry->state = SVCENT_STARTED;
        lumd_processServiceCallback(entry->owner, SVCENT_EV_STARTED);
    }
    return 0;
}

int fake_stop(svcent *base, char *const *argv)
{
    note("stop", base, argv);
    static_cast<fake_svcent *>(base)->live = false;
    base->state = SVCENT_STOPPED;
    return 0;
}

int fake_reload(svcent *base, char *const *argv)
{
    note("reload", base, argv);
    return 0;
}

int fake_release(svcent *base)
{
    note("release", base, no_words);
    --fakes_alive;
    delete static_cast<fake_svcent *>(base);
    return -1;
}

constexpr svcent_ops fake_operations = {fake_start, fake_stop, fake_reload, fake_release, true};

svcent *create_fake_svcent(service_info *slot, const char *name, const char *word)
{
    if (word && strcmp(word, "fake") != 0)
        return create_builtin_svcent(slot, name, word);
    auto entry = std::make_unique<fake_svcent>();
    entry->ops = &fake_operations;
    entry->owner = slot;
    if (is(entry.get(), "missing") && !variables.contains("FOUND"))
        return nullptr;
    entry->name.reset(strdup(name));
    ++fakes_alive;
    return entry.release();
}

const char *get_variable(syscfg *, const char *name)
{
    const auto found = variables.find(name);
    return found == variables.end() ? nullptr : found->second.c_str();
}

constexpr syscfg_ops database_operations = {nullptr, [](syscfg *) {}, get_variable};
syscfg database;

} // namespace

extern "C" {

int __real_close_range(unsigned first, unsigned last, int flags);
int __wrap_close_range(unsigned first, unsigned last, int flags)
{
    return old_kernel ? -1 : __real_close_range(first, last, flags);
}
} // extern "C"

bool eventually(const std::function<bool()> &done)
{
    for (int i = 0; i < 10000 && !done(); ++i) {
        app_poll_once();
        usleep(i < 10 ? 0 : 1000);
    }
    return done();
}

bool no_child_left()
{
    siginfo_t info;
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == -1 && errno == ECHILD;
}

lumd_test::lumd_test()
{
    variables.clear();
    database.ops = &database_operations;
    for (const auto &[name, text] : std::map<std::string, std::string>{{"seven", "#!/bin/sh\nexit 7\n"},
                                                                       {"nine", "#!/bin/sh\nkill -9 $$\n"},
                                                                       {"broken", "no program"}}) {
        support::write_file("/bin/" + name, text);
        chmod(support::device_path("/bin/" + name).c_str(), 0755);
    }
    setenv("HOME", support::device_root.c_str(), 1);
}

lumd_test::~lumd_test()
{
    end_services();
}

void lumd_test::end_services()
{
    for (int i = 0; manager && i < lumd_slots && manager->svcs[i].m_cfg; ++i) {
        signal_child(manager->svcs[i].name, SIGKILL);
        if (manager->svcs[i].svcent)
            lumd_do_stop(&manager->svcs[i], 1);
    }
    EXPECT_TRUE(eventually([] { return no_child_left() && timer_run_expired() == -1; }));
    EXPECT_EQ(app_scheduler.head, nullptr);
    EXPECT_EQ(fakes_alive, 0);
    trace();
}

int lumd_test::parse(std::string conf)
{
    for (const auto &[mark, meant] : {std::pair(';', '\n'), {'^', '\t'}, {'$', '\r'}, {'@', '$'}})
        std::replace(conf.begin(), conf.end(), mark, meant);
    support::write_file("/etc/svc.conf", conf);
    manager = managers.emplace_back(lumd_create());
    manager->creators = {create_fake_svcent, create_process_svcent};
    log.clear();
    return lumd_parse_conf(manager, "/etc/svc.conf", -1);
}

void lumd_test::load(const std::string &conf)
{
    ASSERT_GE(parse(conf), 0);
    lumd_init_service_infos(manager);
    manager->cfgdb = create_cfgdb(manager);
    manager->cfgdb->changed = lumd_processSyscfgChange;
    manager->cfgdb->syscfg = &database;
    ASSERT_EQ(child_reaper_init(), 0);
    log.clear();
}

service_info *lumd_test::slot(std::string_view name) const
{
    return std::find_if(manager->svcs, manager->svcs + lumd_slots - 1,
                        [name](auto &s) { return name == s.name; });
}

// Records of other kinds hold no process.
proc_svcent *lumd_test::process(std::string_view name) const
{
    static const std::set<std::string_view> others = {"watchdog", "reboot", "netmon", "ntp", "sched"};
    svcent *entry = slot(name)->svcent;
    const char *word = slot(name)->m_cfg->argv.words()[0];
    const bool is_process = entry && entry->ops != &fake_operations && !others.contains(word);
    return is_process ? static_cast<proc_svcent *>(entry) : nullptr;
}

void lumd_test::signal_child(std::string_view name, int number) const
{
    const sigchld_guard guard;
    const proc_svcent *entry = process(name);
    if (entry && entry->pid > 0 && !entry->ended)
        kill(entry->pid, number);
}

void lumd_test::apply(std::string_view assignments) const
{
    std::vector<std::string> names;
    std::vector<const char *> pointers;
    std::istringstream words{std::string(assignments)};
    for (std::string word; words >> word;) {
        names.push_back(word.substr(0, word.find('=')));
        variables[names.back()] = word.substr(word.find('=') + 1);
    }
    for (const std::string &name : names)
        pointers.push_back(name.c_str());
    cfgdb_processSyscfgChange(manager->cfgdb, pointers.data(), static_cast<int>(pointers.size()));
}

bool lumd_test::tells_news(std::set<std::string> &usual)
{
    std::set<std::string> told = {""};
    for (const std::string &line : split(support::captured_log::messages(), "\n"))
        if (std::regex_search(
                line, std::regex("FAILED: |SYSERROR: |cannot |failed to |invalid |ioctl |open gpio ")))
            told.insert(line);
    usual = usual.empty() ? told : usual;
    return !std::includes(usual.begin(), usual.end(), told.begin(), told.end());
}

std::string lumd_test::trace()
{
    return std::exchange(operations, "");
}

std::vector<std::string> split(std::string_view text, std::string_view separator)
{
    std::vector<std::string> parts;
    for (size_t end = 0; end != text.npos;
         text.remove_prefix(end == text.npos ? 0 : end + separator.size())) {
        end = text.find(separator);
        parts.emplace_back(text.substr(0, end));
    }
    return parts;
}

std::vector<std::array<std::string, 3>> table(std::string_view text)
{
    std::vector<std::array<std::string, 3>> rows;
    std::string joined;
    for (const std::string &line : split(text, "\n"))
        joined += line.starts_with("  ") ? line.substr(1) : "\n" + line;
    for (const std::string &line : split(joined, "\n")) {
        const auto cells = split(line, " => ");
        if (!line.empty())
            std::copy(cells.begin(), cells.end(), rows.emplace_back().begin());
    }
    return rows;
}

void lumd_test::play(const std::string &script)
{
    for (const std::string &text : split(script, " / ")) {
        SCOPED_TRACE(text);
        const auto parts = split(text, " > ");
        step(parts[0]);
        EXPECT_EQ(events(), parts.size() > 1 ? parts[1] : "");
    }
}

void lumd_test::play_all(std::string_view scripts)
{
    for (const auto &[what, services, script] : table(scripts)) {
        SCOPED_TRACE(what);
        load(services);
        play(script);
        end_services();
    }
}

void lumd_test::step(const std::string &text)
{
    std::istringstream words(text);
    std::string verb, name, rest;
    getline(words >> verb >> name, rest);
    service_info *at = slot(name);
    const auto child = [&] { return process(name) ? process(name)->pid : 0; };
    const std::map<std::string, std::function<void()>> verbs = {
        {"start", [&] { lumd_start_service(manager, name.c_str()); }},
        {"stop", [&] { lumd_stop_service(manager, name.c_str()); }},
        {"halt", [&] { lumd_do_stop(at, 0); }}, // without release
        {"set", [&] { apply(name + rest); }},
        {"wait", [&] { support::run_for(stoi(name)); }},
        {"restart", [&] { lumd_restart_service(at); }},
        {"up", // reported by the fake
         [&] { at->svcent->state = SVCENT_STARTED, lumd_processServiceCallback(at, SVCENT_EV_STARTED); }},
        // Processes, in real time.
        {"kill", [&] { signal_child(name, stoi(rest)); }},
        {"runs", [&] { EXPECT_TRUE(eventually([&] { return at->svcent->state == 1 && child() > 0; })); }},
        {"ends", [&] { EXPECT_TRUE(eventually([&] { return child() == 0; })); }},
        {"back", // by its restart, 2000 ms after its end
         [&] {
             EXPECT_TRUE(eventually([&] { return child() == 0 && at->svcent->state == 2; }));
             support::now_us += 1990000;
             app_poll_once();
             EXPECT_EQ(child(), 0);
             support::now_us += 20000;
             app_poll_once();
             EXPECT_GT(child(), 0);
         }},
        // Checks: the state (-1 without an entry), whether a restart is due, a log line.
        {"state", [&] { EXPECT_EQ(at->svcent ? int{at->svcent->state} : -1, stoi(rest)); }},
        {"timer", [&] { EXPECT_EQ(at->restart_timer.get() != nullptr, stoi(rest) != 0); }},
        {"log", [&] { EXPECT_TRUE(eventually([&] { return log.has(name + rest); })) << log.text(); }},
    };
    verbs.at(verb)();
}
