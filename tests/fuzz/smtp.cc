// What a mail server says to a report. A byte 255 stands for 4096 others, as lines can be longer than inputs.
#include "app/bugreport.h"

#include <cstdint>
#include <cstdlib>
#include <netdb.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

static std::string said;
static int ends[2];

extern "C" int connect(int fd, const sockaddr *, socklen_t)
{
    const bool made = socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0 && dup2(ends[0], fd) == fd;
    const bool written = send(ends[1], said.data(), said.size(), 0) == static_cast<ssize_t>(said.size());
    return made && written && shutdown(ends[1], SHUT_WR) == 0 && close(ends[0]) == 0 ? 0 : (abort(), -1);
}
extern "C" hostent *gethostbyname(const char *)
{
    return nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    said.clear();
    for (size_t i = 0; i < size && said.size() < 60000; ++i)
        data[i] == 255 ? said.append(4096, 'x') : said.append(1, static_cast<char>(data[i]));
    std::string_view rest = said;
    bool accepts = true;
    for (const char *code : {"220", "250", "250", "250", "354", "250"}) {
        const size_t end = rest.substr(0, 8191).find('\n');
        accepts = accepts && rest.starts_with(code) && (end != rest.npos || rest.size() >= 8191);
        rest.remove_prefix(std::min(end == rest.npos ? 8191 : end + 1, rest.size()));
    }
    return (bugreport_send() == 0) == accepts && close(ends[1]) == 0 ? 0 : (abort(), -1);
}
