#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <set>
#include <stdexcept>
#include <system_error>

#include "descriptors.hpp"
#include "report.hpp"
#include "text.hpp"

namespace zqu::status_tool {

namespace {

using nlohmann::json;

constexpr std::size_t status_limit = 65536;

StatusFile fault(StatusState state, std::string reason) {
    return {state, std::move(reason), {}, false};
}

// The text with the control characters inside its JSON texts escaped, as valid JSON needs it; the daemon does not do
// this.
std::string with_controls_escaped(const std::string& text) {
    std::string result;
    bool inside = false;
    bool escaped = false;
    for (const char c : text) {
        const bool control = inside && !escaped && static_cast<unsigned char>(c) < 0x20;
        result += control ? "\\u00" + tools::hex(std::string(1, c)) : std::string(1, c);
        inside = inside != (c == '"' && !escaped);
        escaped = inside && c == '\\' && !escaped;
    }
    return result;
}

// Parses strictly; throws json::parse_error, and std::invalid_argument for a member that is there twice.
json parse_once_each(const std::string& text) {
    std::set<std::string> seen;
    return json::parse(text, [&seen](int depth, json::parse_event_t event, json& parsed) {
        if (event == json::parse_event_t::key && depth == 1 && !seen.insert(parsed.get<std::string>()).second) {
            throw std::invalid_argument("\"" + parsed.get<std::string>() + "\" is there twice");
        }
        return true;
    });
}

// Throws std::invalid_argument for a member that is missing, or of another type than in a status file.
SnapshotStore::Status contents_of(const json& document) {
    json members = SnapshotStore::Status();
    members["schema_version"] = 1;
    for (const auto& [name, standard] : members.items()) {
        const json value = document.value(name, json());
        const bool whole = value.is_number_unsigned() && value.get<std::uint64_t>() <= INT64_MAX;
        const char* wanted = standard.is_string() ? "no text" : "no whole number from 0 to 2^63 - 1";
        if (standard.is_string() ? !value.is_string() : !whole) {
            throw std::invalid_argument("\"" + name + "\" is " + (value.is_null() ? "missing" : wanted));
        }
    }
    return document.get<SnapshotStore::Status>();
}

StatusFile interpret(const json& document) {
    if (!document.is_object()) {
        throw std::invalid_argument("it is no JSON object");
    }
    const json version = document.value("schema_version", json());
    if (!version.is_null() && (version != json(1) || !version.is_number_integer())) {
        return fault(StatusState::schema, "its schema_version is " + version.dump() + ", not 1");
    }
    return {StatusState::valid, "", contents_of(document), false};
}

StatusFile parse_status(const std::string& text) {
    const std::string repaired = with_controls_escaped(tools::as_utf8(text));
    try {
        return interpret(parse_once_each(repaired));
    } catch (const json::parse_error& e) {
        if (e.byte <= repaired.size()) {
            return fault(StatusState::invalid, "it is no JSON at byte " + std::to_string(e.byte));
        }
        return {StatusState::unfinished, "it ends after " + std::to_string(text.size()) + " bytes", {}, text.empty()};
    } catch (const std::exception& e) {  // std::invalid_argument, or a number that json takes for out of range
        return fault(StatusState::invalid, e.what());
    }
}

}  // namespace

StatusFile read_status(const std::string& path) {
    try {
        struct stat found = {};
        // Examined before it is opened: opening a FIFO would release a daemon that waits there for a reader.
        if (lstat(path.c_str(), &found) != 0) {
            tools::fail_errno(path);
        }
        if (!S_ISREG(found.st_mode)) {
            return fault(StatusState::not_regular, "it is no regular file");
        }
        const tools::Fd file(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
        const std::string text = tools::read_all(file.get(), status_limit, path);
        return text.size() <= status_limit
                   ? parse_status(text)
                   : fault(StatusState::too_long, "it is longer than " + std::to_string(status_limit) + " bytes");
    } catch (const std::system_error& e) {
        const bool missing = e.code().value() == ENOENT || e.code().value() == ENOTDIR;
        return fault(missing ? StatusState::missing : StatusState::unreadable, e.code().message());
    }
}

}  // namespace zqu::status_tool
