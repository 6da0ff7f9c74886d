// Feeds the reader of the hit INI through the mirror client, from a mirror of local files, and compares the id that it
// finds with what the rules of the file give.
#include <optional>
#include <string>

#include "mirror_ini.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static zqu::fuzz::LocalMirror mirror;
    mirror.serve("antivir-v2-hit.ini", data, size);
    auto wanted = zqu::fuzz::first_value(zqu::fuzz::to_string(data, size), "defid");
    if (wanted && wanted->empty()) {
        wanted.reset();
    }
    zqu::fuzz::require(mirror.client().fetch_defid() == wanted);
    return 0;
}
