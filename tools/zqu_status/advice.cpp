#include "advice.hpp"

#include <array>

namespace zqu::status_tool {

namespace {

struct Advice {
    const char* beginning;  // of the last_error, or the whole of it
    bool whole;
    const char* text;
};

constexpr std::array<Advice, 8> all{{
    {"defId fetch failed", true,
     "The mirror's current id could not be fetched or read: the log has the reason in a line with GET or "
     "parse_hit_defid. Check network, name resolution, certificate and mirror_base_url; zqu-config check --online "
     "tries it."},
    {"complete-info fetch failed for ", false,
     "The mirror names this release, but its description could not be fetched or read: the log has the reason in a "
     "line "
     "with GET or parse_complete_info. Mostly the mirror's fault; zqu-config check --online looks at it."},
    {"download CAB", true,
     "The archive could not be downloaded or stored: the log has the reason in a line with download_cab. Check the "
     "room "
     "and the permissions below def_root, http_timeout_s and the mirror."},
    {"CAB sha256 mismatch", true,
     "The archive is not the one that the mirror describes: damaged on its way, replaced, or still being copied to the "
     "mirror; or def_root was full. Check the room below def_root. With room, of no concern once; when it stays, the "
     "mirror has to be repaired."},
    {"CAB extract", true,
     "The archive could not be unpacked: it is damaged or holds what cannot be written, or def_root is full. Check the "
     "room below def_root, then the release on the mirror."},
    {"CAB missing ", false,
     "The archive lacks this definition file: wrong flavor in the configuration, or a wrong release on the mirror."},
    {"sha256 mismatch ", false,
     "This definition file is not the one that the archive's index describes: a wrong release on the mirror, or "
     "def_root was full. Check the room below def_root, then the release."},
    {"publish/flip failed", true,
     "The link active could not be replaced: the log has the reason in a line with publish. Check that def_root can be "
     "written and that neither active nor active.tmp there is a directory."},
}};

}  // namespace

std::string advice_for(const std::string& last_error) {
    for (const Advice& advice : all) {
        const std::string beginning = advice.beginning;
        if (advice.whole ? last_error == beginning : last_error.compare(0, beginning.size(), beginning) == 0) {
            return advice.text;
        }
    }
    return "No text of this daemon's: the status file comes from another version, or another program.";
}

}  // namespace zqu::status_tool
