// The settings that the daemon goes by, where each comes from, and what follows from them.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "mirror_client.hpp"
#include "reading.hpp"

namespace zqu::config_tool {

// Shows any number of configurations, one after the other.
class Show {
public:
    // reading as lines for people, each ending in a line feed; without a text or with a fatal line it tells only that.
    [[nodiscard]] std::string as_text(const Reading& reading);

    // The same as one JSON object and a line feed. Bytes that are not UTF-8 become U+FFFD.
    [[nodiscard]] std::string as_json(const Reading& reading);

private:
    zqu::Config cfg_;                 // of the one that is shown now
    zqu::MirrorClient client_{cfg_};  // one for all: setting up libcurl takes longer than the rest
};

}  // namespace zqu::config_tool
