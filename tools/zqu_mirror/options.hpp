// The options of the command line; the names of files on a mirror, and what a name may hold.
//
// Pure functions; none fails.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "config.hpp"

namespace zqu::mirror_tool {

// What check and list print.
enum class Form { text, json, nagios, prometheus };

// The options of all commands; each reads those it has.
struct Options {
    std::string mirror;  // its root directory, absolute; or its URL, where a command takes one
    std::string subdir = zqu::Config().mirror_subdir;
    std::string flavor = zqu::Config().flavor;
    std::string id;
    std::string antivir;         // path of the antivir definition file
    std::string aivsecon;        // path of the aivsecon definition file
    std::string ca;              // path of the certificates to trust; empty for the system's
    std::string sign;            // path of the private key that signs; empty for none
    std::string format = "cab";  // of the archive to pack: a key of suffixes
    bool allow_empty = false;
    std::size_t deltas = 0;  // how many to make, each from an older release to the new one

    std::string upstream;         // URL of the mirror to copy from; empty for none
    std::string upstream_subdir;  // directory there; empty for the same as subdir
    std::uint32_t timeout_s = zqu::Config().http_timeout_s;

    bool allow_http = false;         // redirects from https to http are followed
    bool force = false;              // take a held release
    bool plain = false;              // keep plain archives (plain.hpp)
    std::vector<std::string> trust;  // paths of the public keys of which one must have signed
    bool verify = false;             // check digests before saying that there is nothing new
    bool yes = false;                // choose without an upstream mirror

    int percent = 0;       // of the gateways, that get a new release as a candidate; 0 for all, at once
    bool replace = false;  // end a rollout for a new release
    std::string action;    // of a rollout: a stage, "100" or "withdraw"; empty to show it

    std::size_t keep = 0;            // how many releases to keep, the current one included; 0 for no such rule
    std::int64_t older_than_s = -1;  // the age from which releases go; -1 for no such rule
    std::int64_t grace_s = 3600;     // how long a client may be on its way
    bool dry_run = false;

    Form form = Form::text;
    bool quiet = false;
    std::int64_t max_age_s = 0;      // of a release; 0 for no limit
    std::int64_t max_rollout_s = 0;  // how long a rollout may take, for monitoring; 0 for no limit
};

// Whether mirror is a URL, not a directory.
[[nodiscard]] bool is_url(const std::string& mirror);

// The directory that holds the mirror's files; for a mirror that is a directory.
[[nodiscard]] std::filesystem::path directory_of(const Options& options);

// The settings of a client of this mirror, a directory or a URL, and of one of the upstream mirror.
[[nodiscard]] zqu::Config client_config(const Options& options);
[[nodiscard]] zqu::Config upstream_config(const Options& options);

// The formats of archives, with the ends of their names; and the format that a name has, empty for none of these.
extern const std::map<std::string, std::string> suffixes;
[[nodiscard]] std::string format_of(const std::string& archive);

[[nodiscard]] bool begins_with(const std::string& name, const std::string& start);
[[nodiscard]] bool ends_with(const std::string& name, const std::string& end);

// Why name cannot be a flavor, for a usage error; empty when it can be.
[[nodiscard]] std::string unusable_name(const std::string& name);

// The same for an id. The INI of one that ends in "-hit" would have the name of another flavor's hit INI. Names
// that hold "-hit.ini" are for hit INIs and stage files.
[[nodiscard]] std::string unusable_id(const std::string& id);

// Why name, given by an INI file, cannot be an archive's; empty when it can be. Besides what no name may hold,
// it must not pass for an INI file, a stage file or a hidden one, and leave room for the ".part" of a client.
[[nodiscard]] std::string unusable_archive(const std::string& name);

// Why subdir cannot be the directory below a mirror's root; empty when it can be. Slashes at either end or in a row are
// no fault.
[[nodiscard]] std::string unusable_subdir(const std::string& subdir);

// The archive and the INI that describes it share a stem, so that no two flavors and ids share an archive.
[[nodiscard]] std::string stem(const std::string& flavor, const std::string& id);

// The complete-info INI, which describes one release; and the id in its name, unless that is not one of this flavor.
[[nodiscard]] std::string info_name(const std::string& flavor, const std::string& id);
[[nodiscard]] std::optional<std::string> id_in(const std::string& info, const std::string& flavor);

// The hit INI, which names the current release.
[[nodiscard]] std::string hit_name(const std::string& flavor);

}  // namespace zqu::mirror_tool
