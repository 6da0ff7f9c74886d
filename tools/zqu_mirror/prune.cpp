#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>

#include "catalogue.hpp"
#include "commands.hpp"
#include "text.hpp"
#include "workplace.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t second_ns = 1'000'000'000;

// Why the release stays, which is the number-th newest one; empty when it is to go. A time in the future is young.
std::string reason_to_keep(const Release& release, std::size_t number, const Options& options, std::int64_t now) {
    if (release.current) {
        return "current";
    }
    if (release.candidate) {
        return "candidate";
    }
    if (release.grace_ns >= now) {
        return "within the grace until " + tools::utc_text(release.grace_ns / second_ns);
    }
    if (options.keep == 0 && options.older_than_s < 0) {
        return "neither --keep nor --older-than is given";
    }
    if (number <= options.keep) {
        return "among the " + std::to_string(options.keep) + " newest";
    }
    const bool young = options.older_than_s >= 0 && now - release.times.modified_ns <= options.older_than_s * second_ns;
    return young ? "younger than " + tools::duration_text(options.older_than_s) : "";
}

// Removes, or with --dry-run only counts, and says so.
class Remover {
public:
    Remover(const Options& options, const Catalogue& catalogue, Run& run)
        : options_(options), directory_(directory_of(options)), run_(run) {
        for (const auto& release : catalogue.releases) {
            ++uses_[release.archive];
        }
    }

    void release(const Release& release) {
        const Current current = read_current(options_);  // again: other programs change a mirror without the lock
        for (const auto& [named, role] : {std::pair(current.ids, "current"), {current.candidates, "a candidate"}}) {
            if (std::any_of(named.begin(), named.end(),
                            [&](const auto& each) { return info_name(each.first, each.second) == release.info; })) {
                report("kept " + release.id + ": it is " + role + " now");
                return;
            }
        }
        const bool shared = --uses_[release.archive] > 0 || current.archives.count(release.archive) != 0;
        const std::string what = shared ? release.info + " (" + release.archive + " serves another release)"
                                        : release.info + ", " + release.archive;
        remove(release.id + ": " + what + ", ", [&] {
            remove_file(release.info);
            if (!shared) {
                flush_directory();  // no power cut may leave the INI without its archive
                remove_file(release.archive);
            }
            std::for_each(release.companions.begin(), release.companions.end(),
                          [this](const auto& name) { remove_file(name); });
        });
        ++releases_;
    }

    void orphan(const std::string& name, const std::string& reason) {
        if (read_current(options_).archives.count(name) != 0) {
            report("kept " + name + ": a current release names it now");
            return;
        }
        remove(name + ", which " + reason + ": ", [&] { remove_file(name); });
        ++others_;
    }

    void work_directory() {
        const fs::path work = directory_ / work_directory_name;
        remove(std::string(work_directory_name) + ", which a killed run has left: ", [&] {
            for (const auto& entry :
                 fs::recursive_directory_iterator(work, fs::directory_options::skip_permission_denied)) {
                bytes_ += entry.is_regular_file() ? entry.file_size() : 0;
            }
            std::error_code error;
            if (!options_.dry_run) {
                remove_tree(work, error);
            }
            if (error) {
                throw fs::filesystem_error("cannot remove", work, error);
            }
        });
        ++others_;
    }

    void finish() {
        run_.step([&] { flush_directory(); });
        report((options_.dry_run ? "would be removed in all: releases " : "removed in all: releases ") +
               std::to_string(releases_) + ", leftovers " + std::to_string(others_) + ", bytes " +
               std::to_string(bytes_));
    }

    // Says what is not a removal.
    void report(const std::string& text) const { mirror_tool::report(options_, text, run_); }

    void report_kept(const std::string& what, const std::string& reason) const {
        if (options_.dry_run) {
            report("would keep " + what + ": " + reason);
        }
    }

private:
    void remove(const std::string& what, const std::function<void()>& action) {
        const std::uintmax_t before = bytes_;
        run_.step([&] {
            action();
            if (options_.dry_run || !options_.quiet) {
                say((options_.dry_run ? "would remove " : "removed ") + what + std::to_string(bytes_ - before) +
                    " bytes");
            }
        });
    }

    void flush_directory() const {
        if (!options_.dry_run) {
            flush(directory_);
        }
    }

    void remove_file(const std::string& name) {
        const fs::path path = directory_ / name;
        std::error_code missing;
        const std::uintmax_t size = fs::file_size(path, missing);
        if (!options_.dry_run && unlink(path.c_str()) != 0 && errno != ENOENT) {
            fail_errno("cannot remove " + path.string());
        }
        bytes_ += missing ? 0 : size;
    }

    const Options& options_;
    const fs::path directory_;
    Run& run_;
    std::map<std::string, int> uses_;  // by archive, how many INIs name it
    std::uintmax_t bytes_ = 0;
    std::size_t releases_ = 0;
    std::size_t others_ = 0;
};

// The archives before the work directory: only its INIs show which of them a killed run has left.
void remove_what_killed_runs_left(Remover& remover, const fs::path& place, Catalogue& catalogue) {
    for (const auto& name : catalogue.leftovers) {
        remover.orphan(name, "a killed run has left");
    }
    if (!has_work_directory(place)) {
        return;
    }
    for (const auto& name : archives_of_killed_run(place)) {
        remover.orphan(name, "a killed run has left");
        auto& strangers = catalogue.strangers;
        strangers.erase(std::remove(strangers.begin(), strangers.end(), name), strangers.end());
    }
    remover.work_directory();
}

// Removes the oldest first.
void remove_releases(Remover& remover, const Catalogue& catalogue, const Options& options, std::int64_t now) {
    const std::set<std::string> held = options.dry_run ? held_ids(options) : std::set<std::string>();
    const std::vector<Release> releases = newest_first(catalogue, options, now);
    for (std::size_t number = releases.size(); number > 0; --number) {
        if (reason_to_keep(releases[number - 1], number, options, now).empty()) {
            remover.release(releases[number - 1]);
        }
    }
    for (std::size_t number = 1; number <= releases.size(); ++number) {
        const Release& release = releases[number - 1];
        const std::string reason = reason_to_keep(release, number, options, now);
        if (!reason.empty()) {
            remover.report_kept(release.id + (held.count(release.id) != 0 ? " (held)" : ""), reason);
        }
    }
}

}  // namespace

void prune(const Options& options, Run& run) {
    const fs::path place = directory_of(options);
    become_owner(place);
    const Lock lock(place);
    Catalogue catalogue = read_catalogue(options);
    require_understood(catalogue);
    const std::int64_t now = now_ns();
    Remover remover(options, catalogue, run);
    remove_what_killed_runs_left(remover, place, catalogue);
    remove_releases(remover, catalogue, options, now);
    for (const auto& name : catalogue.orphans) {
        const std::int64_t grace_ns = times_of(place / name).changed_ns + options.grace_s * second_ns;
        if (grace_ns < now) {
            remover.orphan(name, "no INI names");
        } else {
            remover.report_kept(name,
                                "no INI names it, within the grace until " + tools::utc_text(grace_ns / second_ns));
        }
    }
    for (const auto& name : catalogue.strangers) {
        const bool file = fs::is_regular_file(fs::symlink_status(place / name));
        remover.report("not ours, kept: " + name +
                       (file ? ", " + std::to_string(fs::file_size(place / name)) + " bytes" : ""));
    }
    remover.finish();
}

}  // namespace zqu::mirror_tool
