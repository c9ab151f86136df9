// DNS messages (RFC 1035) as bytes: builds the query that we send and checks and decodes a reply.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

enum resolver_type : uint16_t { RESOLVER_A = 1, RESOLVER_PTR = 12, RESOLVER_MX = 15, RESOLVER_TXT = 16 };
enum resolver_class : uint16_t { RESOLVER_IN = 1 };

constexpr size_t dns_header_size = 12;
constexpr size_t max_dns_message = 524;
using dns_query_buffer = std::array<uint8_t, max_dns_message>;

// Builds a question for one name, with or without the final dot. Returns the packet's length; 0 when a label
// is empty or too long, or the name does not fit.
size_t dns_build_query(dns_query_buffer &packet, const uint8_t (&id)[2], std::string_view name,
                       uint16_t qtype, uint16_t qclass);

// The position of the answer's data in a reply, in bytes.
struct dns_answer {
    size_t at;
    size_t length;
};

// Finds the first answer of that type and class in a reply to the query with that identifier. False when
// there is none, or the reply belongs to another query, reports an error or is cut.
bool dns_find_answer(std::span<const uint8_t> reply, const uint8_t (&id)[2], uint16_t qtype, uint16_t qclass,
                     dns_answer &answer);

// Writes the answer's data in the form of its type, names as text, and returns its length, at most 1023. out
// holds at least that; answer.length is below 1024.
size_t dns_decode(std::span<const uint8_t> reply, const dns_answer &answer, uint16_t qtype,
                  std::span<char> out);
