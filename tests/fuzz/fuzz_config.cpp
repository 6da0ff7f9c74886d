// Feeds the reader of the configuration file, which may refuse a number by the two exceptions of std::stoul only.
#include <fstream>
#include <stdexcept>

#include "config.hpp"
#include "fuzz_file.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const zqu::fuzz::File file(data, size);
    zqu::Config cfg;
    try {
        if (!zqu::Config::load(file.path(), cfg)) {
            __builtin_trap();
        }
    } catch (const std::invalid_argument&) {
    } catch (const std::out_of_range&) {
    }
    std::string reason;
    static_cast<void>(cfg.validate(reason));
    return 0;
}
