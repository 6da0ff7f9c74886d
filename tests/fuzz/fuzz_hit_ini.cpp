// Feeds the reader of the hit INI through the mirror client, from a mirror of local files, and compares the id that it
// finds with what the rules of the file give.
#include "fuzz.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static zqu::fuzz::LocalMirror mirror;
    const std::string text = zqu::fuzz::to_string(data, size);
    mirror.serve("antivir-v2-hit.ini", text);
    const std::string wanted = zqu::fuzz::first_value(text, "defid");
    zqu::fuzz::require(mirror.client.fetch_defid() == (wanted.empty() ? std::nullopt : std::optional(wanted)));
    return 0;
}
