// DNS messages (RFC 1035) as bytes: the query we send, and what may be believed of a reply.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

enum resolver_type : uint16_t { RESOLVER_A = 1, RESOLVER_PTR = 12, RESOLVER_MX = 15, RESOLVER_TXT = 16 };
enum resolver_class : uint16_t { RESOLVER_IN = 1 };

constexpr size_t dns_header_size = 12;
constexpr size_t dns_message_max = 524;
using dns_query_buffer = std::array<uint8_t, dns_message_max>;

// A question for one name, the root with or without its dot. The packet's length, 0 when the name has an
// empty or too long label or does not fit.
size_t dns_build_query(dns_query_buffer &packet, const uint8_t (&id)[2], std::string_view name,
                       uint16_t qtype, uint16_t qclass);

// Where in a reply the data of the answer stands, in bytes.
struct dns_answer {
    size_t at;
    size_t length;
};

// Finds the first answer of that type and class in a reply to the query of that identifier. False when it is
// no such reply, tells an error, or is cut.
bool dns_find_answer(std::span<const uint8_t> reply, const uint8_t (&id)[2], uint16_t qtype, uint16_t qclass,
                     dns_answer &answer);

// Writes the answer's data as its type wants it, names as text, and returns its length. out holds 1024 bytes,
// of which the last is not used; answer.length is below that.
size_t dns_decode(std::span<const uint8_t> reply, const dns_answer &answer, uint16_t qtype,
                  std::span<char> out);
