// Runs the daemon on its virtual device and talks to it, for benchmarks.
#pragma once

#include "bench/clock.h"

#include <string>
#include <string_view>
#include <vector>

constexpr int service_count = 32;
constexpr const char *daemon_socket = "/tmp/.syscfg-server";
constexpr const char *started_program = "/opt/bin/first_instruction";
constexpr const char *ordinary_program = "/opt/bin/ordinary"; // linked with the C library

struct running_daemon {
    pid_t pid;
    int client;      // asks the database
    int requests;    // the control FIFO
    int64_t boot_ns; // from vfork to "lumd started!"
};

// Returns the end of a pipe from which take_report reads everything written to standard output from now on:
// by the daemon, by its programs and by us. Called once, before all others.
int collect_reports();
start_report take_report(int reports);

// Starts a daemon with 32 services, all running that program and none up, and waits until it answers. A
// daemon started before keeps its sockets but loses their names; all daemons die with us.
running_daemon run_daemon(int reports, const char *program = started_program, const char *log = "/dev/null");
void end_daemon(const running_daemon &daemon);

// "start" or "stop" and the names of the first services.
std::string service_request(const char *verb, int services);

// Returns once the processes are gone and the daemon has nothing left to do.
void await_ends(const running_daemon &daemon, const std::vector<start_report> &started);

// Datagram sockets with a path each; a client's is connected to a server's.
int bound_socket(const std::string &path);
int client_of(const char *server);

// The answer.
std::string receive(int client);
std::string ask(int client, std::string_view request);
