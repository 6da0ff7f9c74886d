#include <algorithm>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>

#include "client.hpp"
#include "commands.hpp"
#include "monitoring.hpp"
#include "plain.hpp"
#include "rollout.hpp"
#include "signature.hpp"
#include "text.hpp"
#include "workplace.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;
using nlohmann::ordered_json;
using tools::Verdict;

namespace {

// What a check has found, as far as it came.
struct Found {
    std::vector<std::pair<tools::Verdict, std::string>> remarks;  // critical is a FAULT; may hold any bytes
    Rollout rollout;                                              // of a mirror that is a directory
    std::string id;
    std::string archive;                    // its name
    std::optional<std::uintmax_t> size;     // of the archive, in bytes
    std::optional<std::int64_t> modified;   // the time of the complete-info INI, in seconds since the Unix epoch
    std::optional<std::int64_t> published;  // what a signed one says, or else the same
    std::optional<std::int64_t> chain_end;  // when the first certificate of the mirror's chain ends
};

constexpr std::size_t most_shown = 3;  // remarks in a line

tools::Limit limit_of(const Options& options) {
    return {options.max_age_s, (options.trust.empty() ? 2 : 1) * options.max_age_s};
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
        text += found.rollout.percent > 0 ? "; " + tools::shown(found.rollout.text()) : "";
    }
    return text;
}

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
    object["info_modified_epoch"] = known(found.modified.has_value(), found.modified.value_or(0));
    object["certificate_end_epoch"] = known(found.chain_end.has_value(), found.chain_end.value_or(0));
    object["lines"] = ordered_json::array();
    for (const auto& [verdict, text] : found.remarks) {
        object["lines"].push_back({{"verdict", word_of(verdict)}, {"text", tools::printable(text)}});
    }
    return object.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

std::string nagios_form(const Options& options, const Found& found, std::int64_t now) {
    const std::string data = found.published ? tools::performance("age", age_of(found, now), limit_of(options)) : "";
    return tools::nagios_line(nagios_service, verdict(found), summary(found, now), data);
}

std::string prometheus_form(const Options& options, const Found& found, std::int64_t now) {
    tools::Exposition out({{"mirror", options.mirror}, {"flavor", options.flavor}});
    out.verdict("mirror_verdict", "The verdict on a mirror: 1 for this one, 0 for the others.", verdict(found));
    if (!found.id.empty()) {
        out.head("mirror_release_info", "The release that the mirror names; always 1.");
        out.sample({{"version", found.id}}, "1");
    }
    if (found.rollout.percent > 0) {
        out.head("mirror_rollout_percent", "The share of the gateways that get the candidate of a rollout.");
        out.sample({{"version", found.rollout.id}}, std::to_string(found.rollout.percent));
        out.gauge("mirror_rollout_start_timestamp_seconds", "When the rollout began.", found.rollout.start_s);
    }
    out.gauge("mirror_release_timestamp_seconds",
              "When the release was published, as it says signed; else when its INI was modified: by its publication, "
              "or when another release replaced it.",
              found.published);
    out.gauge("mirror_archive_size_bytes", "Size of the release's archive.", found.size);
    out.gauge("mirror_certificate_end_timestamp_seconds", "When the first certificate of the mirror's chain ends.",
              found.chain_end);
    out.limit("mirror_release_age_limit_seconds", "Age of the release from which on it is too old.", limit_of(options));
    out.gauge("mirror_observation_timestamp_seconds", "When zqu-mirror check looked.", now);
    return out.text();
}

void require(bool sound, const std::string& fault) {
    if (!sound) {
        throw tools::MirrorError(tools::printable(fault));  // what() ends at a zero byte
    }
}

class Check {
public:
    Check(const Options& options, Run& run)
        : options_(options), run_(run), keys_(given_keys(options)), cfg_(client_config(options)), client_(cfg_) {}

    Found all() {
        attempt([this] { current(); });
        if (!is_url(options_.mirror)) {
            rollout();
        }
        for (const auto& warning : client_.warnings()) {
            report(Verdict::warning, warning);
        }
        if (client_.chain_end()) {
            found_.chain_end = client_.chain_end()->epoch;
        }
        return found_;
    }

private:
    void attempt(const std::function<void()>& step) {
        try {
            step();
        } catch (const tools::MirrorError& e) {
            report(Verdict::critical, e.what());
        }
    }

    void report(Verdict verdict, const std::string& what) {
        const std::string text = about_ + what;
        run_.phase("");  // clears the progress, and says nothing more once a signal is ending the run
        found_.remarks.emplace_back(verdict, text);
        if (options_.form == Form::text && (!options_.quiet || verdict != Verdict::ok)) {
            const std::string word = word_of(verdict);
            say(word + std::string(9 - word.size(), ' ') + text);
        }
    }

    // Refuses what clients would use as a path, could not put into a URL, or could not use as the name of a file.
    static void require_name(const std::string& what, const std::string& name, const std::string& file) {
        const auto control = [](unsigned char c) { return c < 0x20 || c == 0x7F; };
        require(name.find('/') == std::string::npos && name != "." && name != "..", what + " is a path: " + name);
        require(std::none_of(name.begin(), name.end(), control), what + " cannot be part of a URL: " + name);
        require(file.size() <= NAME_MAX, what + " is too long for a file: " + name);
    }

    void current() {
        const std::string id = client_.fetch_id();
        report(Verdict::ok, hit_name(options_.flavor) + " names " + id);
        release(id);
    }

    // Checks the candidate like the current release. Ids, sizes and times in the output stay those of the current one.
    void rollout() {
        Found facts = found_;
        facts.rollout = rollout_of(options_);
        for (const auto& fault : facts.rollout.faults) {
            report(Verdict::critical, fault.what);
        }
        const std::string id = facts.rollout.id;
        if (facts.rollout.percent > 0) {
            report(Verdict::ok, stage_name(options_.flavor, facts.rollout.percent) + " names " + id);
            judge_duration(facts.rollout);
            about_ = "candidate " + id + ": ";
            attempt([&] { release(id); });
            about_.clear();
        }
        facts.remarks = found_.remarks;
        found_ = facts;
    }

    void judge_duration(const Rollout& rollout) {
        const std::int64_t lasts = std::time(nullptr) - rollout.start_s;
        if (options_.max_rollout_s > 0 && lasts > options_.max_rollout_s) {
            report(Verdict::warning, "the rollout of " + rollout.id + " began " + tools::duration_text(lasts) +
                                         " ago, more than " + tools::duration_text(options_.max_rollout_s) +
                                         ": run zqu-mirror rollout MIRROR with 100 or withdraw");
        }
    }

    void release(const std::string& id) {
        found_.id = id;
        require_name("the id", id, info_name(options_.flavor, id));
        const std::string text = client_.fetch_info_text(id);
        found_.modified = client_.last_modified();
        const zqu::CompleteInfo info = client_.read_info(text, id);
        // In a directory of plain archives, the upstream mirror's INI is signed, and gives their digest.
        const std::string upstream = is_url(options_.mirror) ? text : upstream_text(options_, id);
        const std::string& signed_text = plain_info(upstream).sha256 == info.sha256 ? upstream : text;
        found_.published = signed_time(signed_text) ? signed_time(signed_text) : found_.modified;
        found_.archive = info.cab_name;
        report(Verdict::ok, info_name(options_.flavor, id) + " names " + info.cab_name);
        const std::string fault = distrust(options_, keys_, id, signed_text);
        require(fault.empty(), fault);
        if (!keys_.empty()) {
            report(Verdict::ok, "a trusted key signed it, published " + tools::utc_text(*found_.published));
        }
        if (info.defid != id) {
            report(Verdict::warning, "def.Current.defId is another id: " + info.defid);
        }
        if (about_.empty()) {
            judge_age();
        }
        require_name("the archive's name", info.cab_name, info.cab_name + ".part");  // as a client calls it
        archive(info, text);
    }

    void judge_age() {
        const std::string info = info_name(options_.flavor, found_.id);
        const tools::Limit limit = limit_of(options_);
        const std::int64_t age = std::time(nullptr) - found_.published.value_or(0);
        const Verdict verdict = limit.judge(age);
        if (found_.published.value_or(0) > std::time(nullptr) + 60) {
            report(Verdict::warning, info + " is from the future: its age is unknown until then");
        }
        if (options_.max_age_s > 0 && !found_.published) {
            report(Verdict::unknown, "the server gives no Last-Modified for " + info + ": its age is unknown");
        } else if (verdict != Verdict::ok) {
            report(verdict, "the release " + found_.id + " is " + tools::duration_text(age) + " old, more than " +
                                tools::duration_text(verdict == Verdict::critical ? limit.critical : limit.warning));
        }
    }

    void archive(const zqu::CompleteInfo& info, const std::string& info_text) {
        const tools::Fd file = tools::temporary_file();
        const fs::path path = tools::memory_path(file);
        download(info.cab_name, file);
        found_.size = fs::file_size(path);
        const std::string size = std::to_string(*found_.size);
        report(Verdict::ok, info.cab_name + " can be downloaded: " + size + " bytes");
        // The first size counts. So one that is added at the end counts only if the INI has none.
        if (info.size == 0 && client_.read_info(info_text + "\ndef.Current.size = 1", found_.id).size == 1) {
            report(Verdict::warning, "def.Current.size is missing");
        } else if (std::to_string(info.size) != size) {
            report(Verdict::warning, "def.Current.size is another size: " + std::to_string(info.size));
        }
        run_.phase("reading " + info.cab_name);
        require(has_digest(path, info.sha256, run_), info.cab_name + " does not have the digest " + info.sha256);
        report(Verdict::ok, info.cab_name + " has the digest " + info.sha256);
        const auto inspection = inspect_in(run_, "reading " + info.cab_name, path, info.cab_name, options_.flavor);
        for (const auto& [word, text] : inspection.remarks) {
            report(word == "FAULT" ? Verdict::critical : word == "warning" ? Verdict::warning : Verdict::ok, text);
        }
        for (const auto& delta : plain_info(info_text).deltas) {
            judge_delta(delta);
        }
    }

    // Only mirror --plain takes deltas, and it does not need them.
    void judge_delta(const Delta& delta) {
        const std::string name = delta_name(options_.flavor, found_.id, delta);
        const tools::Fd file = tools::temporary_file();
        const fs::path path = tools::memory_path(file);
        try {
            download(name, file, delta.size);
            require(fs::file_size(path) == delta.size && has_digest(path, delta.sha256, run_),
                    name + " does not have the size and the digest that the INI gives");
            report(Verdict::ok, name + ", the delta from " + delta.from + ", has its digest");
        } catch (const tools::MirrorError& e) {
            report(Verdict::warning, e.what());
        }
    }

    void download(const std::string& name, const tools::Fd& file, std::uintmax_t most = tools::largest_file) {
        run_.phase("downloading " + name, fs::path(tools::memory_path(file)));
        try {
            client_.download(name, file.get(), most);
        } catch (const std::system_error& e) {
            fail(e.what() + std::string("; name a directory with more room by TMPDIR"));
        }
    }

    const Options& options_;
    Run& run_;
    const std::string keys_;
    const zqu::Config cfg_;
    tools::Client client_;
    Found found_;
    std::string about_;  // begins each line, for the candidate
};

}  // namespace

int check(const Options& options, Run& run) {
    Found found;
    try {
        found = Check(options, run).all();
    } catch (const std::exception& e) {
        if (options.form != Form::prometheus) {
            throw;
        }
        found.remarks.emplace_back(Verdict::unknown, e.what());
        tools::complain(e.what());
    }
    const std::int64_t now = std::time(nullptr);
    run.phase("");
    if (options.form == Form::prometheus) {
        tools::print(prometheus_form(options, found, now));
        return EXIT_SUCCESS;
    }
    if (options.form == Form::nagios) {
        tools::print(nagios_form(options, found, now));
        return tools::exit_status(verdict(found));
    }
    if (options.form == Form::json) {
        tools::print(json_form(options, found));
    }
    return verdict(found) == Verdict::critical ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace zqu::mirror_tool
