// A mail server's side of a report. Byte 255 stands for 4096 bytes, as lines can be longer than inputs.
#include "app/bugreport.h"
#include "tests/fuzz/target.h"
#include "tests/support/mail_server.h"

void take(std::string_view input)
{
    server_says.clear();
    for (size_t i = 0; i < input.size() && server_says.size() < 60000; ++i)
        server_says.append(input[i] == '\xFF' ? 4096 : 1, input[i] == '\xFF' ? 'x' : input[i]);
    std::string_view rest = server_says;
    bool accepts = true;
    for (const char *code : {"220", "250", "250", "250", "354", "250"}) {
        const size_t end = rest.substr(0, 8191).find('\n');
        accepts = accepts && rest.starts_with(code) && (end != rest.npos || rest.size() >= 8191);
        rest.remove_prefix(std::min(end == rest.npos ? 8191 : end + 1, rest.size()));
    }
    require((bugreport_send() == 0) == accepts && close(server_end) == 0);
}
