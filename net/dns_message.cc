#include "net/dns_message.h"

#include "app/text.h"
#include "net/wire.h"

namespace {

constexpr size_t max_label = 63;
constexpr size_t question_tail = 4; // type and class
constexpr size_t record_head = 10;  // type, class, time to live, length of the data
constexpr size_t max_decoded = 766; // a label that begins before is still decoded
constexpr size_t out_of_reply = SIZE_MAX;
constexpr uint8_t recursion_desired = 0x01;
constexpr uint8_t is_reply = 0x80, opcode_mask = 0x78, rcode_mask = 0x0F;
constexpr uint16_t pointer_mark = 0xC000;

using bytes = std::span<const uint8_t>;

class writer {
  public:
    explicit writer(std::span<uint8_t> out) : out_(out) {}
    void put(uint8_t byte)
    {
        if (length_ < out_.size())
            out_[length_] = byte;
        ++length_;
    }
    void put16(uint16_t number)
    {
        put(static_cast<uint8_t>(number >> 8));
        put(static_cast<uint8_t>(number));
    }
    // 0 when the packet was too small.
    [[nodiscard]] size_t length() const { return length_ <= out_.size() ? length_ : 0; }

  private:
    std::span<uint8_t> out_;
    size_t length_ = 0;
};

bool put_name(writer &packet, std::string_view name)
{
    if (name.ends_with('.'))
        name.remove_suffix(1);
    for (bool more = !name.empty(); more;) {
        more = name.find('.') != name.npos;
        const std::string_view label = cut_until(name, '.');
        if (label.empty() || label.size() > max_label)
            return false;
        packet.put(static_cast<uint8_t>(label.size()));
        for (const char c : label)
            packet.put(static_cast<uint8_t>(c));
    }
    packet.put(0);
    return true;
}

// The end of the name that begins at at; the end of the message or beyond when the name is cut.
size_t skip_name(bytes message, size_t at)
{
    while (at < message.size() && message[at] != 0) {
        if (message[at] > max_label)
            return at + 2;
        at += 1U + message[at];
    }
    return at < message.size() ? at + 1 : at;
}

bool has(bytes message, size_t at, size_t length)
{
    return at <= message.size() && length <= message.size() - at;
}

// Joins the labels by dots. A compression pointer must lead back, or a loop of pointers would never end.
size_t decode_name(bytes message, size_t at, std::span<char> out)
{
    size_t length = 0;
    size_t lowest = at;
    while (length <= max_decoded && at < message.size() && message[at] != 0) {
        const size_t label = message[at];
        if (label > max_label) {
            const size_t to = at + 1 < message.size() ? number_at(message, at) - pointer_mark : out_of_reply;
            if (to < dns_header_size || to >= lowest)
                break;
            lowest = at = to;
            continue;
        }
        if (length > 0)
            out[length++] = '.';
        const size_t count = std::min(label, message.size() - at - 1);
        memcpy(out.data() + length, message.data() + at + 1, count);
        length += count;
        at += 1 + label;
    }
    return length;
}

size_t copy_data(bytes data, std::span<char> out)
{
    memcpy(out.data(), data.data(), data.size());
    return data.size();
}

} // namespace

size_t dns_build_query(dns_query_buffer &packet, const uint8_t (&id)[2], std::string_view name,
                       uint16_t qtype, uint16_t qclass)
{
    writer out(packet);
    out.put(id[0]);
    out.put(id[1]);
    out.put(recursion_desired);
    out.put(0);
    for (const uint16_t count : {1, 0, 0, 0})
        out.put16(count);
    if (!put_name(out, name))
        return 0;
    out.put16(qtype);
    out.put16(qclass);
    return out.length();
}

bool dns_find_answer(bytes reply, const uint8_t (&id)[2], uint16_t qtype, uint16_t qclass, dns_answer &answer)
{
    if (reply.size() < dns_header_size || reply[0] != id[0] || reply[1] != id[1] || !(reply[2] & is_reply) ||
        (reply[2] & opcode_mask) != 0 || (reply[3] & rcode_mask) != 0)
        return false;
    size_t at = dns_header_size;
    for (int questions = number_at(reply, 4); questions > 0 && at < reply.size(); --questions)
        at = skip_name(reply, at) + question_tail;
    for (int answers = number_at(reply, 6); answers > 0; --answers) {
        at = skip_name(reply, at);
        if (!has(reply, at, record_head))
            return false;
        answer = {at + record_head, number_at(reply, at + 8)};
        if (number_at(reply, at) == qtype && number_at(reply, at + 2) == qclass)
            return has(reply, answer.at, answer.length);
        at = answer.at + answer.length;
    }
    return false;
}

size_t dns_decode(bytes reply, const dns_answer &answer, uint16_t qtype, std::span<char> out)
{
    const bytes data = reply.subspan(answer.at, answer.length);
    switch (qtype) {
    case RESOLVER_PTR:
        return decode_name(reply, answer.at, out);
    case RESOLVER_MX:
        return decode_name(reply, answer.at + 2, out);
    case RESOLVER_TXT:
        return data.empty() ? 0 : copy_data(data.subspan(1, std::min<size_t>(data[0], data.size() - 1)), out);
    default:
        return copy_data(data, out);
    }
}
