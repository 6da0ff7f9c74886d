#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "catalogue.hpp"
#include "commands.hpp"
#include "plain.hpp"
#include "rollout.hpp"
#include "text.hpp"
#include "workplace.hpp"

namespace zqu::mirror_tool {

namespace {

using json = nlohmann::ordered_json;
using Row = std::array<std::string, 6>;

// What is wrong with the archive that the release's INI names.
std::string fault_of(const Release& release, const json& entry) {
    return entry["size"].is_null()
               ? release.archive + " is missing or not a regular file, but " + release.info + " names it"
               : release.archive + " has " + entry["size"].dump() + " bytes, but " + release.info + " says " +
                     std::to_string(release.size);
}

json entry_of(const Release& release, bool held, const Options& options, std::int64_t now) {
    struct stat archive = {};
    const bool there = !release.archive.empty() &&
                       stat((directory_of(options) / release.archive).c_str(), &archive) == 0 &&
                       S_ISREG(archive.st_mode);
    const auto dot = release.archive.rfind('.');
    const std::string format = format_of(release.archive);
    const json other = dot == std::string::npos ? json() : json(release.archive.substr(dot + 1));
    json deltas = json::array();
    for (const auto& delta : plain_info(text_of(directory_of(options) / release.info)).deltas) {
        deltas.push_back({{"from", delta.from}, {"size", delta.size}});
    }
    const bool in_grace = !release.current && !release.candidate && release.grace_ns >= now;
    return {{"id", release.id},
            {"archive", release.archive.empty() ? json() : json(release.archive)},
            {"format", format.empty() ? other : json(format)},
            {"size", there ? json(archive.st_size) : json()},
            {"deltas", deltas},
            {"published_epoch", there ? json(archive.st_mtim.tv_sec) : json()},
            {"current", release.current},
            {"candidate", release.candidate},
            {"grace_until_epoch", in_grace ? json(release.grace_ns / 1'000'000'000) : json()},
            {"held", held},
            {"damaged", !there || (release.size != 0 && archive.st_size != release.size)}};
}

json rollout_in(const Options& options) {
    const Rollout found = rollout_of(options);
    return found.percent == 0 ? json()
                              : json{{"id", found.id},
                                     {"percent", found.percent},
                                     {"since_epoch", found.since_s},
                                     {"start_epoch", found.start_s}};
}

json document_of(const Options& options) {
    Catalogue catalogue = read_catalogue(options);
    std::set<std::string> held;
    try {
        held = held_ids(options);
    } catch (const std::exception& e) {
        catalogue.problems.emplace_back(e.what());
    }
    const auto& ids = catalogue.current.ids;
    const auto current = ids.find(options.flavor);
    if (current != ids.end()) {
        held.erase(current->second);  // what is left of an activate that was killed
    }
    json document{{"directory", directory_of(options).string()},
                  {"flavor", options.flavor},
                  {"current", current == ids.end() ? json() : json(current->second)},
                  {"held", held},
                  {"rollout", rollout_in(options)},
                  {"problems", catalogue.problems},
                  {"releases", json::array()}};
    const std::int64_t now = now_ns();
    for (const auto& release : newest_first(catalogue, options, now)) {
        const json entry = entry_of(release, held.count(release.id) != 0, options, now);
        document["releases"].push_back(entry);
        if (entry["damaged"] && !release.archive.empty()) {
            document["problems"].push_back(fault_of(release, entry));
        }
    }
    return document;
}

std::string state_of(const json& entry, const json& rollout) {
    std::string state = entry["current"] ? ", current" : "";
    if (entry["candidate"] && !rollout.is_null()) {
        state +=
            ", candidate, " + rollout["percent"].dump() + " per cent since " + tools::utc_text(rollout["since_epoch"]);
    }
    if (!entry["grace_until_epoch"].is_null()) {
        state += ", within the grace until " + tools::utc_text(entry["grace_until_epoch"]);
    }
    state += entry["held"] ? ", held" : "";
    state += entry["damaged"] ? ", damaged" : "";
    return state.empty() ? "former" : state.substr(2);
}

Row row_of(const json& entry, const json& rollout) {
    return {entry["id"],
            entry["size"].is_null() ? "-" : tools::utc_text(entry["published_epoch"]),
            entry["size"].is_null() ? "-" : entry["size"].dump(),
            entry["format"].is_null() ? "-" : entry["format"].get<std::string>(),
            std::to_string(entry["deltas"].size()),
            state_of(entry, rollout)};
}

std::string table_of(const json& document) {
    constexpr std::size_t size_column = 2;
    std::vector<Row> rows{{"ID", "PUBLISHED", "SIZE", "FORMAT", "DELTAS", "STATE"}};
    for (const auto& entry : document["releases"]) {
        rows.push_back(row_of(entry, document["rollout"]));
    }
    std::string table;
    for (const auto& row : rows) {
        for (std::size_t column = 0; column + 1 < row.size(); ++column) {
            const auto wider = [&](const Row& a, const Row& b) { return a[column].size() < b[column].size(); };
            const std::size_t width = (*std::max_element(rows.begin(), rows.end(), wider))[column].size();
            const std::string blanks(width - row[column].size(), ' ');
            table += (column == size_column ? blanks + row[column] : row[column] + blanks) + "  ";
        }
        table += row.back() + "\n";
    }
    return table;
}

// A line for the held releases that are not here any more.
std::string held_elsewhere(const json& document) {
    std::string ids;
    for (const auto& held : document["held"]) {
        const auto id = held.get<std::string>();
        const auto& releases = document["releases"];
        const bool here = std::any_of(releases.begin(), releases.end(), [&](auto& entry) { return entry["id"] == id; });
        ids += here ? "" : " " + id;
    }
    return ids.empty() ? "" : "held, but not on this mirror:" + ids + "\n";
}

}  // namespace

int list(const Options& options, Run& /*run*/) {
    const json document = document_of(options);
    if (options.form == Form::json) {
        tools::print(document.dump(2, ' ', true, json::error_handler_t::replace) + "\n");
    } else {
        tools::print(table_of(document) + held_elsewhere(document));
        for (const auto& problem : document["problems"]) {
            complain(problem);
        }
    }
    return document["problems"].empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace zqu::mirror_tool
