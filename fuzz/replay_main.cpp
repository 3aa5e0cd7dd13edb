// Runs a fuzz target over the files named on the command line, once each: the
// seed corpus replayed as a test by any compiler, without libFuzzer.
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::ifstream in(argv[i], std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "replay: cannot read %s\n", argv[i]);
            return 1;
        }
        std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::printf("replay: %d inputs\n", argc - 1);
    return 0;
}
