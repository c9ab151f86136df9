// A database on a device of the test's own.
#pragma once

#include "syscfg/store.h"
#include "syscfg/syscfg.h"
#include "tests/support/support.h"

#include <map>
#include <memory>

using namespace support;

// Reports to the service manager: "A B;" is one report of two names.
extern std::string reported;

std::string trimmed(std::string_view text); // without surrounding blanks
// Cases, one a line, in trimmed columns between "|"; "\n" in a case stands for a line end.
std::vector<std::vector<std::string>> rows(std::string_view text);

void free_database(syscfg *db);
using database = std::unique_ptr<syscfg, void (*)(syscfg *)>;

// declare builds the tables from these lines of definition; start starts the database like the daemon, and
// returns null on failure.
database declare(std::string_view definition);
database start(std::string_view definition);
// "NAME=value/flags " of every variable.
std::string show(const syscfg *db);
int set(const syscfg *db, const std::string &name, const std::string &value);

struct flash_entry {
    std::string name; // 16 bytes are used
    uint32_t capacity;
    uint32_t length;
};
// A device with that table and a correct digest.
void write_flash(std::string_view device, const std::vector<flash_entry> &table, size_t size = 128 << 10);
constexpr char flash5[] = "/dev/mtdblock/5";
constexpr char flash6[] = "/dev/mtdblock/6";

struct syscfg_test : test {
    syscfg_test();
    captured_log log;
};
