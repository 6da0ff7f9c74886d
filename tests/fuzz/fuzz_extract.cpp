// Feeds the extraction. Whatever the archive holds, nothing outside the destination may come into being.
#include <filesystem>

#include "fuzz_file.hpp"
#include "verifier.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const zqu::fuzz::File file(data, size);
    const std::string dest = file.folder() + "/dest";
    static_cast<void>(zqu::verifier::extract(file.path(), dest));
    for (const auto& entry : std::filesystem::directory_iterator(file.folder())) {
        if (entry.path() != dest && entry.path() != file.path()) {
            __builtin_trap();
        }
    }
    return 0;
}
