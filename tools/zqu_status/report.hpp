// What zqu-status observes at one moment, the findings, and the forms of its output.
//
// Creates and changes nothing, and keeps nothing between calls. judge() and the forms are pure functions. Nothing
// throws except when memory runs out.
#pragma once

#include <sys/stat.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client.hpp"
#include "config.hpp"
#include "monitoring.hpp"
#include "snapshot_store.hpp"

namespace zqu {
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(SnapshotStore::Status, active_version, engine_version, antivir_def_version,
                                   aivsecon_def_version, last_check_epoch, last_success_epoch, last_error)
namespace tools {
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Limit, warning, critical)
}
}  // namespace zqu

namespace zqu::status_tool {

// How the daemon reads its configuration. The names of all states are those in JSON.
enum class ConfigState {
    read,
    missing,     // the daemon uses the defaults
    unreadable,  // for this program; what the daemon reads there is not known
    malformed,   // the daemon does not start
};
inline const char* name_of(ConfigState state) {
    return std::array{"read", "missing", "unreadable", "malformed"}.at(static_cast<std::size_t>(state));
}

enum class StatusState {
    valid,
    missing,
    unreadable,
    not_regular,  // something else is in its place, a link included; not opened
    too_long,     // more than 65536 bytes, which only texts of a mirror can cause
    unfinished,   // the beginning of a status file, or nothing
    invalid,      // bad JSON, a member missing, twice or of another type, a negative time
    schema,       // of another schema version
};
inline const char* name_of(StatusState state) {
    return std::array{"valid", "missing", "unreadable", "not_regular", "too_long", "unfinished", "invalid", "schema"}
        .at(static_cast<std::size_t>(state));
}

struct StatusFile {
    StatusState state = StatusState::missing;
    std::string reason{};              // of every state but valid; may hold foreign bytes
    SnapshotStore::Status contents{};  // with valid; texts as valid UTF-8
    bool empty = false;                // with unfinished: it holds nothing
};

// What the link "active" leads to.
enum class LinkState {
    in_service,  // a snapshot: a directory directly below "snapshots"
    missing,     // there is no link
    unreadable,  // the link or its target cannot be examined
    no_link,     // something else is in its place
    dangling,    // no directory
    outside,     // a directory elsewhere
};
inline const char* name_of(LinkState state) {
    return std::array{"in_service", "missing", "unreadable", "no_link", "dangling", "outside"}.at(
        static_cast<std::size_t>(state));
}

enum class DefinitionState {
    present,
    missing,
    unreadable,   // lstat(2) fails
    not_regular,  // something else has its name, a link included
    empty,
    zeroed,  // its first and last 4096 bytes are all zero
};
inline const char* name_of(DefinitionState state) {
    return std::array{"present", "missing", "unreadable", "not_regular", "empty", "zeroed"}.at(
        static_cast<std::size_t>(state));
}

struct Definition {
    std::string name;
    DefinitionState state = DefinitionState::missing;
    std::optional<std::uint64_t> size{};  // in bytes, of a regular file
    bool changed = false;                 // whether content, mode or owner changed after it came into service
};

// What is in service, as the programs that read the definitions find it.
struct Store {
    LinkState link = LinkState::missing;
    std::string reason;                     // why the link is unreadable
    std::string target;                     // of the link, when it could be read
    std::string version;                    // last component of the target, the version in service
    std::optional<std::int64_t> published;  // time of the link in seconds since the Unix epoch: rename(2) keeps it
    std::vector<Definition> definitions;    // antivir, then aivsecon; none unless in service
    std::optional<std::size_t> snapshots;   // directories below "snapshots"; none when they cannot be counted
};

enum class Role {
    root,              // def_root
    snapshots,         // the directory of all snapshots
    manifest,          // the status file's directory, below def_root
    status_directory,  // the same, elsewhere
    status_file,
    snapshot,  // the directory that the link active names
    definition,
};

// Strangers to a place are all except root, its owner, the owner's primary group (a group with the owner's number
// counts too), and the packaged service where root or the service owns the place. A stranger can write when the mode or
// the access ACL (acl(5)) permits it and lets the stranger search every directory above.
struct Place {
    Role role = Role::root;
    std::string path;           // by the configuration; links in it are not resolved
    struct stat found = {};     // of a link itself, except at def_root and at a status_directory
    unsigned group_rights = 0;  // of the owning group: 4 reads, 2 writes, 1 searches
    bool everybody = false;     // whether every user of the machine can write it
    std::string writers{};      // other strangers who can: "the group staff, the user 1000"
    bool closed = false;        // of a file: whether the readers' group cannot read it; without one, nobody can
};

// Kind, owner and rights of the places that the daemon writes.
struct Layout {
    bool packaged = false;         // configuration and user are those of the packages; the root may be elsewhere
    std::optional<uid_t> user;     // that the packaged service runs as, when it exists
    std::optional<gid_t> group;    // its primary group
    std::optional<gid_t> readers;  // the readers' group of the packages, when packaged
    std::vector<Place> places;     // in the order of their roles; without those that cannot be examined

    // The first place of a role; null when there is none.
    [[nodiscard]] const Place* at(Role role) const;
};

// The state of the daemon's unit, in systemd's words. No text but the name without systemd.
struct Unit {
    std::string name;        // empty: not asked for
    std::string reason;      // why nothing is known
    std::string load_state;  // with "not-found" nothing else is known
    std::string active_state;
    std::string sub_state;
    std::string unit_file_state;
    std::string result;                   // of its last run
    std::vector<std::string> writable{};  // paths that drop-ins let it write, outside def_root and the status file
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Unit, name, reason, load_state, active_state, sub_state, unit_file_state, result,
                                   writable)

enum class ComparisonState { not_asked_for, same, differs, gone, failed };
inline const char* name_of(ComparisonState state) {
    return std::array{"not_asked_for", "same", "differs", "gone", "failed"}.at(static_cast<std::size_t>(state));
}

// The definitions in service beside those that the mirror has of the same release.
struct Comparison {
    ComparisonState state = ComparisonState::not_asked_for;
    std::string reason{};                        // with failed; with gone the release that the mirror names
    std::vector<std::string> differing{};        // names of definitions
    std::optional<tools::ChainEnd> chain_end{};  // which of the mirror's certificates ends first
    std::vector<std::string> warnings{};         // of the transfers
};

struct Facts {
    std::string config_path;
    ConfigState config_state = ConfigState::read;
    std::string config_reason;  // why it is unreadable
    Config cfg;                 // the daemon's settings; not valid when unreadable or malformed
    bool looked = false;        // whether status and store were examined, which needs a valid cfg
    StatusFile status;
    Store store;
    Layout layout;
    Unit unit;
    Comparison comparison;
    std::int64_t now = 0;  // seconds since the Unix epoch, after all was examined
};

// The earliest and the latest time at which the next check begins, by the last check and the settings. It begins later
// by the time that the last check took. No value when the time of the last check is not known or too far ahead.
[[nodiscard]] std::optional<std::pair<std::int64_t, std::int64_t>> next_check(const Facts& facts);

// Reads the configuration at path and examines what it names, without unit and comparison. Looks again while the daemon
// is at work: the status file is short or names another version than the link, or the link changes. At most 25 times,
// 20 ms apart. Never waits for anything else.
[[nodiscard]] Facts observe(const std::string& path);

// Its parts. Control characters inside the status file's texts, which the daemon writes as they are, are
// accepted. Bytes that are not UTF-8 become U+FFFD. Further members are ignored.
[[nodiscard]] StatusFile read_status(const std::string& path);
[[nodiscard]] Store look_at_store(const Config& cfg);
[[nodiscard]] Layout look_at_layout(const std::string& config_path, const Config& cfg, const Store& store);

// Asks systemd about the unit, over the system bus.
[[nodiscard]] Unit look_at_unit(const std::string& name, const Config& cfg);

// Fetches the mirror's archive of the release in service to TMPDIR, and compares its definitions. See inspect.hpp for
// how the archive, which may be hostile, is read. Does nothing when nothing is in service.
[[nodiscard]] Comparison compare_with_mirror(const Config& cfg, const Store& store);

// Begins the line of --nagios.
inline constexpr const char* nagios_service = "DEFINITIONS";

// What can be found. The names are stable: other programs read them.
struct FindingKind {
    const char* name;
    tools::Verdict verdict;  // for limits and writers it depends on the facts
    const char* text;        // what is wrong; %1 and %2 depend on the facts
    const char* advice;      // what to do
};
extern const std::array<FindingKind, 44> kinds;

// What a last_error means and what to do; for other texts, that the daemon does not write them.
[[nodiscard]] const char* advice_for(const std::string& last_error);

// All texts are printable ASCII on one line, as shown() makes them.
struct Matter {
    std::string name;
    tools::Verdict verdict = tools::Verdict::ok;
    std::string text;
    std::string advice;
    std::string command;  // one shell line that repairs it; may be empty
};

struct Limits {
    tools::Limit definitions_age;  // time since the publication
    tools::Limit check_age;        // time since the last check
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Limits, definitions_age, check_age)

// The wishes of a command line that sets no limit.
inline constexpr Limits no_wishes{{-1, -1}, {-1, -1}};

// The limits in force. By default, definitions older than two days are a warning, and so are checks that are further
// apart than the longest wait and twice the longest check (three transfers, five minutes of work on the disk). Twice,
// because the status says when a check began and is written when it ends. Critical is twice the warning, or twice its
// default when the warning is off.
[[nodiscard]] Limits limits_for(const Limits& wishes, const Config& cfg);

// Seconds since an event; 0 for one that the clock has not reached.
[[nodiscard]] std::int64_t age(std::int64_t now, std::int64_t event);

struct Report {
    Facts facts;
    Limits limits;
    std::vector<Matter> findings;  // the gravest first
    tools::Verdict verdict = tools::Verdict::ok;
};

// asked_for: whether the unit was named on the command line.
[[nodiscard]] Report judge(Facts facts, const Limits& limits, bool asked_for);

// "active (running), enabled", or why that is not known; empty without a unit.
[[nodiscard]] std::string unit_text(const Unit& unit);

// Aligned lines for people, with colours by the sequences of ECMA-48; one JSON object of valid UTF-8; the line of a
// monitoring plugin; metrics for the textfile collector of a node exporter. The manual page describes them.
[[nodiscard]] std::string text_form(const Report& report, bool colour);
[[nodiscard]] std::string json_form(const Report& report);
[[nodiscard]] std::string nagios_form(const Report& report);
[[nodiscard]] std::string prometheus_form(const Report& report);

}  // namespace zqu::status_tool
