#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <map>

#include "commands.hpp"
#include "rollout.hpp"
#include "signature.hpp"
#include "upstream.hpp"
#include "workplace.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

namespace {

class Repair {
public:
    Repair(const Options& options, Run& run)
        : options_(options), run_(run), place_(existing_directory(options), run), held_(held_ids(options)) {
        if (!options.upstream.empty()) {
            upstream_.emplace(options, trusted_keys(options, run), run);
        }
    }

    void work() {
        look();
        choose();
        require_consent();
        remove_stages();
        if (offer_) {
            restore(*offer_);
        }
        if (target_ != hit_) {
            point_to_target();
        }
        for (const auto& id : damaged()) {
            restore_or_set_aside(id);
        }
        compare_former();
        restore_deltas();
        finish();
    }

private:
    // ---- What there is ----

    void look() {
        if (place_.removed_leftover()) {
            found(std::string(work_directory_name) + ", which a killed run has left");
            report("removed " + std::string(work_directory_name));
        }
        list_releases();
        look_at_hit();
        look_at_stages();
        examine_releases();
        for (const auto& [id, release] : releases_) {
            if (!release.fault.empty()) {
                found(id + ": " + release.fault);
            } else if (!upstream_ && has_other_size(release.info)) {
                found(info_name(options_.flavor, id) + " gives another size than its archive has: --from restores it");
            }
        }
    }

    // As in an INI that was cut short within the number. Clients do not read it.
    [[nodiscard]] bool has_other_size(const zqu::CompleteInfo& info) const {
        return info.size != 0 &&
               static_cast<std::uintmax_t>(info.size) != fs::file_size(place_.directory() / info.cab_name);
    }

    void list_releases() {
        for (const auto& entry : fs::directory_iterator(place_.directory())) {
            const auto id = id_in(entry.path().filename(), options_.flavor);
            if (id && unusable_id(*id).empty()) {
                std::error_code ignored;
                releases_[*id];
                times_[*id] = fs::last_write_time(entry.path(), ignored);
            }
        }
    }

    // Those that are here, and those that the hit INI and the stage files name.
    void examine_releases() {
        if (hit_) {
            releases_[*hit_];
        }
        if (rollout_.percent > 0) {
            releases_[rollout_.id];
        }
        for (auto& [id, release] : releases_) {
            const bool given_out = id == hit_ || id == rollout_.id;
            release = examine(options_, id, given_out ? Depth::entries : Depth::digest, run_);
        }
    }

    void look_at_stages() {
        rollout_ = rollout_of(options_);
        for (const auto& fault : rollout_.faults) {
            found(fault.what);
        }
        for (const auto& name : rollout_.leftovers) {
            found(name + ", which a killed run has left");
        }
    }

    // An id may be the beginning of another one that was cut short.
    void look_at_hit() {
        const std::string name = hit_name(options_.flavor);
        const fs::path path = place_.directory() / name;
        hit_ = current_id(options_);
        if (!hit_) {
            found(name + (fs::exists(fs::symlink_status(path)) ? " names no release" : " is missing"));
            return;
        }
        const std::string text = text_of(path);
        const bool cut = !text.empty() && text.back() != '\n' &&
                         std::any_of(times_.begin(), times_.end(), [this](const auto& known) {
                             return known.first != *hit_ && known.first.rfind(*hit_, 0) == 0;
                         });
        if (cut) {
            found(name + " may be cut short: it ends with " + *hit_);
            hit_.reset();
        }
    }

    [[nodiscard]] bool is_sound(const std::string& id) const {
        const auto release = releases_.find(id);
        return release != releases_.end() && release->second.fault.empty();
    }

    // The releases whose INI is here, but without all files that it names; and a candidate without INI.
    [[nodiscard]] std::vector<std::string> damaged() const {
        std::vector<std::string> ids;
        if (rollout_.percent > 0 && times_.count(rollout_.id) == 0) {
            ids.push_back(rollout_.id);
        }
        for (const auto& [id, unused] : times_) {
            if (!is_sound(id)) {
                ids.push_back(id);
            }
        }
        return ids;
    }

    // ---- What is to be current ----

    void choose() {
        target_ = hit_.value_or("");
        offer_ = hit_ && (is_sound(target_) || held_.count(target_) == 0) ? offered(target_) : std::nullopt;
        if (hit_ && is_sound(target_)) {
            compare_with_upstream();
            return;
        }
        if (offer_) {
            return;
        }
        const std::string upstreams = upstream_ ? upstream_->current() : "";
        if (!upstreams.empty() && held_.count(upstreams) == 0 && upstreams != rollout_.id) {
            target_ = upstreams;
            offer_ = upstream_->release(target_);
            if (is_sound(target_)) {
                releases_[target_] = examine(options_, target_, Depth::entries, run_);
            }
            if (is_sound(target_)) {
                compare_with_upstream();
            }
            return;
        }
        target_ = former();
    }

    // A release that is sound here except for the bytes of its INI gets the upstream mirror's INI.
    void compare_with_upstream() {
        if (!offer_ || has_text(*offer_)) {
            offer_.reset();
        } else if (!has_content(*offer_)) {
            fail(target_ +
                 " is sound here, but the upstream mirror has other content under this id: nothing is changed");
        } else {
            found(info_name(options_.flavor, target_) + " differs from the upstream mirror's");
        }
    }

    [[nodiscard]] bool has_text(const Offer& offer) const {
        const bool own = offer.text == text_of(place_.directory() / info_name(options_.flavor, offer.id));
        return own || (offer.text == upstream_text(options_, offer.id) && !has_other_size(releases_.at(offer.id).info));
    }

    bool has_content(const Offer& offer) { return is_same(options_, offer, releases_[offer.id].info); }

    // The same for former releases.
    void compare_former() {
        for (const auto& [id, unused] : times_) {
            const auto offer = is_sound(id) && id != target_ ? offered(id) : std::nullopt;
            if (!offer || has_text(*offer)) {
                continue;
            }
            if (has_content(*offer)) {
                found(info_name(options_.flavor, id) + " differs from the upstream mirror's");
                restore(*offer);
            } else {
                found(id + ": the upstream mirror has other content under this id; it is kept");
            }
        }
    }

    std::optional<Offer> offered(const std::string& id) {
        try {
            return upstream_ ? std::optional<Offer>(upstream_->release(id)) : std::nullopt;
        } catch (const tools::MissingFile&) {
            return std::nullopt;
        } catch (const Distrusted& e) {
            if (id == target_) {
                throw;
            }
            report(e.what());  // a former release may be older than the keys
            return std::nullopt;
        }
    }

    // The release that was current before. The one that was current last has the time of the hit INI, or, when that
    // is lost, the newest time (Workplace::make_current). It comes first when the current one is damaged, and last
    // when it is not known which one that was. A candidate never was.
    std::string former() {
        needs_consent_ = true;
        std::vector<std::string> ids;
        for (const auto& [id, unused] : times_) {
            if (id != rollout_.id && held_.count(id) == 0) {
                ids.push_back(id);
            }
        }
        std::error_code lost;
        const auto replaced = fs::last_write_time(place_.directory() / hit_name(options_.flavor), lost);
        const auto rank = [&](const std::string& id) { return std::pair(times_[id] == replaced, times_[id]); };
        std::sort(ids.begin(), ids.end(),
                  [&](const std::string& a, const std::string& b) { return rank(a) > rank(b); });
        if (!ids.empty() && !hit_was_right()) {
            std::rotate(ids.begin(), ids.begin() + 1, ids.end());
        }
        for (const auto& id : ids) {
            if (is_sound(id) && examine(options_, id, Depth::entries, run_).fault.empty()) {
                return id;
            }
        }
        fail("there is no sound release here that is not held: use --from, or publish one");
    }

    // Whether there is a file of the release that the hit INI names.
    [[nodiscard]] bool hit_was_right() const {
        const auto begin = fs::directory_iterator(place_.directory());
        return hit_ && std::any_of(begin, fs::directory_iterator(), [this](const auto& entry) {
                   return entry.path().filename().string().find("-" + *hit_ + ".") != std::string::npos;
               });
    }

    // Without an upstream mirror to ask, what is chosen or set aside may be the wrong thing.
    void require_consent() {
        const auto lost = upstream_ ? std::vector<std::string>() : damaged();
        if (options_.yes || (!needs_consent_ && lost.empty())) {
            return;
        }
        if (target_ != hit_) {
            report("would make current " + target_);
        }
        for (const auto& id : lost) {
            report((id == rollout_.id ? "would end the rollout of " + id + " and set aside " : "would set aside ") +
                   id);
        }
        fail(upstream_ ? "nothing is changed: the upstream mirror's current release is " +
                             std::string(rollout_.percent > 0 ? "held or a candidate" : "held") +
                             "; give --yes to do this, or choose a release with zqu-mirror activate"
                       : "nothing is changed: give --from UPSTREAM to restore, or --yes to do this");
    }

    // ---- What is done ----

    // What belongs to no rollout. Clients of that group find the hit INI then.
    void remove_stages() {
        for (const auto& fault : rollout_.faults) {
            start_grace(options_, fault.id);
            remove_stage(fault.name);
        }
        for (const auto& name : rollout_.leftovers) {
            remove_stage(name);
        }
    }

    void remove_stage(const std::string& name) {
        if (fs::exists(fs::symlink_status(place_.directory() / name))) {
            run_.step([&] { set_aside(name); });
            report("removed " + name);
        }
    }

    void restore(const Offer& offer) {
        const fs::path archive = place_.directory() / offer.info.cab_name;
        const std::string name = info_name(options_.flavor, offer.id);
        const bool have = fs::is_regular_file(archive) && has_digest(archive, offer.info.sha256, run_);
        if (have) {
            upstream_->require_sound(offer.info.cab_name, archive);
        } else {
            require_not_needed(offer);
            upstream_->download(offer, place_.work("archive"));
        }
        // Not under its name: a killed run's INI there says that its archive is a leftover.
        fs::remove(place_.work("info"));
        write_text(place_.work("info"), offer.text);
        run_.step([&] {
            if (!have) {
                replace("archive", offer.info.cab_name);
            }
            if (releases_[offer.id].info.cab_name.empty() || text_of(place_.directory() / name) != offer.text) {
                replace("info", name);
            }
            set_aside(upstream_info_name(name));
            set_aside(plain_name(options_.flavor, offer.id));
        });
        releases_[offer.id] = {"", offer.info};
        report("restored " + summary(place_.directory(), offer.id, offer.info));
    }

    // Clients do without them.
    void restore_deltas() {
        for (const auto& [id, release] : releases_) {
            const std::string text = text_of(place_.directory() / info_name(options_.flavor, id));
            for (const auto& delta : plain_info(text).deltas) {
                const std::string name = delta_name(options_.flavor, id, delta);
                if (has_digest(place_.directory() / name, delta.sha256, run_)) {
                    continue;
                }
                found(id + ": its delta " + name + " is missing or damaged");
                try {
                    if (upstream_) {
                        upstream_->download({id, text, release.info}, delta, place_.work("delta"));
                        run_.step([&] { replace("delta", name); });
                        report("restored " + name);
                    }
                } catch (const tools::MirrorError& e) {
                    report(e.what());
                    fs::remove(place_.work("delta"));
                }
            }
        }
    }

    void require_not_needed(const Offer& offer) {
        const std::string other = needed_by(offer.info.cab_name, offer.id);
        if (!other.empty()) {
            fail(offer.info.cab_name + " is on the mirror with other content, and " + other + " names it");
        }
    }

    // The INI, other than that of the release id, that needs the archive as it is; empty for none.
    std::string needed_by(const std::string& archive, const std::string& id) {
        for (const auto& [other, release] : releases_) {
            if (other != id && release.fault.empty() && release.info.cab_name == archive) {
                return info_name(options_.flavor, other);
            }
        }
        const std::string start = stem(options_.flavor, "");
        for (const auto& entry : fs::directory_iterator(place_.directory())) {
            std::string name = entry.path().filename();
            if (entry.path().extension() == ".ini" && name.rfind(start, 0) != 0 &&
                text_of(entry.path()).find(archive) != std::string::npos) {
                return name;
            }
        }
        return "";
    }

    // Puts a file of the work directory into place, on disk before anything else is done. What it replaces keeps its
    // name until then.
    void replace(const std::string& work_name, const std::string& name) {
        keep(name);
        move(place_.work(work_name), place_.directory() / name);
        flush(place_.directory());
    }

    void keep(const std::string& name) {
        std::error_code error;
        if (fs::exists(fs::symlink_status(place_.directory() / name))) {
            fs::create_hard_link(place_.directory() / name, kept() / name, error);
            flush(kept());
        }
        if (error) {
            set_aside(name);  // a directory, for example
        }
    }

    void set_aside(const std::string& name) {
        if (fs::exists(fs::symlink_status(place_.directory() / name))) {
            move(place_.directory() / name, kept() / name);
            flush(kept());
            flush(place_.directory());
        }
    }

    // The directory of this run for what is replaced.
    const fs::path& kept() {
        if (kept_.empty()) {
            const fs::path all = place_.directory() / replaced_directory_name;
            if (!has_directory(all,
                               " is not a directory, but repair keeps there what it replaces: remove or rename it")) {
                make_directory(all, 0700);
            }
            char now[sizeof "20261122T081500Z"] = "";
            const std::time_t time = std::time(nullptr);
            std::tm parts{};
            std::strftime(now, sizeof now, "%Y%m%dT%H%M%SZ", gmtime_r(&time, &parts));
            kept_ = all / (now + ("." + std::to_string(getpid())));
            make_directory(kept_, 0700);
            flush(all);
        }
        return kept_;
    }

    void point_to_target() {
        run_.step([&] { keep(hit_name(options_.flavor)); });
        place_.make_current(options_, target_, true);
        run_.reopen();
        report("made current " + summary(place_.directory(), target_, releases_[target_].info));
    }

    void restore_or_set_aside(const std::string& id) {
        const std::string archive = releases_[id].info.cab_name;
        if (const auto offer = offered(id)) {
            restore(*offer);
            return;
        }
        if (id == rollout_.id) {
            std::for_each(stages.rbegin(), stages.rend(),
                          [this](int percent) { remove_stage(stage_name(options_.flavor, percent)); });
        }
        run_.step([&] {
            const std::string name = stem(options_.flavor, id);
            set_aside(name + ".ini");
            for (const auto& [format, suffix] : suffixes) {
                const std::string each = archive.empty() ? name + suffix : archive;
                if (needed_by(each, id).empty()) {
                    set_aside(each);
                }
            }
        });
        report("set aside " + id);
    }

    void finish() {
        if (upstream_) {
            upstream_->warn();
        }
        if (!kept_.empty()) {
            report("what was replaced is in " + kept_.string());
        }
        if (!found_) {
            report("nothing is damaged: " + target_ + " is current");
        }
    }

    void found(const std::string& what) {
        found_ = true;
        report("found " + what);
    }

    void report(const std::string& line) { mirror_tool::report(options_, line, run_); }

    const Options& options_;
    Run& run_;
    Workplace place_;
    const std::set<std::string> held_;
    std::optional<Upstream> upstream_{};
    std::optional<std::string> hit_{};  // the release that the hit INI names
    Rollout rollout_{};
    std::map<std::string, Examined> releases_{};         // by id
    std::map<std::string, fs::file_time_type> times_{};  // by id, the modification time of the INI, if there is one
    std::string target_{};                               // the release that is to be current
    std::optional<Offer> offer_{};                       // what it is restored from
    fs::path kept_{};
    bool needs_consent_ = false;
    bool found_ = false;
};

}  // namespace

void repair(const Options& options, Run& run) {
    Repair(options, run).work();
}

}  // namespace zqu::mirror_tool
