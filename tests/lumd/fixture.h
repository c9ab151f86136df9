// A service manager over configuration text, with variables and service kinds played by the test.
//
// A service without an exec line, or with "exec fake WORD", is a fake: its operations are added to the trace,
// and the test reports its starts and ends. "eager" reports its start from within it, "fails" refuses to
// start, "missing" cannot be created until a variable FOUND exists. All others are processes.
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
extern bool old_kernel; // it lacks close_range

struct lumd_test : support::test {
    lumd_test();
    ~lumd_test() override;

    // Parses configuration text into a new manager; ";^$@" stand for line end, tab, carriage return and $.
    // Returns the last index. load also sets it up as lumd_init does, but without control FIFO and with the
    // test's variables.
    int parse(std::string conf);
    virtual void load(const std::string &conf);

    // Plays steps such as "start a > start b, start a / up b": each with the events that it causes.
    void play(const std::string &script);
    virtual void step(const std::string &text);
    virtual std::string events() { return trace(); } // since the last call
    // Plays each line "description => services => steps".
    void play_all(std::string_view scripts);

    service_info *slot(std::string_view name) const;
    proc_svcent *process(std::string_view name) const; // null for a fake or without an entry
    // Signals the service's child unless it has been reaped: its pid may then belong to another process.
    void signal_child(std::string_view name, int number) const;
    void apply(std::string_view assignments) const; // "A=1 B=2"
    void end_services();                            // without trace; expects that nothing is left of them
    // True if the log has a failure that is not in usual; fills usual if it is empty.
    static bool tells_news(std::set<std::string> &usual);
    static std::string trace(); // the fakes' operations since the last call

    lumd *manager = nullptr;
    support::captured_log log;
};

// The cells of a table's lines "a => b => c", always three, padded with empty ones. A line that begins with a
// blank continues the previous one.
std::vector<std::array<std::string, 3>> table(std::string_view text);
std::vector<std::string> split(std::string_view text, std::string_view separator);

// Passes of the loop in real time, with the virtual clock stopped, until done; false after ten seconds.
bool eventually(const std::function<bool()> &done);
bool no_child_left();
