// A flash partition, with room after it if its size is odd. The header's digest is corrected, so that the
// input gets past it.
#include "syscfg/registry.h"
#include "tests/fuzz/machine.h"
#include "tests/fuzz/target.h"

#include <md5.h>

void take(std::string_view input)
{
    std::string image(input);
    image.resize(std::max(input.size(), registry_header_size) + input.size() % 2 * 0x20000);
    MD5_CTX context;
    MD5Init(&context);
    auto *header = reinterpret_cast<uint8_t *>(image.data());
    MD5Update(&context, header + 20, registry_header_size - 20);
    MD5Final(header + 4, &context);
    const memory_file flash(image);
    char blob[512];
    readregistry(flash.path, "syscfg", blob, sizeof blob, 0);
    writeregistry(flash.path, "syscfg", blob, sizeof blob, 0);
}
