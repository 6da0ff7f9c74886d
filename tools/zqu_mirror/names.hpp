// The names on a mirror and inside an archive, and what a name may hold.
//
// Pure functions; none fails.
#pragma once

#include <string>

#include "inspect.hpp"

namespace zqu::mirror_tool {

[[nodiscard]] bool ends_with(const std::string& name, const std::string& end);

// Why name cannot be a flavor, for a usage error; empty when it can be.
[[nodiscard]] std::string unusable_name(const std::string& name);

// The same for an id. The INI of one that ends in "-hit" would have the name of another flavor's hit INI.
[[nodiscard]] std::string unusable_id(const std::string& id);

// Why name, given by an INI file, cannot be an archive's; empty when it can be. Besides what no name may hold,
// it must not pass for an INI file or a hidden one, and leave room for the ".part" of a client.
[[nodiscard]] std::string unusable_archive(const std::string& name);

// Why subdir cannot be the directory below a mirror's root; empty when it can be. Slashes at either end or in a row are
// no fault.
[[nodiscard]] std::string unusable_subdir(const std::string& subdir);

// The archive and the INI that describes it share a stem, so that no two flavors and ids share an archive.
[[nodiscard]] std::string stem(const std::string& flavor, const std::string& id);

// The complete-info INI, which describes one release.
[[nodiscard]] std::string info_name(const std::string& flavor, const std::string& id);

// The hit INI, which names the current release.
[[nodiscard]] std::string hit_name(const std::string& flavor);

// Inside an archive.
using tools::aivsecon_name;
using tools::antivir_name;
using tools::index_name;

}  // namespace zqu::mirror_tool
