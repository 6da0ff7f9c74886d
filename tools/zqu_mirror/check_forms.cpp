#include <algorithm>
#include <nlohmann/json.hpp>

#include "check.hpp"
#include "text.hpp"

namespace zqu::mirror_tool {

using nlohmann::ordered_json;
using tools::Verdict;

namespace {

constexpr std::size_t most_shown = 3;  // remarks in a line

tools::Limit limit_of(const Options& options) {
    return {options.max_age_s, 2 * options.max_age_s};
}

std::int64_t age_of(const Found& found, std::int64_t now) {
    return std::max<std::int64_t>(0, now - *found.published);
}

// null for what is not known.
template <typename T>
ordered_json known(bool is_known, const T& value) {
    return is_known ? ordered_json(value) : ordered_json(nullptr);
}

std::string summary(const Found& found, std::int64_t now) {
    auto remarks = found.remarks;
    remarks.erase(std::remove_if(remarks.begin(), remarks.end(), [](auto& each) { return each.first == Verdict::ok; }),
                  remarks.end());
    std::stable_sort(remarks.begin(), remarks.end(), [](auto& one, auto& other) { return one.first > other.first; });
    std::string text;
    for (std::size_t i = 0; i < remarks.size() && i < most_shown; ++i) {
        text += (i == 0 ? "" : "; ") + tools::shown(remarks[i].second);
    }
    if (remarks.size() > most_shown) {
        text += "; and " + std::to_string(remarks.size() - most_shown) + " more";
    }
    if (remarks.empty()) {
        text = tools::shown(found.id) + " is current and sound";
        text += found.published ? ", " + tools::duration_text(age_of(found, now)) + " old" : "";
    }
    return text;
}

}  // namespace

Verdict verdict(const Found& found) {
    Verdict worst = Verdict::ok;
    for (const auto& remark : found.remarks) {
        worst = std::max(worst, remark.first);
    }
    return worst;
}

const char* word_of(Verdict verdict) {
    return verdict == Verdict::critical ? "FAULT" : tools::name_of(verdict);
}

std::string json_form(const Options& options, const Found& found) {
    ordered_json object{{"mirror", options.mirror}, {"flavor", options.flavor}, {"verdict", word_of(verdict(found))}};
    object["id"] = known(!found.id.empty(), found.id);
    object["archive"] = known(!found.archive.empty(), found.archive);
    object["size"] = known(found.size.has_value(), found.size.value_or(0));
    object["published_epoch"] = known(found.published.has_value(), found.published.value_or(0));
    object["certificate_end_epoch"] = known(found.chain_end.has_value(), found.chain_end.value_or(0));
    object["lines"] = ordered_json::array();
    for (const auto& [verdict, text] : found.remarks) {
        object["lines"].push_back({{"verdict", word_of(verdict)}, {"text", tools::printable(text)}});
    }
    return object.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

std::string nagios_form(const Options& options, const Found& found, std::int64_t now) {
    const std::string data = found.published ? tools::performance("age", age_of(found, now), limit_of(options)) : "";
    return tools::nagios_line("MIRROR", verdict(found), summary(found, now), data);
}

std::string prometheus_form(const Options& options, const Found& found, std::int64_t now) {
    const tools::Exposition::Labels here{{"mirror", options.mirror}, {"flavor", options.flavor}};
    const auto with = [&here](const std::string& label, const std::string& content) {
        auto labels = here;
        labels.emplace_back(label, content);
        return labels;
    };
    tools::Exposition out;
    const auto gauge = [&](const std::string& name, const std::string& help, std::optional<std::int64_t> value) {
        if (value) {
            out.head("mirror_" + name, help);
            out.sample(here, std::to_string(*value));
        }
    };
    out.head("mirror_verdict", "The verdict on a mirror: 1 for this one, 0 for the others.");
    for (const Verdict each : {Verdict::ok, Verdict::warning, Verdict::critical, Verdict::unknown}) {
        out.sample(with("verdict", tools::name_of(each)), each == verdict(found) ? "1" : "0");
    }
    if (!found.id.empty()) {
        out.head("mirror_release_info", "The release that the mirror names; always 1.");
        out.sample(with("version", found.id), "1");
    }
    gauge("release_timestamp_seconds", "When the release was published.", found.published);
    gauge("archive_size_bytes", "Size of the release's archive.", found.size);
    gauge("certificate_end_timestamp_seconds", "When the first certificate of the mirror's chain ends.",
          found.chain_end);
    if (options.max_age_s > 0) {
        out.head("mirror_release_age_limit_seconds", "Age of the release from which on it is too old.");
        out.sample(with("severity", "warning"), std::to_string(limit_of(options).warning));
        out.sample(with("severity", "critical"), std::to_string(limit_of(options).critical));
    }
    gauge("observation_timestamp_seconds", "When zqu-mirror check looked.", now);
    return out.text();
}

}  // namespace zqu::mirror_tool
