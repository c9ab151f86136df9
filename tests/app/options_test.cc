#include "app/app.h"
#include "app/app_options.h"
#include "app/log.h"
#include "app/memory.h"
#include "tests/support/support.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <sys/wait.h>

namespace {

using namespace support;

int refused_signal; // sigaction fails for it

// clang-format off
const app_option options[] = {
    {"verbose", 'v', "T_VERBOSE", APP_OPT_FLAG}, {"many", 'm', "T_MANY", APP_OPT_FLAG | APP_OPT_LIST}, {"number", 'n', "T_NUMBER", APP_OPT_INT},
    {"numbers", 'N', nullptr, APP_OPT_INT | APP_OPT_LIST}, {"text", 't', "T_TEXT", 1}, {"texts", 'T', "T_TEXTS", 1 | APP_OPT_LIST},
    {"config", 'c', "T_CONFIG", APP_OPT_CONFIG}, {nullptr, '-', nullptr, 1 | APP_OPT_LIST}};

// The options as a program reads them. "n=[5]:5! T=[a][b]^ ": elements, parsed numbers or ^ for the list
// itself, ! if set.
std::string shown()
{
    const captured_log log;
    std::string all;
    for (const auto &[name, letter, env, type] : options) {
        const char *text = app_opt_get(name, 0, 0);
        const auto *numbers = static_cast<const int *>(app_opt_value(name));
        if (!text && !numbers)
            continue;
        const bool beyond = app_opt_get(name, APP_OPT_ELEMENT, -1) || app_opt_get(name, APP_OPT_ELEMENT, INT_MAX);
        all += letter + std::string(beyond ? "?" : "=");
        const bool list = type & APP_OPT_LIST, is_text = static_cast<const void *>(numbers) == text;
        for (int i = 0; const char *element = app_opt_get(name, APP_OPT_ELEMENT, i); ++i)
            all += (element == (list ? reinterpret_cast<const char *const *>(text)[i] : text) ? "[" : "?[") + std::string(element) + "]";
        for (int i = 0; numbers && !is_text && i <= (letter == 'N' ? *numbers : 0); ++i)
            all += ":" + std::to_string(numbers[i]);
        all += std::string(is_text ? "^" : "") + (app_opt_isset(name) ? "! " : " ");
    }
    return all;
}

struct start {
    std::vector<std::string> line = {};
    std::string says = {}, home = {}, etc = {}, environment = {};
    unsigned failing = 0;
    int refused = 0;
    bool refused_again = false; // SIGALRM, after its first time
};

[[noreturn]] void begin(const start &how)
{
    char program[] = "try";
    std::vector<char *> argv = {program};
    for (const std::string &argument : how.line)
        argv.push_back(const_cast<char *>(argument.c_str()));
    setenv("HOME", device_root.c_str(), 1);
    putenv(const_cast<char *>(how.environment.c_str()));
    dup2(STDERR_FILENO, STDOUT_FILENO);
    on_exit([](int code, void *) { _exit(code); }, nullptr); // other tests' leftovers are no leaks
    refused_signal = how.refused;
    fail_call(how.failing, 1);
    app_init(static_cast<int>(argv.size()), argv.data(), options, "try");
    if (how.refused_again) {
        device_prefixes = {"/dev/"}; // keeps dumps off the machine's own console
        refused_signal = SIGALRM;
        close(STDIN_FILENO), raise(SIGALRM);
    }
    print_error("%s", shown().c_str());
    _exit(0);
}

// Compares what programs print and then read, or how they exit.
void expect(int code, const std::vector<start> &starts)
{
    for (const start &how : starts) {
        write_file("/.tryrc", how.home);
        write_file("/etc/try.conf", how.etc);
        EXPECT_EXIT(begin(how), testing::ExitedWithCode(code), testing::Eq(how.says))
            << testing::PrintToString(how.line) << how.home << how.environment;
    }
}

// A pipe with this text, then end of file.
unique_fd pipe_of(std::string_view text)
{
    int ends[2] = {-1, -1};
    EXPECT_TRUE(pipe(ends) == 0 && write(ends[1], text.data(), text.size()) > 0);
    close(ends[1]);
    return unique_fd(ends[0]);
}

using options_test = test;

TEST_F(options_test, the_command_line_is_taken_up_to_an_unknown_option_or_what_ends_the_program)
{
    const std::string lacks = " require an argument\n";
    expect(0, {{{"-mmm", "-vn", "-5"}, "v=[] m=:3 n=[-5]:-5! "}, {{"--text", "-", "-T", "--"}, "t=[-] T=[--]^ "}, {{"-vx", "-m"}, "v=[] "},
               {{"--text=", "--texts=a=b"}, "t=[] T=[a=b]^ "}, {{"-v", "--tex=1", "-m"}, "v=[] "}, {{"--textual=1", "-m"}, ""},
               {{"-"}, "-=[-]^ "}, {{"--many=1", "--many"}, "Warning: option \"--many\" should not have an argument\nm=:2 "}, {},
               {{"a,b", "--", "-v", "-m", "--"}, "m=:1 -=[a][b][-v]^ "}, {.line = {"-v"}, .says = "v=[] ", .refused = SIGSEGV}});
    expect(255, {{{"-nv", "5"}, "option \"-n\"" + lacks}, {{"-N1"}, "option \"-N\"" + lacks}, {{"-vn"}, "option \"-n\"" + lacks},
                 {{"--text"}, "option \"--text\"" + lacks}, {{"--number", "-5"}, "option \"--number\"" + lacks},
                 {.line = {"-v"}, .failing = ALLOC}, {.says = "signal error: Invalid argument!!!!!!!!!!!!!!\n", .refused = SIGALRM}});
    const std::string told = "SIGALRM caught!{6}\nsignal error: Invalid argument\n";
    EXPECT_EXIT(begin({.refused_again = true}), testing::ExitedWithCode(1), told);
    const captured_log log;
    const app_option none[] = {{nullptr, 0, nullptr, APP_OPT_FLAG}};
    char argument[] = "x", *argv[] = {argument, argument};
    app_opt_parse(2, argv, none);
    EXPECT_TRUE(log.text() == "Warning: no argument needed!\n" && app_opt_get(nullptr, 0, 0));
    app_opt_clear();
}

TEST_F(options_test, a_value_is_what_its_type_wants_and_set_when_it_says_true_or_a_number)
{
    const std::string of_19 = "0000000000000000007";
    expect(0, {{{"--number=0x1F", "-N", "010,-0x2", "-T", ","}, "n=[0x1F]:31! N=[010][-0x2]:2:8:-2 T=[][]^ "},
               {{"-n", "-2147483648", "-n", "5x"}, "n=[-2147483648]:-2147483648! "}, {{"-n", "00", "-N", "1,x"}, "n=[00]:0 N=[1]:1:1 "},
               {{"-t", "TrUe", "-N", " 1\t,2 , 3"}, "N=[1][2][3]:3:1:2:3 t=[TrUe]! "}, {{"-N", of_19 + ",0" + of_19}, "N=[" + of_19 + "]:1:7 "},
               {{"-N", "1,2,3,4", "-N", "5", "-N", "6,7,8,9"}, "N=[1][2][3][4][5][6][7][8][9]:9:1:2:3:4:5:6:7:8:9 "},
               {{"-T", "a,b ,", "-T", "d,e", "-T", "f,g,h,i"}, "T=[a][b ][][d][e][f][g][h][i]^ "},
               {{"-t", " -1x"}, "t=[ -1x]! "}, {{"-t", "0x"}, "t=[0x] "}, {{"-t", "truel"}, "t=[truel] "}, {{"-t", "yes"}, "t=[yes] "}});
    expect(255, {{{"--number=2147483648"}}, {{"--number=99999999999999999999"}}, {{"--number="}}, {{"--numbers=1,,2"}}});
    const captured_log log;
    EXPECT_TRUE(app_opt_set(&options[4], "1") == 0 && app_opt_isset("text") && !app_opt_isset("none"));
    EXPECT_EQ(log.messages(), "app_opt_isset: text is set\napp_opt_isset: none not set\n");
    app_opt_clear();
}

TEST_F(options_test, the_command_line_wins_over_home_home_over_etc_and_etc_over_the_environment)
{
    const auto home = [](size_t size) { return "HOME=" + device_root + std::string(size - device_root.size(), '/'); };
    const unique_fd pipe = pipe_of("number=9\n");
    const std::string other = device_path("/other"), piped = "/dev/fd/" + std::to_string(pipe.get());
    write_file("/other", "number=8"), write_file("/.tryr", "text=cut");
    expect(0, {{{"-n", "1"}, "m=:1 n=[1]:1! t=[2]! ", "number=2\ntext=2", "text=3\nmany", "T_NUMBER=4"},
               {{}, "n=[3]:3! ", "number=x", "number=3", "T_NUMBER=4"}, {{}, "n=[4]:4! ", "", "", "T_NUMBER=4"}, {{}, "", "", "", "T_NUMBER=x"},
               {{"-v"}, "v=[] ", "", "", "T_VERBOSE=x"}, {{"-m"}, "m=:2 ", "", "", "T_MANY="}, {{}, "T=[a]^ ", "", "texts=a", "T_TEXTS=b"},
               {{"-c", other}, "n=[8]:8! t=[4]! c=[" + other + "] ", "text=2", "text=3", "T_TEXT=4"},
               {{"-c", piped}, "n=[9]:9! c=[" + piped + "] ", "text=2", "text=3"}, {{"-c", "/etc"}, "c=[/etc] ", "text=2", "text=3"},
               {{}, "t=[2]! c=[/] ", "text=2", "", "T_CONFIG=/"},
               {{}, "t=[3]! ", "text=2", "text=3", "HOME"},
               {{}, "t=[2]! ", "text=2", "", home(120)},
               {{}, "t=[3]! ", "text=2", "text=3", home(121)}});
}

TEST_F(options_test, a_bad_line_of_a_file_is_told_by_its_number_and_passed_over)
{
    using namespace std::string_literals;
    const std::string fits(1017, 'x'), bad = "invalid line ", four = bad + "3\n" + bad + "4\n" + bad + "5\n" + bad + "7\n";
    expect(0, {{{}, "v=[] t=[  a b] ", "  text  =  a b \t\r\n# text=1\n \t#\n\nverbose=0"}, {{}, "m=:1 t=[a] ", "text=a\0b\nmany"s},
               {{}, four + bad + "1\nn=[7]:7! ", "#\n\nbogus\n=5\nTEXT=1\nnumber=7\ntexts a=b", "-=1"},
               {{}, "m=:1 n=[5]:5! T=[a]^ ", "text\nnumber\nnumbers\nnumber=x\nnumber=5\ntexts=a\ntexts=b\nmany\nmany"},
               {{}, "m=:1 t=[" + fits + "] ", "text=" + fits + "\nmany"}, {{}, bad + "1\nm=:1 ", "text=" + fits + "x\nmany"}});
}
// clang-format on

TEST_F(options_test, without_memory_an_option_is_not_stored_and_the_others_stay_whole)
{
    char text[] = "texts=a,b,c,d,e\nnumbers=1,2,3,4,5\nmany\nnumber=1\ntext=a\nverbose";
    std::string whole;
    const auto load = [&] {
        const unique_file file(fmemopen(text, sizeof text - 1, "r"));
        app_conf_load(options, file.get());
        end_failing();
        const std::string stored = shown();
        whole = whole.empty() ? stored : whole;
        EXPECT_EQ(app_opt_set(&options[3], "6") + app_opt_set(&options[5], "f"), 0);
        EXPECT_NE(shown().find("[6]:"), std::string::npos);
        app_opt_clear();
        EXPECT_EQ(shown(), "");
        return stored == whole;
    };
    EXPECT_GT(for_each_failure(ALLOC, load), 20);
}

} // namespace

extern "C" int __real_sigaction(int, const struct sigaction *, struct sigaction *);
extern "C" int __wrap_sigaction(int sig, const struct sigaction *action, struct sigaction *old)
{
    return sig == refused_signal ? (errno = EINVAL, -1) : __real_sigaction(sig, action, old);
}
