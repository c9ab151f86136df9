// An asynchronous resolver: it sends one question over UDP to every name server of /etc/resolv.conf and takes
// the first good answer.
//
// A record is initialised once, queried any number of times, one query at a time, and released once. A query
// ends answered (status 0) or, after five passes over the servers that wait 1, 2, 3, 4 and 5 seconds,
// unanswered (status 62). A reply shorter than a header ends the query without a callback; any other bad
// reply is logged and ignored. A new query replaces one under way. The callback may start one, and may
// release the record. A name that is a dotted quad is answered by the next pass of the loop, without a
// packet.
#pragma once

#include "app/memory.h"
#include "app/timer.h"
#include "net/dns_message.h"

#include <cstdint>

constexpr int resolver_name_size = 256;
constexpr int resolver_result_size = 1024;

enum resolver_status : uint8_t { RESOLVER_ANSWERED = 0, RESOLVER_NO_ANSWER = 62 };

struct resolver;

// Called from the loop.
using resolver_answer = void (*)(void *ctx, resolver *res, resolver_status status);

struct resolver {
    uint8_t id[2];
    uint16_t qclass;
    uint16_t qtype;
    unique_timer timer;
    unique_fd sock;
    char name[resolver_name_size];
    char result[resolver_result_size]; // ends with a zero beyond result_len
    int result_len;                    // -1 while a query is under way
    void *ctx;
    resolver_answer callback;
    int attempts; // passes over the servers, of this query

    // Withdraws all callbacks that could still reach the record.
    ~resolver();
};

// Reads the name servers, 16 at most, for all resolvers. Their number, or -1 (logged) without a file. A query
// reads them again when the file has changed; when the file is gone, the list stays.
[[nodiscard]] int _resolver_init();

// Opens the socket of a new or released record. 0, or -1 (logged) when there is no socket.
[[nodiscard]] int resolver_init(resolver *res, uint16_t qtype, uint16_t qclass);
void resolver_set_callback(resolver *res, void *ctx, resolver_answer fn);

// The same with a typed context: fn is a void (Context *, resolver *, resolver_status).
template <auto fn>
void resolver_set_callback(resolver *res, context_of<fn> *ctx)
{
    resolver_set_callback(res, ctx, typed<fn>::call);
}

// 0 when the query is under way; -1, logged, for a malformed name or when no server can be sent to. A name of
// more than 255 characters is refused and leaves a query under way alone.
extern "C" [[nodiscard]] int resolver_query(resolver *res, const char *name);

// Copies the answer and returns its length: for A four bytes, for PTR and MX a name, for TXT a text, else the
// record's data. -1 when it does not fit.
[[nodiscard]] int resolver_result(const resolver *res, void *buf, int cap);

// Ends a query without a callback, closes the socket and makes the record new.
void resolver_release(resolver *res);

// Four bytes from "a.b.c.d". A part may be empty; text after a fourth part is ignored. 0 or -1.
[[nodiscard]] int parse_ipv4(const char *text, uint8_t *out);
