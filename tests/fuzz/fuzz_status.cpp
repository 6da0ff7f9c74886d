// Feeds the writer of the status file: the ten lines have to be there, with every value escaped and nothing else.
#include <cstring>

#include "../unit/expectations.hpp"
#include "fuzz.hpp"

namespace {

using Status = zqu::SnapshotStore::Status;

zqu::Config configuration(const zqu::fuzz::Directory& directory) {
    zqu::Config cfg;
    cfg.def_root = directory / "defs";
    cfg.status_path = directory / "status.json";
    return cfg;
}

// The input: two times, then four marks that say where the rest is cut into five texts.
Status status_from(const std::string& input) {
    std::int64_t times[2];
    unsigned char marks[4];
    std::memcpy(times, input.data(), sizeof(times));
    std::memcpy(marks, input.data() + sizeof(times), sizeof(marks));
    const std::string rest = input.substr(sizeof(times) + sizeof(marks));
    std::string texts[5];
    std::size_t start = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        const std::size_t length = (rest.size() - start) * marks[i] / 255;
        texts[i] = rest.substr(start, length);
        start += length;
    }
    return {texts[0], texts[1], texts[2], texts[3], times[0], times[1], rest.substr(start)};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 20) {
        return 0;
    }
    static const zqu::fuzz::Directory directory;
    static const zqu::Config cfg = configuration(directory);
    static const zqu::SnapshotStore store(cfg);
    Status status = status_from(zqu::fuzz::to_string(data, size));
    store.write_status(status);
    for (std::string* text : {&status.active_version, &status.engine_version, &status.antivir_def_version,
                              &status.aivsecon_def_version, &status.last_error}) {
        *text = zqu::test::escaped(*text);
    }
    zqu::fuzz::require(zqu::fuzz::read_file(cfg.status_path) == zqu::test::status_text(status));
    return 0;
}
