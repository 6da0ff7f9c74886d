// Kind, owner and rights of the places that the daemon writes.
//
// Only collects facts; findings.hpp judges them. Opens nothing. What cannot be looked at is left out. Throws for want
// of memory only.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

#include "config.hpp"
#include "store.hpp"

namespace zqu::status_tool {

enum class Role {
    root,              // def_root
    snapshots,         // the directory of all snapshots
    manifest,          // the status file's directory, below def_root
    status_directory,  // the same, elsewhere
    status_file,
    snapshot,  // the directory that the link active names
    definition,
};

struct Place {
    Role role = Role::root;
    std::string path;                  // by the configuration; links in it are not resolved
    struct stat found {};              // of a link itself, except at def_root and at a status_directory
    unsigned group_rights = 0;         // of the owning group: 4 reads, 2 writes, 1 searches
    bool everybody = false;            // whether every user of the machine can write it
    std::vector<std::string> writers;  // other strangers who can: "the group staff", "the user 1000"
};

struct Layout {
    bool packaged = false;       // configuration and user are those of the packages; the root may be elsewhere
    std::optional<gid_t> group;  // that the packaged service runs as, when its user exists
    std::vector<Place> places;   // in the order of their roles

    // The first place of a role; null when there is none.
    [[nodiscard]] const Place* at(Role role) const;
};

// Looks at what cfg, read from config_path, names, and at the snapshot that store found in service. Strangers to a
// place are all but root, its owner, the owner's primary group (the one of the owner's number counts too), and the
// packaged service where root or it owns the place. A stranger can write when the mode or the access ACL (acl(5))
// permits it, and lets the stranger search every directory above.
[[nodiscard]] Layout look_at_layout(const std::string& config_path, const Config& cfg, const Store& store);

}  // namespace zqu::status_tool
