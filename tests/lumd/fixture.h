// A service manager over configuration text, with variables and service kinds that the test plays itself.
//
// A service without an exec line, or with "exec fake WORD", is a fake: its operations go into the trace, and
// the test reports its starts and ends. "eager" reports its start from inside it, "fails" refuses to start,
// "missing" cannot be created before there is a variable FOUND. All else is a process.
#pragma once

#include "lumd/kinds.h"
#include "lumd/lumd.h"
#include "lumd/proc_command.h"
#include "lumd/proc_se.h"
#include "tests/support/support.h"

#include <array>
#include <map>
#include <set>
#include <string>
#include <vector>

extern std::map<std::string, std::string> variables;
extern int fakes_alive;
extern bool old_kernel; // there is no close_range

struct lumd_test : support::test {
    lumd_test();
    ~lumd_test() override;

    // Reads configuration text, in which ";^$@" stand for line end, tab, carriage return and $, into a new
    // manager; the last index. load also makes it as lumd_init leaves it, but without control FIFO and with
    // the test's variables.
    int parse(std::string conf);
    virtual void load(const std::string &conf);

    // Plays steps such as "start a > start b, start a / up b": each with the events that it brings about.
    void play(const std::string &script);
    virtual void step(const std::string &text);
    virtual std::string events() { return trace(); } // since the last call
    // The same for each line "what it shows => services => steps".
    void play_all(std::string_view scripts);

    service_info *slot(std::string_view name) const;
    proc_svcent *process(std::string_view name) const; // null for a fake and without an entry
    // To the service's child, if it has one that has not been reaped: its pid may be anybody's by then.
    void signal_child(std::string_view name, int number) const;
    void apply(std::string_view assignments) const; // "A=1 B=2"
    void end_services();                            // without trace; expects that nothing of them is left
    // Whether the log tells of a failure that is not in usual; fills one that is empty.
    static bool tells_news(std::set<std::string> &usual);
    static std::string trace(); // the operations of fakes since the last call

    lumd *manager = nullptr;
    support::captured_log log;
};

// The cells of the lines of a table, "a => b => c"; three, padded with empty ones. A line that begins with a
// blank goes on where the one before ended.
std::vector<std::array<std::string, 3>> table(std::string_view text);
std::vector<std::string> split(std::string_view text, std::string_view separator);

// Passes of the loop in real time, at a virtual clock that stands still, until done; false after ten seconds.
bool eventually(const std::function<bool()> &done);
bool no_child_left();
