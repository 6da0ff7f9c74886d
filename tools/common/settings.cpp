#include "settings.hpp"

#include <stdexcept>

namespace zqu::tools {

Settings read_settings(const std::string& path) {
    Settings settings;
    try {
        settings.opened = zqu::Config::load(path, settings.cfg);
    } catch (const std::logic_error&) {  // std::invalid_argument and std::out_of_range, both from std::stoul
        settings.opened = true;
        settings.fatal = true;
    }
    return settings;
}

}  // namespace zqu::tools
