// An asynchronous resolver: one question over UDP to every name server of /etc/resolv.conf, and the first
// good answer.
//
// A record is initialised once, queried any number of times, one query at a time, and released once. A query
// is answered (status 0), or has no answer (status 62) after five passes over the servers that wait 1, 2, 3,
// 4 and 5 seconds. A reply that is cut before its header ends it without a callback; whatever else is wrong
// with a reply is logged and ignored. A new query replaces one under way, and may be made from inside the
// callback, which may release the record, too. A name that is a dotted quad is answered by the next pass of
// the loop, without a packet.
#pragma once

#include "app/timer.h"
#include "net/dns_message.h"

#include <cstdint>

constexpr int resolver_name_size = 256;
constexpr int resolver_result_size = 1024;

enum resolver_status { RESOLVER_ANSWERED = 0, RESOLVER_NO_ANSWER = 62 };

struct resolver;

// Called from the loop.
using resolver_answer = void (*)(void *ctx, resolver *res, int status);

struct resolver {
    uint8_t id[2];
    uint16_t qclass;
    uint16_t qtype;
    ::timer *timer;
    int sock; // -1 when closed
    char name[resolver_name_size];
    char result[resolver_result_size]; // ends with a zero beyond result_len
    int result_len;                    // -1 while a query is outstanding
    void *ctx;
    resolver_answer callback;
    int attempts; // passes over the servers, of this query
};

// Reads the name servers, 16 at most, for all resolvers. Their number, or -1 (logged) without a file. A query
// reads them again if the file has changed since; one that has gone leaves the list as it is.
int _resolver_init();

// An idle resolver with its socket. 0, or -1 (logged) when the socket cannot be had.
int resolver_init(resolver *res, uint16_t qtype, uint16_t qclass);
void resolver_set_callback(resolver *res, void *ctx, resolver_answer fn);

// 0 when the query is under way; -1, logged, when the name does not allow it or no server can be sent to. A
// name of more than 255 characters is refused before a query under way ends.
extern "C" int resolver_query(resolver *res, const char *name);

// Copies the answer and returns its length: for A four bytes, for PTR and MX a name, for TXT a text, else the
// record's data. -1 when it does not fit.
int resolver_result(const resolver *res, void *buf, int cap);

// Closes and withdraws all that could still reach the record.
void resolver_release(resolver *res);

// Four bytes from "a.b.c.d", where a part may be empty and what follows a fourth part is ignored. 0 or -1.
int parse_ipv4(const char *text, uint8_t *out);
