#include "app/text.h"
#include "syscfg/format.h"
#include "syscfg/lookup.h"
#include "tests/syscfg/fixture.h"

namespace {

// The text left and right of the mark.
std::pair<std::string, std::string> halves(std::string_view text, char mark)
{
    const std::string_view left = cut_until(text, mark);
    return {trimmed(left), trimmed(text)};
}

// A type, then old > new = stored value; "*" means marked changed, "!22" refused with -22.
TEST_F(syscfg_test, setters)
{
    for (const auto &row : rows(R"(
        string       | > abc = abc * | abc > abc = abc | abc > a much longer = a much longer * | abc > = * | > =
        string(3)    | > abcd = !22 | abc > xyz = xyz * | abc > x = x * | abc > = *
        string [a-z]* | > ab1 = !22 | abc > 1ab = abc !22 | abc > xyz = xyz *
        string a\{2,3\} | > aaa = aaa * | > aaaa = !22
        string \(    | > x = !1
        string b     | > ab = !22 | > b = b *
        integer      | > 10 = 10 * | 16 > 0x10 = 0x10 | 8 > 010 = 010 | 8 > 9 = 9 * | 8 > 9x = 8 !22 | 8 > x = 8 !22
        integer      | 8 > 08 = 8 !22 | 8 > = * | > = | > -123456789012345678 = -123456789012345678 * | > - = !22
        integer      | > -1234567890123456789 = !22 | 8 > 00000000000000000001 = 8 !22
        integer      | 0xFFFFFF00 > 0xFFFF0000 = 0xFFFF0000 * | 9300000000000000000 > 9400000000000000000 = 9400000000000000000 *
        integer      | 9300000000000000000 > 9300000000000000000 = 9300000000000000000
        bool         | > 0 = 0 * | 1 > 1off = 1 | 0 > True = 1 * | 1 > FALSE = 0 * | 1 > on = 1 !22 | 1 > = 1 !22
        choice on,off | on > OFF = off * | off > Off = off | off > yes = on * | off > YES = off !22 | on > = on !22
        ip           | > 10.1 = 10.0.0.1 * | 10.0.0.1 > 0xa000001 = 10.0.0.1 | 10.0.0.1 > 10.0.0.2 = 10.0.0.2 *
        ip           | 10.0.0.1 > 10.0.0.256 = 10.0.0.1 !22 | 10.0.0.1 > = * | > =
        mac          | > 00-1a-2B-3c-4d-5e = 00:1A:2B:3C:4D:5E * | 001A2B3C4D5E > 00:1a:2b3c4d5e tail = 00:1A:2B:3C:4D:5E
        mac          | 001A2B3C4D5E > 001A2B3C4D5F = 00:1A:2B:3C:4D:5F * | > 00:1A:2B:3C:4D:5 = !22 | > 001A2B3C4D = !22
        mac          | > 00::1A2B3C4D5E = !22 | > 00:1G:2B:3C:4D:5E = !22 | 001A2B3C4D5E > = *
        domain       | a > any text = any text *
        url          | a > = *
        sn           | > A B  C = ABC * | ABC > ABC = ABC * | ABC > = *)")) {
        for (size_t i = 1; i < row.size(); ++i) {
            SCOPED_TRACE(row[0] + ": " + row[i]);
            const auto [texts, after] = halves(row[i], '=');
            const auto [old, text] = halves(texts, '>');
            const database db = declare("V " + row[0] + "\non alias yes\n");
            syscfg_var *var = find_var(db.get(), "V");
            if (!old.empty())
                EXPECT_EQ(set(db.get(), "V", old), 0);
            var->flags = 0;
            const int result = set(db.get(), "V", text);
            EXPECT_EQ(trimmed(var->text() + std::string(var->changed() ? " *" : "") +
                              (result ? " !" + std::to_string(-result) : "")),
                      after);
        }
    }
}

// A type and a value, then option = output.
TEST_F(syscfg_test, getters)
{
    const std::string wide(62, ' ');
    for (const auto &row : rows(R"(
        string  | a b&c/ | url = a+b%26c%2F | URL = a+b%26c%2F | html = a b&c/
        string  |     | url =
        integer | 26  | 04x = 001a | #o = 032 | .4u = 0026 | +i = +26 | -4d = 26 | 00000000000003d = 026 | =26 | X = 1A
        integer | 26  | 128d = 26 | .128d = 26 | 4294967300d = 26 | 000000000000003d = 26 | n = 26 | s = 26 | *d = 26
        integer | 26  | .*d = 26 | ld = 26 | d%n = 26 | d%%%d = 26 | 1$d = 26 | % = 26 | %d = 26 | hhn = 26 | hc = 26
        integer | 26  | d: 45678 12345%% = 26 | d = 26 | d: 45678 1234%% = 26: 45678 1234% | 5d%% = 26% | dd = 26d
        integer | 65601 | c = A | hx = 41 | hhd = 65 | hhhd = 65601 | d ms = 65601 ms | h = 65601
        integer | 0x10 | d = 0
        bool    | 1   | no:yes = yes | a:b:c = b:c | : = | word = 1
        bool    | 0   | no:yes = no
        mac     | 001122334455 | : = 00:11:22:33:44:55 | = 001122334455 | -: = 00-11-22-33-44-55
        choice a | a  | url = a
        sn      | 1 2 | url = 12)")) {
        const database db = declare("V " + row[0] + "\n");
        if (!row[1].empty())
            set(db.get(), "V", row[1]);
        for (size_t i = 2; i < row.size(); ++i) {
            char buffer[128] = "";
            const auto [option, shown] = halves(row[i], '=');
            EXPECT_EQ(trimmed(get_value(db.get(), "V", option.c_str(), buffer)), shown) << row[0] << row[i];
        }
    }
    const database db = declare("V integer\n");
    char buffer[128] = "";
    set(db.get(), "V", "7");
    EXPECT_EQ(get_value(db.get(), "V", "127d", buffer), std::string(126, ' ') + "7");
    EXPECT_EQ(get_value(db.get(), "W", nullptr, buffer), nullptr);
    for (const auto &row : rows("AZaz09._-|20|AZaz09._-\n \\x~\"|20|%5Cx%7E%22\n abcdef|4|abc\n ab/|6|ab%2F\n"
                                "ab/|5|ab\n ab/c|5|ab\n \xc3\xa4 x|20|%C3%A4+x")) {
        std::vector<char> out(std::stoul(row[1])); // escaping stops before the part that does not fit
        url_escape(row[0], out);
        EXPECT_STREQ(out.data(), row[2].c_str());
    }
}

} // namespace
