#include <fcntl.h>
#include <strings.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <future>
#include <system_error>
#include <thread>
#include <tuple>

#include "client.hpp"
#include "descriptors.hpp"
#include "digest.hpp"
#include "inspect.hpp"
#include "program.hpp"
#include "report.hpp"
#include "settings.hpp"
#include "text.hpp"

namespace zqu::status_tool {

using namespace tools;

namespace {

namespace fs = std::filesystem;

constexpr int looks = 26;  // with O_TRUNC, open(2) may wait for a busy disk; the file is short meanwhile
constexpr std::chrono::milliseconds between_looks(20);

bool is_absence(int error) {
    return error == ENOENT || error == ENOTDIR;
}

void read_configuration(const std::string& path, Facts& facts) {
    facts.config_state = ConfigState::unreadable;
    try {
        if (read_all(open_regular(path).get(), largest_config, path).size() > largest_config) {
            facts.config_reason = "it is longer than " + std::to_string(largest_config) + " bytes";
            return;
        }
        const bool fatal = load_configuration(path, facts.cfg) != Fatal::no;
        facts.config_state = fatal ? ConfigState::malformed : ConfigState::read;
    } catch (const std::system_error& e) {
        facts.config_state = is_absence(e.code().value()) ? ConfigState::missing : ConfigState::unreadable;
        facts.config_reason = e.code().message();
    } catch (const std::runtime_error&) {
        facts.config_reason = "it is no regular file";
    }
}

void look(Facts& facts) {
    facts.status = read_status(facts.cfg.status_path);
    facts.store = look_at_store(facts.cfg);
    facts.now = std::time(nullptr);
}

bool settled(const Store& before, const Facts& facts) {
    const StatusFile& status = facts.status;
    const Store& now = facts.store;
    const bool complete = status.state == StatusState::valid ? status.contents.active_version == as_utf8(now.version)
                                                             : status.state != StatusState::unfinished;
    return complete &&
           std::tie(before.link, before.target, before.published) == std::tie(now.link, now.target, now.published);
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

std::pair<time_t, long> exact(const timespec& time) {
    return {time.tv_sec, time.tv_nsec};
}

// Whether the file was changed after the link was set. For most files the ctime alone shows it, because the mtime comes
// from the archive. But each start of the packaged service renews the ctime of the link: a file that was written before
// that has the same mtime and ctime, later than the link's mtime.
bool is_changed(const struct stat& file, const struct stat& link) {
    const auto changed = exact(file.st_ctim);
    return changed > exact(link.st_mtim) && (changed == exact(file.st_mtim) || changed > exact(link.st_ctim));
}

// Whether the file begins and ends with nothing but zero bytes. Unknown is false.
bool is_zeroed(int directory, const std::string& name, off_t size) {
    const Fd file(openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
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
    struct stat found = {};
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
    const Fd directory(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
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
    try {
        std::error_code ignored;
        const auto is_snapshot = [&ignored](const fs::directory_entry& entry) { return entry.is_directory(ignored); };
        return std::count_if(fs::directory_iterator(path), fs::directory_iterator(), is_snapshot);
    } catch (const fs::filesystem_error& e) {
        return is_absence(e.code().value()) ? std::optional<std::size_t>(0) : std::nullopt;
    }
}

constexpr const char* manager = "org.freedesktop.systemd1";
constexpr const char* of_units = "org.freedesktop.systemd1.Unit";
constexpr const char* of_services = "org.freedesktop.systemd1.Service";
constexpr std::chrono::seconds patience(5);

using Text = Handle<char, std::free>;

void require(int result) {
    if (result < 0) {
        throw std::system_error(-result, std::generic_category());
    }
}

// Of use are the paths above or below what the daemon writes, and the default root, which the unit itself names.
bool is_of_use(const fs::path& writable, const Config& cfg) {
    const std::vector<fs::path> written{cfg.def_root, fs::path(cfg.status_path).parent_path(), Config().def_root};
    return std::any_of(written.begin(), written.end(), [&writable](const fs::path& place) {
        return is_within(writable, place) || is_within(place, writable);
    });
}

void ask_systemd(Unit& unit, const Config& cfg) {
    sd_bus* bus = nullptr;
    char* path = nullptr;
    char** list = nullptr;
    require(sd_bus_open_system(&bus));
    const Handle<sd_bus, sd_bus_flush_close_unref> bus_owner(bus);
    require(sd_bus_path_encode("/org/freedesktop/systemd1/unit", unit.name.c_str(), &path));
    const Text path_owner(path);
    const auto text = [bus, path](const char* interface, const char* name) {
        char* value = nullptr;
        require(sd_bus_get_property_string(bus, manager, path, interface, name, nullptr, &value));
        return std::string(Text(value).get());
    };
    unit.load_state = text(of_units, "LoadState");
    if (unit.load_state == "not-found") {
        return;
    }
    unit.active_state = text(of_units, "ActiveState");
    unit.sub_state = text(of_units, "SubState");
    unit.unit_file_state = text(of_units, "UnitFileState");
    if (fs::path(unit.name).extension() != ".service") {
        return;
    }
    unit.result = text(of_services, "Result");
    require(sd_bus_get_property_strv(bus, manager, path, of_services, "ReadWritePaths", nullptr, &list));
    const Handle<char*, std::free> list_owner(list);
    for (char** entry = list; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string marked = Text(*entry).get();
        const std::string writable = marked.substr(std::min(marked.find('/'), marked.size()));  // behind "-" or "+"
        if (!is_of_use(writable, cfg)) {
            unit.writable.push_back(writable);
        }
    }
}

// What the mirror names as the current release; empty when that is not known.
std::string current_release(Client& client) {
    try {
        return client.fetch_id();
    } catch (const MirrorError&) {
        return "";
    }
}

// The SHA-256 of a file; shows how far it is, behind what was read before.
std::string digest_of(const std::string& path, Progress& progress, std::uintmax_t& done) {
    return sha256(path, [&](std::size_t more) { progress.show(done += more); });
}

// The mirror's archive of a release, in a file without a name.
Fd fetch(Client& client, const CompleteInfo& info, Progress& progress) {
    Fd file = temporary_file();
    progress.begin("fetching " + info.cab_name);
    client.on_progress([&progress](std::uintmax_t bytes) { progress.show(bytes); });
    client.download(info.cab_name, file.get());
    client.on_progress(nullptr);
    progress.begin("reading the archive");
    std::uintmax_t done = 0;
    const std::string digest = digest_of(memory_path(file), progress, done);
    if (digest.size() != info.sha256.size() || strcasecmp(digest.c_str(), info.sha256.c_str()) != 0) {
        throw MirrorError(info.cab_name + " does not have the digest that the mirror gives");
    }
    return file;
}

// Shows how far the inspection is, while this thread waits for its end.
Inspection inspect_archive(const Fd& archive, const std::string& name, const Config& cfg, Progress& progress) {
    std::future<void> ticking;  // waits for the other thread when it is destroyed
    std::promise<void> running;
    progress.begin("checking the archive");
    return inspect(memory_path(archive), name, cfg.flavor, [&](const Position& position) {
        ticking = std::async(std::launch::async, [&progress, position, over = running.get_future()] {
            while (over.wait_for(std::chrono::milliseconds(500)) == std::future_status::timeout) {
                progress.show(position());
            }
        });
    });
}

// By the SHA-256 of every byte.
void compare(const Fd& archive, const std::string& name, const Config& cfg, const Store& store, Progress& progress,
             Comparison& result) {
    const Inspection inspection = inspect_archive(archive, name, cfg, progress);
    progress.begin("reading the definitions");
    std::uintmax_t done = 0;
    const std::string fault = first_fault(inspection);
    for (const Definition& definition : store.definitions) {
        const auto expected = inspection.digests.find(definition.name);
        if (expected == inspection.digests.end()) {
            throw std::runtime_error(fault.empty() ? definition.name + " is not in the mirror's archive" : fault);
        }
        const std::string path = cfg.def_root + "/snapshots/" + store.version + "/" + definition.name;
        if (digest_of(memory_path(open_regular(path)), progress, done) != expected->second) {
            result.differing.push_back(definition.name);
        }
    }
    result.state = result.differing.empty() ? ComparisonState::same : ComparisonState::differs;
}

}  // namespace

std::optional<std::pair<std::int64_t, std::int64_t>> next_check(const Facts& facts) {
    const std::int64_t longest = 2 * std::int64_t{UINT32_MAX};
    const std::int64_t last = facts.status.contents.last_check_epoch;
    if (!facts.looked || facts.status.state != StatusState::valid || last > INT64_MAX - longest) {
        return std::nullopt;
    }
    const std::int64_t earliest = last + std::int64_t{facts.cfg.poll_interval_s};
    const std::uint32_t jitter = facts.cfg.poll_jitter_s;
    return std::pair{earliest, earliest + (jitter > 0 ? std::int64_t{jitter} - 1 : 0)};
}

Facts observe(const std::string& path) {
    Facts facts;
    facts.config_path = path;
    read_configuration(path, facts);
    facts.now = std::time(nullptr);
    facts.looked = facts.config_state == ConfigState::read || facts.config_state == ConfigState::missing;
    if (!facts.looked) {
        return facts;
    }
    Store before = look_at_store(facts.cfg);
    look(facts);
    for (int more = looks - 1; more > 0 && !settled(before, facts); --more) {
        std::this_thread::sleep_for(between_looks);
        before = facts.store;
        look(facts);
    }
    facts.layout = look_at_layout(path, facts.cfg, facts.store);
    return facts;
}

Store look_at_store(const Config& cfg) {
    Store store;
    const std::string path = cfg.def_root + "/active";
    struct stat link = {};
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

// In a child: sd-bus waits up to 90 seconds for a bus that accepts a connection and then says nothing.
Unit look_at_unit(const std::string& name, const Config& cfg) {
    Unit unit;
    unit.name = name;
    if (name.empty() || sd_booted() <= 0) {
        return unit;
    }
    const auto ask = [&] {
        ask_systemd(unit, cfg);
        return nlohmann::json(unit).dump();
    };
    const ChildResult asked = in_child([] {}, ask, patience);
    if (asked.succeeded()) {
        nlohmann::json::parse(asked.output).get_to(unit);
    } else {
        unit.reason = asked.timed_out ? "no answer within 5 s" : asked.output;
    }
    return unit;
}

Comparison compare_with_mirror(const Config& cfg, const Store& store) {
    Comparison comparison;
    if (store.link != LinkState::in_service) {
        return comparison;
    }
    Client client(cfg);
    Progress progress;
    std::optional<CompleteInfo> info;
    try {
        info = client.fetch_info(store.version);
        compare(fetch(client, *info, progress), info->cab_name, cfg, store, progress, comparison);
    } catch (const std::exception& e) {
        const bool missing = !info && dynamic_cast<const MissingFile*>(&e) != nullptr;
        const std::string current = missing ? current_release(client) : "";
        comparison.state = current.empty() ? ComparisonState::failed : ComparisonState::gone;
        comparison.reason = current.empty() ? e.what() : current;
    }
    comparison.chain_end = client.chain_end();
    comparison.warnings = client.warnings();
    return comparison;
}

}  // namespace zqu::status_tool
