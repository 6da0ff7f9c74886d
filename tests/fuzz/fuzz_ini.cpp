// Feeds the reader of the hit INI and of the complete-info INI through the mirror client, from a mirror of local files,
// and compares the id and the record that they yield with what the rules of these files give.
#include <cerrno>
#include <cstdlib>

#include "fuzz.hpp"

namespace {

std::int64_t number_in(const std::string& value) {
    errno = 0;
    const long long number = std::strtoll(value.c_str(), nullptr, 10);  // no digits: 0
    return errno == ERANGE ? 0 : number;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static zqu::fuzz::LocalMirror mirror;
    const std::string text = zqu::fuzz::to_string(data, size);
    mirror.serve("antivir-v2-hit.ini", text);
    const std::string defid = zqu::fuzz::first_value(text, "defid");
    zqu::fuzz::require(mirror.client.fetch_defid() == (defid.empty() ? std::nullopt : std::optional(defid)));

    mirror.serve("antivir-v2-c-7.ini", text);
    const auto got = mirror.client.fetch_complete_info("7");

    const auto value = [&text](const std::string& key) { return zqu::fuzz::first_value(text, "def.current." + key); };
    zqu::fuzz::require(got.has_value() == (!value("name").empty() && !value("sha256").empty()));
    if (got) {
        zqu::fuzz::require(got->cab_name == value("name"));
        zqu::fuzz::require(got->sha256 == value("sha256"));
        zqu::fuzz::require(got->defid == (value("defid").empty() ? "7" : value("defid")));
        zqu::fuzz::require(got->size == number_in(value("size")));
    }
    return 0;
}
