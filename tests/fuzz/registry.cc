// A flash partition, with room behind it when it has an odd number of bytes: the header's seal is made to
// fit, since what is behind it is of interest.
#include "syscfg/registry.h"
#include "tests/fuzz/machine.h"

#include <md5.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<uint8_t> image(data, data + size);
    image.resize(std::max(size, registry_header_size) + size % 2 * 0x20000);
    MD5_CTX context;
    MD5Init(&context);
    MD5Update(&context, &image[20], registry_header_size - 20);
    MD5Final(&image[4], &context);
    const memory_file flash(image.data(), image.size());
    char blob[512];
    readregistry(flash.path, "syscfg", blob, sizeof blob, 0);
    writeregistry(flash.path, "syscfg", blob, sizeof blob, 0);
    return 0;
}
