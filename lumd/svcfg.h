// What the configuration files say of one service, and the parsers of their lines.
//
// A parser takes a whole line, keyword included, without leading blanks, trailing white space and line end.
// An overlong name is cut. A word beyond a list's capacity is refused with a log line, and the rest of the
// line still counts. A parser fails, with a negative result, only when memory is out.
#pragma once

#include "app/memory.h"

#include <cstddef>
#include <string_view>
#include <type_traits>
#include <utility>

struct lumd;
struct service_info;

constexpr size_t svcfg_name_size = 32;
constexpr int svcfg_exec_max = 81;
constexpr size_t svcfg_condition_max = 64;
constexpr size_t svcfg_pattern_max = 64;
constexpr size_t svcfg_depend_max = 16;
constexpr size_t svcfg_cmd_max = 8;
constexpr size_t svcfg_cmd_word_max = 16;
constexpr size_t svcfg_cmd_name_max = 63;

using svcfg_word = char *;

// Owns its places and their text. It grows by a place at a time: most services fill few.
template <typename Place>
class svcfg_places {
  public:
    svcfg_places() = default;
    svcfg_places(svcfg_places &&other) noexcept
        : places_(std::exchange(other.places_, nullptr)), count_(std::exchange(other.count_, 0))
    {
    }
    ~svcfg_places() { clear(); }

    [[nodiscard]] size_t size() const { return count_; }
    [[nodiscard]] const Place *begin() const { return places_; }
    [[nodiscard]] const Place *end() const { return places_ + count_; }
    [[nodiscard]] Place *begin() { return places_; }
    [[nodiscard]] Place *end() { return places_ + count_; }

    // The words of a command line, as execv takes them: ended by null, and never null itself.
    [[nodiscard]] char *const *words() const requires std::is_same_v<Place, svcfg_word>
    {
        static char *const none[] = {nullptr};
        return places_ ? places_ : none;
    }

    // Adds a place with a copy of text. Null, and nothing added, when memory is out.
    [[nodiscard]] Place *append(std::string_view text);
    void clear();

  private:
    Place *places_ = nullptr;
    size_t count_ = 0;
};

template <typename Place, size_t Max>
struct svcfg_list : svcfg_places<Place> {
};

// A variable and the value that it must have for the service to run. Without a value it imposes nothing.
struct svcfg_condition {
    int flag; // a "~" stood before the name
    unique_text name;
    unique_text value;
};

struct svcfg_link {
    unique_text name;
    service_info *info; // the slot of that name, null when there is none
};

struct svcfg_cmd {
    unique_text name;
    svcfg_list<svcfg_word, svcfg_cmd_word_max> argv;
};

using svcfg_links = svcfg_list<svcfg_link, svcfg_depend_max>;

struct svcfg {
    char proc[svcfg_name_size];
    int argc;
    svcfg_list<svcfg_word, svcfg_exec_max> argv;
    svcfg_list<svcfg_condition, svcfg_condition_max> dsyscfg;
    svcfg_list<svcfg_word, svcfg_pattern_max> syscfg_patterns;
    svcfg_links depend;
    svcfg_links depended;
    svcfg_list<svcfg_cmd, svcfg_cmd_max> cmds;
    lumd *owner;
    int index;

    ~svcfg();
};

// A zeroed record for the slot of that index, for free_record; or null (logged) when memory is out.
svcfg *create_service_cfg(lumd *owner, int index);

// Takes the service's name and returns it.
const char *svcfg_parseServiceLine(svcfg *cfg, std::string_view line);
[[nodiscard]] int svcfg_parseExecLine(svcfg *cfg, std::string_view line);
[[nodiscard]] int svcfg_parseDepends(svcfg *cfg, std::string_view line);
[[nodiscard]] int svcfg_parseSyscfgLine(svcfg *cfg, std::string_view line);
[[nodiscard]] int svcfg_parseCmdLine(svcfg *cfg, std::string_view line);

// The words of the last command of that name, or an empty list; never null.
char *const *svcfg_find_command(const svcfg *cfg, std::string_view name);

// Adds a name to one of the record's lists of links. A full list refuses it with a log line, in which what
// names the list. -1 when memory is out.
[[nodiscard]] int svcfg_add_link(const svcfg *cfg, svcfg_links &links, std::string_view name,
                                 const char *what);
