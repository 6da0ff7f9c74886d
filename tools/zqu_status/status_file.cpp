#include "status_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "descriptors.hpp"
#include "text.hpp"

namespace zqu::status_tool {

using namespace tools;

namespace {

using nlohmann::json;

StatusFile fault(StatusState state, std::string reason) {
    return {state, std::move(reason), {}, false};
}

StatusFile fault_of(int error) {
    const bool missing = error == ENOENT || error == ENOTDIR;
    return fault(missing ? StatusState::missing : StatusState::unreadable, std::generic_category().message(error));
}

// The text with the control characters inside its JSON texts escaped, as the daemon should have if it minded.
std::string with_controls_escaped(const std::string& text) {
    static const char digits[] = "0123456789abcdef";
    std::string result;
    bool inside = false;
    bool escaped = false;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (inside && !escaped && byte < 0x20) {
            result = result + "\\u00" + digits[byte >> 4] + digits[byte & 0x0F];
        } else {
            result += c;
        }
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

const json& member(const json& document, const char* name) {
    const auto found = document.find(name);
    if (found == document.end()) {
        throw std::invalid_argument("there is no \"" + std::string(name) + "\"");
    }
    return *found;
}

std::string text_of(const json& document, const char* name) {
    const json& value = member(document, name);
    if (!value.is_string()) {
        throw std::invalid_argument("\"" + std::string(name) + "\" is no text");
    }
    return value.get<std::string>();
}

std::int64_t time_of(const json& document, const char* name) {
    const json& value = member(document, name);
    if (!value.is_number_integer() || (value.is_number_unsigned() && value.get<std::uint64_t>() > INT64_MAX)) {
        throw std::invalid_argument("\"" + std::string(name) + "\" is no whole number of 64 bits");
    }
    if (value.get<std::int64_t>() < 0) {
        throw std::invalid_argument("\"" + std::string(name) + "\" is negative");
    }
    return value.get<std::int64_t>();
}

SnapshotStore::Status contents_of(const json& document) {
    SnapshotStore::Status status;
    status.active_version = text_of(document, "active_version");
    status.engine_version = text_of(document, "engine_version");
    status.antivir_def_version = text_of(document, "antivir_def_version");
    status.aivsecon_def_version = text_of(document, "aivsecon_def_version");
    status.last_check_epoch = time_of(document, "last_check_epoch");
    status.last_success_epoch = time_of(document, "last_success_epoch");
    status.last_error = text_of(document, "last_error");
    return status;
}

StatusFile interpret(const json& document) {
    if (!document.is_object()) {
        return fault(StatusState::invalid, "it is no JSON object");
    }
    const json& version = member(document, "schema_version");
    if (version != json(1) || !version.is_number_integer()) {
        return fault(StatusState::schema, "its schema_version is " + version.dump() + ", not 1");
    }
    return {StatusState::valid, "", contents_of(document), false};
}

StatusFile read_open(int descriptor) {
    std::string text;
    std::array<char, 4096> block{};
    while (text.size() <= status_limit) {
        const ssize_t count = read(descriptor, block.data(), block.size());
        if (count < 0 && errno != EINTR) {
            return fault_of(errno);
        }
        if (count == 0) {
            return parse_status(text);
        }
        text.append(block.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return fault(StatusState::too_long, "it is longer than " + std::to_string(status_limit) + " bytes");
}

}  // namespace

const char* name_of(StatusState state) {
    static constexpr std::array<const char*, 8> names{"valid",    "missing",    "unreadable", "not_regular",
                                                      "too_long", "unfinished", "invalid",    "schema"};
    return names.at(static_cast<std::size_t>(state));
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

StatusFile read_status(const std::string& path) {
    struct stat found {};
    // Looked at before it is opened: a daemon that waits for a reader of a FIFO must not be let go by us.
    if (lstat(path.c_str(), &found) != 0) {
        return fault_of(errno);
    }
    if (!S_ISREG(found.st_mode)) {
        return fault(StatusState::not_regular, "it is no regular file");
    }
    const tools::Fd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (file.get() < 0 || fstat(file.get(), &found) != 0) {
        return fault_of(errno);
    }
    return S_ISREG(found.st_mode) ? read_open(file.get()) : fault(StatusState::not_regular, "it is no regular file");
}

}  // namespace zqu::status_tool
