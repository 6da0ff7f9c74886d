// What is in service below the definitions root, as the programs that read the definitions find it.
//
// Only looks: nothing is created, no file is opened. A publication may happen meanwhile; same_link() tells.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config.hpp"

namespace zqu::status_tool {

// What the link "active" leads to.
enum class LinkState {
    in_service,  // a snapshot: a directory directly below "snapshots"
    missing,     // there is no link
    unreadable,  // it, or where it leads, may not or cannot be looked at
    no_link,     // something else is in its place
    dangling,    // no directory
    outside,     // a directory elsewhere
};

enum class DefinitionState {
    present,
    missing,
    unreadable,   // its status cannot be told
    not_regular,  // something else has its name, a link included
};

struct Definition {
    std::string name;
    DefinitionState state = DefinitionState::missing;
    std::uint64_t size = 0;  // in bytes, of one that is present
};

struct Store {
    LinkState link = LinkState::missing;
    std::string reason;                     // why the link is unreadable
    std::string target;                     // of the link, when it could be read
    std::string version;                    // last component of the target, the version in service
    std::optional<std::int64_t> published;  // time of the link in seconds since the Unix epoch: rename(2) keeps it
    std::vector<Definition> definitions;    // antivir, then aivsecon; none unless in service
    std::optional<std::size_t> snapshots;   // directories below "snapshots"; none when they cannot be counted
};

// The names of the states, as JSON tells them: "in_service", "not_regular".
[[nodiscard]] const char* name_of(LinkState state);
[[nodiscard]] const char* name_of(DefinitionState state);

// Looks at the definitions root that cfg names. Throws for want of memory only.
[[nodiscard]] Store look_at_store(const Config& cfg);

// Whether both found the same link: when they did, no publication came between them.
[[nodiscard]] bool same_link(const Store& first, const Store& second);

}  // namespace zqu::status_tool
