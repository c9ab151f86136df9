// What a mail server says to a report. A byte 255 stands for 4096 others, as lines can be longer than inputs.
#include "app/bugreport.h"
#include "tests/fuzz/target.h"

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
    require(made && written && shutdown(ends[1], SHUT_WR) == 0 && close(ends[0]) == 0);
    return 0;
}
extern "C" hostent *gethostbyname(const char *)
{
    return nullptr;
}

void take(std::string_view input)
{
    said.clear();
    for (size_t i = 0; i < input.size() && said.size() < 60000; ++i)
        said.append(input[i] == '\xFF' ? 4096 : 1, input[i] == '\xFF' ? 'x' : input[i]);
    std::string_view rest = said;
    bool accepts = true;
    for (const char *code : {"220", "250", "250", "250", "354", "250"}) {
        const size_t end = rest.substr(0, 8191).find('\n');
        accepts = accepts && rest.starts_with(code) && (end != rest.npos || rest.size() >= 8191);
        rest.remove_prefix(std::min(end == rest.npos ? 8191 : end + 1, rest.size()));
    }
    require((bugreport_send() == 0) == accepts && close(ends[1]) == 0);
}
