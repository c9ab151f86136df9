#include "tests/lumd/fixture.h"

#include <functional>

namespace {

std::string joined(char *const *words)
{
    std::string text;
    for (; *words; ++words)
        text += (text.empty() ? "" : "|") + std::string(*words);
    return text;
}

// Describes each service: name exec2(program|word) if(~VAR=value) on(service) watch(pattern) command(word).
std::string describe(const lumd *manager)
{
    std::string text;
    for (const service_info *slot = manager->svcs; slot != std::end(manager->svcs) && slot->m_cfg; ++slot) {
        const svcfg *cfg = slot->m_cfg.get();
        text += (text.empty() ? "" : "; ") + std::string(cfg->proc);
        if (cfg->argc)
            text += " exec" + std::to_string(cfg->argc) + "(" + joined(cfg->argv.words()) + ")";
        for (const auto &[flag, name, value] : cfg->dsyscfg)
            text += std::string(flag ? " if(~" : " if(") + name.get() + (value ? "=" : "") +
                    (value ? value.get() : "") + ")";
        for (const svcfg_link &link : cfg->depend)
            text += link.name ? " on(" + std::string(link.name.get()) + ")" : "";
        for (const char *pattern : cfg->syscfg_patterns)
            text += " watch(" + std::string(pattern) + ")";
        for (const svcfg_cmd &cmd : cfg->cmds)
            text += " " + std::string(cmd.name.get()) + "(" + joined(cmd.argv.words()) + ")";
    }
    return text;
}

// The pattern count times, with 1, 2 ... for "#".
std::string many(int count, const std::string &pattern)
{
    std::string text;
    for (int i = 1; i <= count; ++i) {
        std::string one = pattern;
        for (size_t at; (at = one.find('#')) != one.npos;)
            one.replace(at, 1, std::to_string(i));
        text += one;
    }
    return text;
}

struct service_file : lumd_test {};

TEST_F(service_file, lines_fill_records)
{
    // The last column is the parser's only message.
    const auto expect = [this](const std::string &text, const std::string &services,
                               const std::string &logged) {
        SCOPED_TRACE(text);
        parse(text);
        EXPECT_EQ(describe(manager), services);
        EXPECT_TRUE(log.has(logged)) << log.text();
        EXPECT_EQ(log.writes().size(), logged.empty() ? 1u : 2u) << log.text();
    };
    for (const auto &[text, services, logged] : table(R"(
service a;exec prog a=1 b => a exec3(prog|1|b)
service a;exec p x=y=z =w a= => a exec4(p|y=z|w|)
service a;exec p "x y"z "w=1" => a exec4(p|"x y"|z|"w=1")
service a;exec p "x y => a exec3(p|"x|y) => Missed matched '"'!
service a;exec p "x => a exec2(p) => Missed matched '"'!
^ service  a b $;exec p q$ r => a b exec2(p|q)
servicesx;executable p;dependsb c;syscfgA* => sx exec2(utable|p) on(b) on(c) watch(A*)
service;exec p;service b =>  exec1(p); b
service a;  # x;#y; ^ ;;exec p # q => a exec3(p|#|q)
service a;depends A='' ~B=on C=""x syscfg:D=1 E= F=a=b syscfg:G='' svc => a if(A) if(~B=on) if(C) if(syscfg:D=1)
  if(E=) if(F=a=b) if(syscfg:G) on(svc) => service a: changes are not noticed
service a;syscfg  NET_*  A?D => a watch(NET_*) watch(A?D)
service a;stop -kill SIGUSR1;reload;stop -x => a stop(kill|SIGUSR1) reload(reload) stop(x)
service a;stop -a 1 -b - 2 => a stop(a|1) stop(b|-|2)
service a;stop -a "x -y" "z w => a stop(a|"x -y"|"z|w) => Missed matched '"'!
service a;stop -a;halt x -b c => a stop(a) halt(b|c) => service a: halt: no "-" word before it, refused: x
service a;Exec p => a => service a: Exec: no "-" word before it, refused: p
exec x;service a;exec p => a exec1(p) => svc.conf: 1: belongs to no service, refused: exec x
service a;exec p q;exec s => a exec1(s) => service a: another exec line
service a;depends b;depends A=1;exec p => a exec1(p) if(A=1) => service a: another depends line
service a;depends A=1;depends;syscfg A => a watch(A) => service a: another depends line
service a;syscfg A B;syscfg C;service b;syscfg => a watch(C); b => service a: another syscfg line)"))
        expect(text, services, logged);
    const std::string n31(31, 'n'), c63(63, 'c'), a504(504, 'A');
    for (const size_t size : {508U, 509U, 510U}) // each still fits one read, so the next line stays whole
        expect("#" + std::string(size, '#') + ";exec p", "", "svc.conf: 2: belongs to no service");
    expect("service a;exec^p^q  ^ r^", "a exec2(p\tq|r)", "");
    expect("service a;syscfg " + a504, "a watch(" + a504 + ")", ""); // 511 characters
    expect("service a;syscfg " + a504 + "B -c", "a watch(" + a504 + ") B(c)",
           "svc.conf: 2: longer than 511 characters");
    expect("service " + n31 + "x", n31, "service name cut: nnnn");
    expect("service a;" + c63 + "x -p", "a " + c63 + "(p)", "service a: command name cut: cccc");
    expect("service a;exec 0" + many(81, " #") + ";stop -p", "a exec81(0" + many(80, "|#") + ") stop(p)",
           "service a: too many words in exec, refused: 81");
    expect("service a;depends" + many(17, " d#") + " A=1", "a if(A=1)" + many(16, " on(d#)"),
           "service a: too many dependencies, refused: d17");
    expect("service a;depends" + many(65, " V#=") + " b", "a" + many(64, " if(V#=)") + " on(b)",
           "service a: too many conditions, refused: V65=");
    expect("service a;syscfg" + many(65, " P#"), "a" + many(64, " watch(P#)"),
           "service a: too many watch patterns, refused: P65");
    expect("service a" + many(8, ";c# -p") + ";c9 -p x y;exec p", "a exec1(p)" + many(8, " c#(p)"),
           "service a: too many commands, refused: c9");
    expect("service a;stop -w" + many(16, " x#") + ";exec p", "a exec1(p) stop(w" + many(15, "|x#") + ")",
           "service a: too many words in a command, refused: x16");
}

// Lines of a refused service must not reach the one before it.
TEST_F(service_file, service_33_is_refused)
{
    EXPECT_EQ(parse(many(33, "service s#;exec p#;")), 31);
    EXPECT_TRUE(describe(manager).ends_with("; s32 exec1(p32)"));
    EXPECT_TRUE(log.has("/etc/svc.conf: 65: more than 32 services, refused: service s33"));
    EXPECT_TRUE(log.has("/etc/svc.conf: 66: belongs to no service, refused: exec p33"));
}

// Files are read in the order of the list; an unreadable one does not affect the others.
TEST_F(service_file, files_of_a_list)
{
    const std::string longest = "/etc/" + std::string(122, 'l');
    support::write_file("/etc/one", "service a\nservice b\n");
    support::write_file("/etc/two", "exec p\nservice c\nexec q");
    support::write_file("/etc/empty", "");
    support::write_file(longest, "service d\n");
    support::write_file(longest + "l", "service e\n");
    for (const auto &row : table("/etc/one:/etc/two => a; b; c exec1(q)\n/etc/none\n/etc:/etc/\n"
                                 "/etc/two:/etc/one => c exec1(q); a; b\n::/etc/one: => a; b\n"
                                 "/etc/none:/etc/one:/etc/none => a; b\n/etc/none:/etc/empty\n" +
                                 longest + ":" + longest + "l => d")) {
        SCOPED_TRACE(row[0]);
        support::isolated([&] {
            parse("");
            // There is no database here, so a list that yields services gets only this far.
            EXPECT_EQ(lumd_init(manager, row[0].c_str()), -1);
            EXPECT_EQ(describe(manager), row[1]);
            EXPECT_EQ(log.has("cannot load syscfg definition!\n"), !row[1].empty());
        });
    }
    const auto read_both = [] {
        const unique_record<lumd> fresh(lumd_create());
        if (!fresh)
            return false;
        const int first = lumd_parse_conf(fresh.get(), "/etc/one", -1);
        const int last = lumd_parse_conf(fresh.get(), "/etc/two", first);
        return first == 1 && last == 2;
    };
    EXPECT_GE(support::for_each_failure(support::ALLOC | support::OPEN, read_both), 6);
}

// Of two services with the same name, the first counts; only the first 16 dependents learn of its start.
TEST_F(service_file, names_are_linked_to_slots)
{
    load("service b;service b;exec fake missing;" + many(17, "service s#;depends b V=1;"));
    for (int i = 1; i <= 17; ++i)
        step("start s" + std::to_string(i));
    EXPECT_EQ(trace(), "start b");
    variables["V"] = "1";
    play("up b > " + many(16, ", start s#").substr(2));
}

} // namespace
