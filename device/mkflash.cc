// mkflash IMAGE [NAME FILE]: makes the image of an erased flash partition and, if given, stores the bytes of
// FILE in it as the blob NAME. Exit status: 0 done, 2 usage, 7 the image or the blob could not be written.
#include "syscfg/registry.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>

namespace {

// Room for the header and both blobs of the default table, in whole erase blocks.
constexpr off_t partition_size = off_t{128} * 1024;

int fail(int code, const char *what, const char *name)
{
    std::fprintf(stderr, "mkflash: %s: %s\n", name, what);
    return code;
}

bool make_erased(const char *path)
{
    const int fd = open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    const bool is_sized = ftruncate(fd, partition_size) == 0;
    return close(fd) == 0 && is_sized;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2 && argc != 4)
        return fail(2, "usage: mkflash IMAGE [NAME FILE]", "what?");
    if (!make_erased(argv[1]))
        return fail(7, std::strerror(errno), argv[1]);
    if (argc == 2)
        return 0;
    std::ifstream file(argv[3], std::ios::binary);
    const std::string blob((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (!file || blob.size() > static_cast<size_t>(partition_size))
        return fail(7, "cannot be read, or is larger than the partition", argv[3]);
    if (writeregistry(argv[1], argv[2], blob.data(), static_cast<int>(blob.size()), 0) < 0)
        return fail(7, "the blob does not go in", argv[1]);
    return 0;
}
