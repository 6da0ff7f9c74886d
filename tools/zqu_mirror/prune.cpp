#include "prune.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <map>
#include <string>
#include <system_error>
#include <vector>

#include "catalogue.hpp"
#include "failure.hpp"
#include "files.hpp"
#include "lock.hpp"
#include "names.hpp"
#include "workplace.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

namespace {

std::int64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

// Whether the time lies more than so many seconds back. What lies in the future does not.
bool older(std::int64_t time_ns, std::int64_t now, std::int64_t age_s) {
    return now - time_ns > age_s * 1'000'000'000;
}

// The releases of the flavor that no hit INI names, newest first.
std::vector<Release> former_releases(const Catalogue& catalogue, const std::string& flavor) {
    std::vector<Release> former;
    for (const auto& release : catalogue.releases) {
        const auto& infos = catalogue.current.infos;
        const bool current =
            std::any_of(infos.begin(), infos.end(), [&](const auto& named) { return named.second == release.info; });
        if (release.flavor == flavor && !current) {
            former.push_back(release);
        }
    }
    std::stable_sort(former.begin(), former.end(),
                     [](const Release& a, const Release& b) { return a.seen_ns > b.seen_ns; });
    return former;
}

// How many of the former releases a client may be about to fetch: those that were published or ceased to be current
// within the grace. Workplace::make_current leaves the time of the hit INI on what ceased to be current; where that was
// not done, and the hit INI was replaced within the grace, the newest one before counts too: it may have been current
// when the grace began.
std::size_t count_in_grace(const std::vector<Release>& former, const Options& options, std::int64_t now) {
    const auto is_older = [&](const Release& release) { return older(release.seen_ns, now, options.grace_s); };
    const auto first = std::find_if(former.begin(), former.end(), is_older);
    const std::int64_t replaced_ns = modified_ns(folder(options) / hit_name(options.flavor));
    const bool recorded = std::any_of(former.begin(), former.end(),
                                      [&](const Release& release) { return release.seen_ns == replaced_ns; });
    const auto count = static_cast<std::size_t>(first - former.begin());
    return recorded || older(replaced_ns, now, options.grace_s) ? count : count + 1;
}

// What is to go, oldest first: the former releases less those in their grace, those that --keep counts beside the
// current one, and those that are not old enough for --older-than.
std::vector<Release> doomed_releases(const Catalogue& catalogue, const Options& options, std::int64_t now) {
    std::vector<Release> former = former_releases(catalogue, options.flavor);
    if (options.keep == 0 && options.older_than_s < 0) {
        return {};
    }
    const std::size_t beside_current = options.keep == 0 ? 0 : options.keep - 1;
    const std::size_t kept = std::max(beside_current, count_in_grace(former, options, now));
    former.erase(former.begin(), former.begin() + static_cast<std::ptrdiff_t>(std::min(kept, former.size())));
    former.erase(std::remove_if(former.begin(), former.end(),
                                [&](const Release& release) {
                                    return options.older_than_s >= 0 &&
                                           !older(release.seen_ns, now, options.older_than_s);
                                }),
                 former.end());
    std::reverse(former.begin(), former.end());
    return former;
}

// Removes, or with --dry-run only counts, and says so.
class Remover {
public:
    Remover(const Options& options, const Catalogue& catalogue, Run& run)
        : options_(options), folder_(folder(options)), run_(run) {
        for (const auto& release : catalogue.releases) {
            ++uses_[release.archive];
        }
    }

    void release(const Release& release) {
        const Current current = read_current(options_);  // once more: not everybody who changes a mirror takes the lock
        for (const auto& [flavor, info] : current.infos) {
            if (info == release.info) {
                say("kept " + release.id + ": it is current now");
                return;
            }
        }
        const bool shared = --uses_[release.archive] > 0 || current.archives.count(release.archive) != 0;
        const std::uintmax_t before = bytes_;
        run_.step([&] {
            remove_file(release.info);
            if (!shared) {
                flush_folder();  // no power cut may leave the INI without its archive
                remove_file(release.archive);
            }
            const std::string what = shared ? release.info + " (" + release.archive + " serves another release)"
                                            : release.info + ", " + release.archive;
            say(did() + release.id + ": " + what + ", " + std::to_string(bytes_ - before) + " bytes");
        });
        ++releases_;
    }

    void orphan(const std::string& name) {
        if (read_current(options_).archives.count(name) != 0) {
            say("kept " + name + ": a current release names it now");
            return;
        }
        const std::uintmax_t before = bytes_;
        run_.step([&] {
            remove_file(name);
            say(did() + name + ", which no INI names: " + std::to_string(bytes_ - before) + " bytes");
        });
        ++others_;
    }

    void work_folder() {
        const fs::path work = folder_ / work_folder_name;
        if (!fs::exists(fs::symlink_status(work))) {
            return;
        }
        const std::uintmax_t before = bytes_;
        for (const auto& entry :
             fs::recursive_directory_iterator(work, fs::directory_options::skip_permission_denied)) {
            bytes_ += entry.is_regular_file() ? entry.file_size() : 0;
        }
        run_.step([&] {
            if (!options_.dry_run) {
                std::error_code error;
                remove_tree(work, error);
                if (error) {
                    throw fs::filesystem_error("cannot remove", work, error);
                }
            }
            say(did() + work_folder_name + ", which a killed run has left: " + std::to_string(bytes_ - before) +
                " bytes");
        });
        ++others_;
    }

    void finish() {
        run_.step([&] {
            flush_folder();
            const std::string total = options_.dry_run ? "would be removed in all: " : "removed in all: ";
            say(total + "releases " + std::to_string(releases_) + ", leftovers " + std::to_string(others_) +
                ", bytes " + std::to_string(bytes_));
        });
    }

private:
    [[nodiscard]] std::string did() const { return options_.dry_run ? "would remove " : "removed "; }

    void flush_folder() const {
        if (!options_.dry_run) {
            flush(folder_);
        }
    }

    void remove_file(const std::string& name) {
        const fs::path path = folder_ / name;
        std::error_code missing;
        const std::uintmax_t size = fs::file_size(path, missing);
        if (!options_.dry_run && unlink(path.c_str()) != 0 && errno != ENOENT) {
            fail_errno("cannot remove " + path.string());
        }
        bytes_ += missing ? 0 : size;
    }

    const Options& options_;
    const fs::path folder_;
    Run& run_;
    std::map<std::string, int> uses_;  // by archive, how many INIs name it
    std::uintmax_t bytes_ = 0;
    std::size_t releases_ = 0;
    std::size_t others_ = 0;
};

}  // namespace

void prune(const Options& options, Run& run) {
    const Lock lock(folder(options));
    const Catalogue catalogue = read_catalogue(options);
    if (catalogue.current.infos.count(options.flavor) == 0) {
        fail(hit_name(options.flavor) + " is missing: nothing tells which release is current");
    }
    const std::int64_t now = now_ns();
    Remover remover(options, catalogue, run);
    remover.work_folder();
    for (const auto& release : doomed_releases(catalogue, options, now)) {
        remover.release(release);
    }
    for (const auto& name : catalogue.orphans) {
        if (older(changed_ns(folder(options) / name), now, options.grace_s)) {
            remover.orphan(name);
        }
    }
    remover.finish();
}

}  // namespace zqu::mirror_tool
