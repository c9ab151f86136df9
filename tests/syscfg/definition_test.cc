#include "syscfg/lookup.h"
#include "tests/syscfg/fixture.h"

namespace {

// "NAME type flags size spec; " of every variable; a choice's spec is its list and its value.
std::string declared(const syscfg *db)
{
    std::string all;
    for (const syscfg_var *var = db->vars; var; var = var->next) {
        all +=
            var->name + (" " + std::string(var_types[var->type].keyword)) + " " + std::to_string(var->flags);
        if (var->type == VAR_STRING)
            all += " " + std::to_string(var->size) + (var->pattern ? " " + std::string(var->pattern) : "");
        for (char **name = var->type == VAR_CHOICE ? var->list : nullptr; name && *name; ++name)
            all += (name == var->list ? " " : ",") + std::string(*name);
        all += (var->type == VAR_CHOICE ? "=" + std::string(var->value) : "") + "; ";
    }
    return all.substr(0, all.empty() ? 0 : all.size() - 1);
}

TEST_F(syscfg_test, declarations)
{
    write_file("/etc/b.def", "B bool\n");
    for (const auto &row : rows(R"(
        FOO string(32)  [a-z0-9-]*  | FOO string 0 32 [a-z0-9-]*;  |
        FOO string (32)             | FOO string 0 0 (32);         |
        FOO STRING(8)               | FOO string 0 8;              |
        FOO stringent               | FOO string 0 0 ent;          |
        FOO string()x               | FOO string 0 0 x;            |
        FOO string(8 [a]            |    | parse_string_spec: missing ')' in size spec\nparse_definition: invalid line: FOO\n
        FOO string(-1)              |    | parse_string_spec: size out of range: -1\nparse_definition: invalid line: FOO\n
        FOO -n bool                 | FOO bool 1;                  |
        FOO   -r   mac ignored      | FOO mac 3;                   |
        FOO -n -r integer           | FOO integer 3;               |
        FOO -x string               | FOO string 0 0;              | parse_var_spec: unkown option: -x\n
        FOO -nr string              |    | parse_var_spec: invalid type: r string\nparse_definition: invalid line: FOO\n
        FOO                         |    | parse_var_spec: invalid type: \nparse_definition: invalid line: FOO\n
        FOO strin                   |    | parse_var_spec: invalid type: strin\nparse_definition: invalid line: FOO\n
        FOO=1 string                |    | parse_var_spec: space after name needed\nparse_definition: invalid line: FOO=1 string\n
        A bool\n FOO ip\nC ip       | C ip 0; A bool 0;            | parse_var_spec: invalid type: FOO ip\nparse_definition: invalid line: \n
        F choice a, b c;d,,e        | F choice 0 a,b,c,d,e=a;      |
        F choice a;;b               | F choice 0 a,,b=a;           |
        F choice ,                  |    | parse_choice_spec: empty choice list\nparse_definition: invalid line: F\n
        F choice 1 2 3 4 5 6 7 8 9 a b c d e f g   | F choice 0 1,2,3,4,5,6,7,8,9,a,b,c,d,e,f,g=1; |
        F choice 1 2 3 4 5 6 7 8 9 a b c d e f g h |    | parse_choice_spec: too many choice\nparse_definition: invalid line: F\n
        A string\nB choice x y\nC ip\nB -n integer | C ip 0; B integer 1; A string 0 0; |
        # x string\n\n  # y\n%define x\n%A bool | |
        %include/etc/b.def\nA bool  | A bool 0; B bool 0;          |
        A bool\n %include  /etc/b.def  \n | B bool 0; A bool 0;    |
        %include /etc/none\nA bool  | A bool 0;                    | parse_definition: cannot open: /etc/none\n
        A url\nB domain\nC sn\nD ip | D ip 0; C sn 0; B domain 0; A url 0; |)")) {
        log.clear();
        const database db = declare(row[0] + "\n");
        EXPECT_EQ(declared(db.get()), row[1]) << row[0];
        EXPECT_EQ(log.messages(), row[2]) << row[0];
    }
}

TEST_F(syscfg_test, includes_end)
{
    std::string many, lines(70000, '\n');
    for (int i = 0; i < 300; ++i) {
        const std::string path = "/etc/" + std::to_string(i);
        write_file(path, "V" + std::to_string(i) + " bool\n%include /etc/" + std::to_string(i + 1) + "\n");
        write_file(path + "x", "V" + std::to_string(i) + " bool\n");
        many += "%include " + path + "x\n";
    }
    write_file("/etc/a", "A bool\n%include /etc/b\nC bool\n");
    write_file("/etc/b", "B bool\n%include /etc/a\n%include /etc/syscfg.def\n");
    const struct {
        std::string text;
        int count;
        std::string message;
    } cases[] = {
        {"%include /etc/syscfg.def\nA bool\n", 1, "not included, includes itself: /etc/syscfg.def\n"},
        {"%include /etc/a\n", 3, "not included, includes itself: /etc/a\n"},
        {"%include /etc/b\n%include /etc/b\n", 3, "not included, includes itself: /etc/b\n"},
        {"%include /etc/0\nZ bool\n", 16, "not included, nested too deep: /etc/15\n"},
        {many + "Z bool\n", 256, "not included, too many files: /etc/299x\n"},
        {"A bool\n" + lines + "Z bool\n", 1, "too many lines, the rest is ignored\n"},
        {"A string " + std::string(246, 'x') + "B bool\n", 2, ""}, // a line ends at 255 characters
    };
    for (const auto &c : cases) {
        log.clear();
        const database db = declare(c.text);
        EXPECT_EQ(db->count, c.count) << c.message;
        EXPECT_TRUE(log.has(c.message)) << log.text();
    }
}

TEST_F(syscfg_test, variables_are_found_by_their_names_and_aliases)
{
    const std::pair<const char *, uint32_t> hashes[] = {
        {"", 0}, {"a", 17138}, {"LAN_IPADDR", 3062721753}, {"\xff", 4294967109}, {"\x80z", 4294740069}};
    for (const auto &[name, hash] : hashes)
        EXPECT_EQ(syscfg_hash(name), hash);
    std::string text = "X string\nX alias a, b\nb alias c\nnone alias d\n";
    for (int i = 0; i < 500; ++i)
        text += "NAME" + std::to_string(i) + " integer\n";
    const database db = declare(text);
    for (int i = 0; i < 500; ++i)
        ASSERT_EQ(find_var(db.get(), "NAME" + std::to_string(i))->name, "NAME" + std::to_string(i));
    for (const char *name : {"X", "a", "b"})
        EXPECT_STREQ(find_var(db.get(), name)->name, "X");
    for (const char *name : {"c", "d", "none", "x", "NAME", "NAME500", ""})
        EXPECT_EQ(find_var(db.get(), name), nullptr) << name;
    fail_call(ALLOC, 1);
    build_var_tbl(db.get());
    end_failing();
    EXPECT_EQ(log.messages(), "SYSERROR: build_var_tbl: Cannot allocate memory\n");
    EXPECT_STREQ(find_var(db.get(), "a")->name, "X");
    EXPECT_STREQ(find_var(db.get(), "NAME3")->name, "NAME3");
    EXPECT_EQ(find_var(db.get(), "Y"), nullptr);
}

} // namespace
