#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <nlohmann/json.hpp>
#include <string>

#include "client.hpp"
#include "findings.hpp"
#include "program.hpp"
#include "text.hpp"

namespace zqu::config_tool {

using namespace tools;

namespace {

// Of what a mirror sends, which may be long.
std::string line_of(const std::string& text) {
    return printable(text.substr(0, 4096));
}

// The child's part: a JSON object with the release or the failure, and the warnings.
std::string ask(const Config& cfg, const std::function<void(std::uintmax_t)>& show) {
    Client client(cfg);
    if (show) {
        client.on_progress(show);
    }
    nlohmann::json answer;
    try {
        const std::string id = client.fetch_id();
        const CompleteInfo info = client.fetch_info(id);
        answer["release"] = "release " + excerpt(id) + ", archive " + excerpt(info.cab_name);
    } catch (const MirrorError& e) {
        answer["failure"] = line_of(e.what());
    }
    answer["warnings"] = nlohmann::json::array();
    for (const std::string& warning : client.warnings()) {
        answer["warnings"].push_back(line_of(warning));
    }
    return answer.dump();
}

// Whether the caller, who asks instead of the daemon's user, may read what the transfer needs.
bool may_ask(const Config& cfg, const User& user, Findings& findings) {
    for (const std::string& path : {cfg.ca_path, local_path(MirrorClient(cfg).hit_ini_url())}) {
        if (!user.can_ask() && !path.empty() && access(path.c_str(), R_OK) != 0 && errno == EACCES) {
            findings.warning(0, "the mirror was not asked: " + quoted(path) + " cannot be read by you (user " +
                                    user.name + "): run as root");
            return false;
        }
    }
    return true;
}

}  // namespace

void check_online(const Reading& reading, const User& user, std::chrono::seconds limit, bool quiet,
                  Findings& findings) {
    if (!may_ask(reading.cfg, user, findings)) {
        return;
    }
    Progress progress;
    std::function<void(std::uintmax_t)> show;
    if (!quiet && isatty(STDERR_FILENO) == 1) {
        progress.begin("asking the mirror");
        show = [&](std::uintmax_t bytes) { progress.show(bytes); };
    }
    const auto child = in_child([&] { become(user); }, [&] { return ask(reading.cfg, show); }, limit);
    progress.show(0);  // with this, clear() also clears what a child that was killed has shown
    progress.clear();
    if (child.timed_out) {
        findings.error(0, "the mirror has not answered within " + duration_text(limit.count()));
        return;
    }
    if (!child.succeeded()) {
        findings.error(0, "the mirror was not asked: " + printable(child.output));
        return;
    }
    const auto answer = nlohmann::json::parse(child.output);
    if (answer.contains("release")) {
        findings.note(0, "the mirror answers: " + answer["release"].get<std::string>());
    } else {
        findings.error(0, "the mirror does not serve a release: " + answer["failure"].get<std::string>());
    }
    for (const auto& warning : answer["warnings"]) {
        findings.warning(0, warning.get<std::string>());
    }
}

}  // namespace zqu::config_tool
