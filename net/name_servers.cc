#include "net/name_servers.h"

#include "app/text.h"

bool next_name_server(FILE *list, std::span<char> line, std::string_view &address)
{
    constexpr std::string_view keyword = "nameserver";
    while (fgets(line.data(), static_cast<int>(line.size()), list)) {
        const std::string_view text = skip_space(line.data());
        if (!text.starts_with(keyword))
            continue;
        address = skip_space(text.substr(keyword.size()));
        return true;
    }
    return false;
}
