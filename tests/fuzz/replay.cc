// Runs a fuzz target once over the named files, where libFuzzer is not at hand.
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        printf("%s\n", argv[i]), fflush(stdout);
        std::ifstream file(argv[i], std::ios::binary);
        if (!file)
            return 1;
        const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    return argc > 1 ? 0 : 1;
}
