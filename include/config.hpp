// The daemon's settings: one plain record, its defaults, and the reader of the configuration file.
//
// Owns its strings only, and keeps no state between calls, so a crash leaves nothing behind.
// The main thread fills the record before anything else runs. Afterwards it is only read. It needs no lock.
#pragma once

#include <cstdint>
#include <string>

namespace zqu {

// All settings of the daemon, with their defaults. A line of the configuration file sets a member when its key is the
// member's name. Every combination of values is accepted here; validate() reports the unusable ones.
struct Config {
    // Scheme and host of the mirror, without a path; trailing slashes are ignored. Empty: no mirror is configured.
    std::string mirror_base_url = "https://definitions.zelgw.example";
    // Path below the base URL of the INI files and the archives.
    std::string mirror_subdir = "rhex/deffiles/def5-2";
    // Definition flavour: part of the names of the mirror's files and of the definition files.
    std::string flavor = "v2";
    // File of PEM certificates that the mirror's certificate is verified with (CURLOPT_CAINFO(3)). Empty: the
    // certificate authorities built into libcurl.
    std::string ca_path;
    // Version of the engine that uses the definitions; only repeated in the status file.
    std::string engine_version;
    // Root of the snapshot store.
    std::string def_root = "/usr/local/zelgw/opt/av/quorin/defs";
    // Path of the status file. A separate literal on purpose: another def_root does not change it.
    std::string status_path = "/usr/local/zelgw/opt/av/quorin/defs/manifest/status.json";
    // Seconds between two checks. 0: the next check follows at once.
    std::uint32_t poll_interval_s = 900;
    // Up to this many seconds, less one, are added to every wait. 0: none.
    std::uint32_t poll_jitter_s = 120;
    // Number of snapshots kept by pruning, the one in service included.
    std::uint32_t retained_snapshots = 3;
    // Time-out of one whole HTTP transfer, in seconds. 0: none (CURLOPT_TIMEOUT(3)). libcurl refuses more than 2147483
    // (a signed 32-bit number of milliseconds); then there is no time-out either.
    std::uint32_t http_timeout_s = 300;

    // Sets the defaults above.
    Config() = default;

    // Replaces members of cfg with the settings in the file at path. Its lines are "key = value", split at the first
    // "=" and trimmed. Skips blank lines, lines that begin with "#" or have no "=", and keys that name no member. Of
    // several lines with one key, the last wins. Text values are stored as written, also when empty. Numbers are read
    // by std::stoul, with 64 bits on every platform, in base 10, and keep their low 32 bits: "-1" gives 4294967295,
    // "4294967296" gives 0, "900s" gives 900.
    //
    // Returns false, with cfg unchanged, only when the file cannot be opened. Returns true after reading it to its end,
    // or to the first failed read. Throws what std::stoul throws: std::invalid_argument for a number without digits,
    // std::out_of_range beyond 64 bits. The lines before that one have then taken effect. Logs nothing.
    [[nodiscard]] static bool load(const std::string& path, Config& cfg);

    // Returns true, with reason unchanged, when the settings are usable. Otherwise returns false and sets reason to one
    // line that says what is missing: the mirror first, then the flavour. Checks nothing else. Logs nothing.
    [[nodiscard]] bool validate(std::string& reason) const;
};

}  // namespace zqu
