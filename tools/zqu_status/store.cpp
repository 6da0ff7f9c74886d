#include "store.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "descriptors.hpp"

namespace zqu::status_tool {

namespace {

namespace fs = std::filesystem;

bool tells_of_absence(int error) {
    return error == ENOENT || error == ENOTDIR;
}

void read_link(const std::string& path, Store& store) {
    struct stat found {};
    if (lstat(path.c_str(), &found) != 0) {
        store.link = tells_of_absence(errno) ? LinkState::missing : LinkState::unreadable;
        store.reason = std::generic_category().message(errno);
        return;
    }
    std::error_code error;
    const fs::path target = fs::read_symlink(path, error);
    if (!S_ISLNK(found.st_mode) || error) {
        store.link = S_ISLNK(found.st_mode) ? LinkState::unreadable : LinkState::no_link;
        store.reason = error.message();
        return;
    }
    store.link = LinkState::in_service;
    store.target = target.string();
    store.version = target.filename().string();
    store.published = found.st_mtime;
}

Definition look_at_definition(int folder, const std::string& name) {
    struct stat found {};
    if (fstatat(folder, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
        return {name, tells_of_absence(errno) ? DefinitionState::missing : DefinitionState::unreadable, 0};
    }
    if (!S_ISREG(found.st_mode)) {
        return {name, DefinitionState::not_regular, 0};
    }
    return {name, DefinitionState::present, static_cast<std::uint64_t>(found.st_size)};
}

// One directory is held for both files: a publication in between cannot mix two releases.
void look_at_definitions(const std::string& path, const std::string& flavor, Store& store) {
    const tools::Fd folder(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (folder.get() < 0) {
        store.link = errno == EACCES || errno == EPERM ? LinkState::unreadable : LinkState::dangling;
        store.reason = std::generic_category().message(errno);
        return;
    }
    for (const char* kind : {"antivir-", "aivsecon-"}) {
        store.definitions.push_back(look_at_definition(folder.get(), kind + flavor + ".def"));
    }
}

// Whether the link leads to a directory other than the one of its name directly below "snapshots". Unknown is false.
bool leads_outside(const fs::path& root, const std::string& version) {
    std::error_code unresolved;
    std::error_code no_snapshots;
    const fs::path target = fs::canonical(root / "active", unresolved);
    const fs::path snapshots = fs::canonical(root / "snapshots", no_snapshots);
    const bool known = !unresolved && no_snapshots != std::errc::permission_denied;
    return known && (target.parent_path() != snapshots || (!version.empty() && target.filename() != version));
}

std::optional<std::size_t> count_snapshots(const std::string& path) {
    std::error_code error;
    std::size_t count = 0;
    fs::directory_iterator entry(path, error);
    while (!error && entry != fs::directory_iterator()) {
        std::error_code ignored;
        count += entry->is_directory(ignored) ? 1U : 0U;
        entry.increment(error);
    }
    const bool none = tells_of_absence(error.value());
    return error && !none ? std::nullopt : std::optional<std::size_t>(count);
}

}  // namespace

const char* name_of(LinkState state) {
    static constexpr std::array<const char*, 6> names{"in_service", "missing",  "unreadable",
                                                      "no_link",    "dangling", "outside"};
    return names.at(static_cast<std::size_t>(state));
}

const char* name_of(DefinitionState state) {
    static constexpr std::array<const char*, 4> names{"present", "missing", "unreadable", "not_regular"};
    return names.at(static_cast<std::size_t>(state));
}

Store look_at_store(const Config& cfg) {
    Store store;
    const std::string path = cfg.def_root + "/active";
    read_link(path, store);
    if (store.link == LinkState::in_service) {
        look_at_definitions(path, cfg.flavor, store);
    }
    if (store.link == LinkState::in_service && leads_outside(cfg.def_root, store.version)) {
        store.link = LinkState::outside;
        store.definitions.clear();
    }
    store.snapshots = count_snapshots(cfg.def_root + "/snapshots");
    return store;
}

bool same_link(const Store& first, const Store& second) {
    return first.link == second.link && first.target == second.target && first.published == second.published;
}

}  // namespace zqu::status_tool
