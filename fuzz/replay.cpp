// Runs a fuzz target once on each file of a corpus, for builds without libFuzzer.
#include "support.h"

#include <iterator>

int main(int argc, char* argv[]) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(argc > 1 ? argv[1] : ".")) {
        std::ifstream file(entry.path(), std::ios::binary);
        std::vector<std::uint8_t> input{std::istreambuf_iterator<char>(file), {}};
        input.shrink_to_fit();  // so that a sanitizer reports a read beyond the end
        std::fprintf(stderr, "%s\n", entry.path().c_str());
        LLVMFuzzerTestOneInput(input.data(), input.size());
        count++;
    }
    return count > 0 ? 0 : 1;
}
