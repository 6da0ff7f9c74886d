// Runs a fuzz target over the files of a corpus, one after the other, without libFuzzer: replay_<target> <directory>
// A crash or a failed check ends it as it ends the fuzzer; so does a corpus without a file.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <utility>
#include <vector>

#include "fuzz.hpp"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: replay_<target> <directory>\n", stderr);
        return 2;
    }
    // All of them are read first: a target may give up the right to.
    std::vector<std::pair<std::string, std::string>> inputs;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        inputs.emplace_back(entry.path().filename().string(), zqu::fuzz::read_file(entry.path().string()));
    }
    if (inputs.empty()) {
        std::fprintf(stderr, "no inputs in %s\n", argv[1]);
        return 1;
    }
    std::sort(inputs.begin(), inputs.end());
    for (const auto& [name, content] : inputs) {
        std::printf("%s\n", name.c_str());
        std::fflush(stdout);  // the last name printed is the one that failed
        const std::vector<std::uint8_t> bytes(content.begin(), content.end());
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::printf("%zu inputs\n", inputs.size());
    return 0;
}
