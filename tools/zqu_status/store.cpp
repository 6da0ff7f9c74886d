#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "descriptors.hpp"
#include "facts.hpp"

namespace zqu::status_tool {

namespace {

namespace fs = std::filesystem;

bool is_absence(int error) {
    return error == ENOENT || error == ENOTDIR;
}

void read_link(const std::string& path, struct stat& found, Store& store) {
    if (lstat(path.c_str(), &found) != 0) {
        store.link = is_absence(errno) ? LinkState::missing : LinkState::unreadable;
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

bool is_later(const timespec& first, const timespec& second) {
    return std::make_pair(first.tv_sec, first.tv_nsec) > std::make_pair(second.tv_sec, second.tv_nsec);
}

// Whether the file was changed after the link was set. ctime alone tells it of most files, as mtime comes from the
// archive. But each start of the packaged service renews the ctime of the link: a file that was written before that
// has the same mtime and ctime, later than the link's mtime.
bool is_changed(const struct stat& file, const struct stat& link) {
    const bool written = !is_later(file.st_ctim, file.st_mtim) && !is_later(file.st_mtim, file.st_ctim);
    return is_later(file.st_ctim, link.st_mtim) && (written || is_later(file.st_ctim, link.st_ctim));
}

// Whether the file begins and ends with nothing but zero bytes. Unknown is false.
bool is_zeroed(int directory, const std::string& name, off_t size) {
    const tools::Fd file(openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    std::array<char, 4096> block{};
    const off_t length = std::min<off_t>(block.size(), size);
    for (const off_t offset : {off_t{0}, size - length}) {
        if (pread(file.get(), block.data(), static_cast<std::size_t>(length), offset) != length ||
            std::any_of(block.begin(), block.begin() + length, [](char byte) { return byte != 0; })) {
            return false;
        }
    }
    return true;
}

Definition look_at_definition(int directory, const std::string& name, const struct stat& link) {
    struct stat found {};
    if (fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
        return {name, is_absence(errno) ? DefinitionState::missing : DefinitionState::unreadable};
    }
    if (!S_ISREG(found.st_mode)) {
        return {name, DefinitionState::not_regular};
    }
    const bool zeroed = found.st_size > 0 && is_zeroed(directory, name, found.st_size);
    const DefinitionState filled = zeroed ? DefinitionState::zeroed : DefinitionState::present;
    return {name, found.st_size == 0 ? DefinitionState::empty : filled, found.st_size, is_changed(found, link)};
}

// One directory is held for both files: a publication in between cannot mix two releases.
void look_at_definitions(const std::string& path, const std::string& flavor, const struct stat& link, Store& store) {
    const tools::Fd directory(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (directory.get() < 0) {
        store.link = errno == EACCES || errno == EPERM ? LinkState::unreadable : LinkState::dangling;
        store.reason = std::generic_category().message(errno);
        return;
    }
    for (const char* kind : {"antivir-", "aivsecon-"}) {
        store.definitions.push_back(look_at_definition(directory.get(), kind + flavor + ".def", link));
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
    const bool none = is_absence(error.value());
    return error && !none ? std::nullopt : std::optional<std::size_t>(count);
}

}  // namespace

const char* name_of(LinkState state) {
    static constexpr std::array<const char*, 6> names{"in_service", "missing",  "unreadable",
                                                      "no_link",    "dangling", "outside"};
    return names.at(static_cast<std::size_t>(state));
}

const char* name_of(DefinitionState state) {
    static constexpr std::array<const char*, 6> names{"present",     "missing", "unreadable",
                                                      "not_regular", "empty",   "zeroed"};
    return names.at(static_cast<std::size_t>(state));
}

Store look_at_store(const Config& cfg) {
    Store store;
    const std::string path = cfg.def_root + "/active";
    struct stat link {};
    read_link(path, link, store);
    if (store.link == LinkState::in_service) {
        look_at_definitions(path, cfg.flavor, link, store);
    }
    if (store.link == LinkState::in_service && leads_outside(cfg.def_root, store.version)) {
        store.link = LinkState::outside;
        store.definitions.clear();
    }
    store.snapshots = count_snapshots(cfg.def_root + "/snapshots");
    return store;
}

}  // namespace zqu::status_tool
