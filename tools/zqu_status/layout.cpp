#include <endian.h>
#include <grp.h>
#include <linux/posix_acl.h>
#include <linux/posix_acl_xattr.h>
#include <pwd.h>
#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "report.hpp"
#include "settings.hpp"
#include "text.hpp"

namespace zqu::status_tool {

namespace {

namespace fs = std::filesystem;

constexpr const char* readers_group = "zel-quorin-readers";
constexpr std::size_t longest_list = 65536;  // of an extended attribute: xattr(7)

// Someone with rights: ACL_USER or ACL_GROUP with a number, or ACL_OTHER for everybody else.
struct Subject {
    unsigned tag = ACL_OTHER;
    id_t id = 0;
    unsigned rights = 0;
};

// The rights to one file or directory: its mode, and its groups and named users, the owning group first.
struct Access {
    struct stat found = {};
    std::vector<Subject> entries;
};

// The entries of the access ACL but for those of the owner, the mask and everybody else, which the mode has.
std::vector<Subject> entries_of(const std::string& path, const struct stat& found) {
    const unsigned mask = found.st_mode >> 3 & 7U;  // with an ACL, the group's bits of a mode are its mask
    std::vector<Subject> entries{{ACL_GROUP, found.st_gid, mask}};
    std::vector<char> list(longest_list);
    const ssize_t size = lgetxattr(path.c_str(), "system.posix_acl_access", list.data(), list.size());
    posix_acl_xattr_entry entry{};
    for (std::size_t at = sizeof(posix_acl_xattr_header);
         size > 0 && at + sizeof entry <= static_cast<std::size_t>(size); at += sizeof entry) {
        std::memcpy(&entry, &list[at], sizeof entry);
        const unsigned tag = le16toh(entry.e_tag);
        const unsigned rights = le16toh(entry.e_perm) & mask;
        if (tag == ACL_GROUP_OBJ) {
            entries.front().rights = rights;
        } else if (tag == ACL_USER || tag == ACL_GROUP) {
            entries.push_back({tag, le32toh(entry.e_id), rights});
        }
    }
    return entries;
}

// What the subject may do by its number alone: acl(5), "access check algorithm".
unsigned rights_of(const Subject& subject, const Access& access) {
    std::optional<unsigned> rights;
    for (const Subject& entry : access.entries) {
        if (entry.tag == subject.tag && entry.id == subject.id) {
            rights = rights.value_or(0U) | entry.rights;
        }
    }
    return rights.value_or(access.found.st_mode & 7U);
}

bool is_stranger(const Subject& subject, uid_t owner, const Layout& layout) {
    if (subject.tag == ACL_OTHER) {
        return true;
    }
    const bool of_service =
        (owner == 0 || owner == layout.user) && subject.id == (subject.tag == ACL_USER ? layout.user : layout.group);
    if (subject.id == 0 || subject.id == owner || of_service) {
        return false;
    }
    const passwd* entry = subject.tag == ACL_GROUP ? getpwuid(owner) : nullptr;
    return entry == nullptr || entry->pw_gid != subject.id;
}

std::string name_of(const Subject& subject) {
    if (subject.tag == ACL_USER) {
        const passwd* entry = getpwuid(subject.id);
        return "the user " + (entry != nullptr ? std::string(entry->pw_name) : std::to_string(subject.id));
    }
    const group* entry = getgrgid(subject.id);
    return "the group " + (entry != nullptr ? std::string(entry->gr_name) : std::to_string(subject.id));
}

// The rights to path, which holds no links, and to each directory above it; none when one cannot be examined.
std::vector<Access> rights_along(fs::path path) {
    std::vector<Access> chain;
    for (bool below = true; below; path = path.parent_path()) {
        Access access;
        if (lstat(path.c_str(), &access.found) != 0) {
            return {};
        }
        access.entries = entries_of(path, access.found);
        chain.push_back(access);
        below = path != path.parent_path();
    }
    return chain;
}

// In a sticky directory nobody can replace the status file. For definitions the sticky bit is not enough: others could
// make the directory of the next release first.
bool may_be_shared(const Place& place) {
    const bool of_status = place.role == Role::manifest || place.role == Role::status_directory;
    const mode_t mode = place.found.st_mode;
    return (of_status && (mode & S_ISVTX) != 0) || (!S_ISDIR(mode) && !S_ISREG(mode));
}

// In a user namespace that lacks a group, ACLs show it as (gid_t)-1.
bool has_hidden_groups(const Access& access) {
    return std::any_of(access.entries.begin(), access.entries.end(), [](const Subject& entry) {
        return entry.tag == ACL_GROUP && entry.id == static_cast<id_t>(-1);
    });
}

// Whether the subject may search every directory above the first one of the chain.
bool may_reach(const Subject& subject, const std::vector<Access>& chain) {
    return std::all_of(chain.begin() + 1, chain.end(),
                       [&subject](const Access& directory) { return (rights_of(subject, directory) & 1U) != 0; });
}

void find_writers(Place& place, const std::vector<Access>& chain, const Layout& layout) {
    std::vector<Subject> candidates = chain.front().entries;
    candidates.push_back({ACL_OTHER, 0, place.found.st_mode & 7U});
    for (const Subject& subject : candidates) {
        const bool writes =
            (subject.rights & 2U) != 0 && may_reach(subject, chain) && is_stranger(subject, place.found.st_uid, layout);
        if (writes && subject.tag == ACL_OTHER) {
            place.everybody = true;
        } else if (writes) {
            place.writers += (place.writers.empty() ? "" : ", ") + name_of(subject);
        }
    }
}

void find_rights(Place& place, const Layout& layout) {
    std::error_code error;
    const fs::path path = fs::canonical(place.path, error);
    const std::vector<Access> chain = error ? std::vector<Access>() : rights_along(path);
    if (chain.size() < 2) {
        return;
    }
    place.group_rights = chain.front().entries.front().rights;
    if (!may_be_shared(place)) {
        find_writers(place, chain, layout);
    }
    const Subject readers{ACL_GROUP, layout.readers.value_or(0), 0};
    const bool hidden = std::any_of(chain.begin(), chain.end(), has_hidden_groups);
    if (layout.readers) {
        place.closed = !hidden && (!may_reach(readers, chain) || (rights_of(readers, chain.front()) & 4U) == 0);
    } else {
        place.closed = (place.found.st_mode & (S_IRUSR | S_IRGRP | S_IROTH)) == 0;
    }
}

// Whether path could be examined. A link that leads nowhere is examined itself.
bool look(const std::string& path, bool follow, struct stat& found) {
    if (follow && stat(path.c_str(), &found) == 0) {
        return true;
    }
    return (!follow || errno == ENOENT || errno == ELOOP || errno == ENOTDIR) && lstat(path.c_str(), &found) == 0;
}

// The places to examine: role and path.
std::vector<std::pair<Role, std::string>> places_of(const Config& cfg, const Store& store) {
    const std::string snapshots = cfg.def_root + "/snapshots";
    std::vector<std::pair<Role, std::string>> places{{Role::root, cfg.def_root}, {Role::snapshots, snapshots}};
    const fs::path root = tools::normal(cfg.def_root);
    const fs::path directory = tools::normal(fs::path(cfg.status_path).parent_path());
    if (!cfg.status_path.empty() && directory != root && directory != root / "snapshots") {
        places.emplace_back(directory == root / "manifest" ? Role::manifest : Role::status_directory,
                            directory.empty() ? "." : directory);
    }
    places.emplace_back(Role::status_file, cfg.status_path);
    if (store.published) {
        places.emplace_back(Role::snapshot, snapshots + "/" + store.version);
    }
    for (const Definition& definition : store.definitions) {
        places.emplace_back(Role::definition, snapshots + "/" + store.version + "/" + definition.name);
    }
    return places;
}

}  // namespace

const Place* Layout::at(Role role) const {
    const auto found =
        std::find_if(places.begin(), places.end(), [role](const Place& place) { return place.role == role; });
    return found == places.end() ? nullptr : &*found;
}

Layout look_at_layout(const std::string& config_path, const Config& cfg, const Store& store) {
    Layout layout;
    if (const passwd* entry = getpwnam(tools::service_user)) {
        layout.user = entry->pw_uid;
        layout.group = entry->pw_gid;
        layout.packaged = config_path == tools::default_config_path;
    }
    const group* readers = layout.packaged ? getgrnam(readers_group) : nullptr;
    if (readers != nullptr) {
        layout.readers = readers->gr_gid;
    }
    for (const auto& [role, path] : places_of(cfg, store)) {
        Place place{role, path};
        if (look(path, role == Role::root || role == Role::status_directory, place.found)) {
            find_rights(place, layout);
            layout.places.push_back(place);
        }
    }
    return layout;
}

}  // namespace zqu::status_tool
