#include "catalogue.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <ctime>

#include "client.hpp"
#include "files.hpp"
#include "options.hpp"
#include "plain.hpp"
#include "rollout.hpp"
#include "verifier.hpp"
#include "workplace.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

namespace {

const std::string prefix = "antivir-";
const std::string hit_suffix = "-hit.ini";
const std::string info_mark = "-c-";
const std::string info_suffix = ".ini";

bool may_be_info(const std::string& name) {
    return begins_with(name, prefix) && ends_with(name, info_suffix) &&
           name.find(info_mark, prefix.size()) != std::string::npos;
}

void require_plain(const std::string& file, const std::string& name) {
    refuse(file + ": the name " + name, unusable_name(name));
}

// Empty when the name cannot be a hit INI's.
std::string flavor_of_hit(const std::string& name) {
    const std::size_t frame = prefix.size() + hit_suffix.size();
    const bool hit = begins_with(name, prefix) && ends_with(name, hit_suffix) && name.size() > frame;
    return hit ? name.substr(prefix.size(), name.size() - frame) : "";
}

// Reads the INI files of one directory through one client.
class IniReader {
public:
    explicit IniReader(const Options& options) : options_(options), cfg_(client_config(options)), client_(cfg_) {
        std::error_code error;
        for (fs::directory_iterator entry(directory_of(options), error), end; !error && entry != end;
             entry.increment(error)) {
            names_.push_back(entry->path().filename());
        }
        if (error) {
            throw std::system_error(error, "cannot open " + directory_of(options).string());
        }
        std::sort(names_.begin(), names_.end());
    }

    // The file names in the directory, sorted.
    [[nodiscard]] const std::vector<std::string>& names() const { return names_; }

    // When a name has several marks, any of them may end the flavor: the file that is read is the same.
    zqu::CompleteInfo info(const std::string& name) {
        require_plain(name, name);
        const auto mark = name.find(info_mark, prefix.size());
        const auto id_at = mark + info_mark.size();
        cfg_.flavor = name.substr(prefix.size(), mark - prefix.size());
        auto found = client_.fetch_info(name.substr(id_at, name.size() - id_at - info_suffix.size()));
        // With the name of an INI file, prune would remove that instead of the archive.
        refuse(name + ": the archive's name " + found.cab_name, unusable_archive(found.cab_name));
        return found;
    }

    // The current releases and the problems with them.
    Catalogue current() {
        Catalogue found;
        std::set<std::string> flavors;
        for (const auto& name : names_) {
            if (!flavor_of_hit(name).empty()) {
                attempt(found, [&] { read_hit(name, found.current); });
            }
            for (const int percent : stages) {
                const std::string end = "." + std::to_string(percent);
                if (ends_with(name, end)) {
                    flavors.insert(flavor_of_hit(name.substr(0, name.size() - end.size())));
                }
            }
        }
        flavors.erase("");
        for (const auto& flavor : flavors) {
            attempt(found, [&] { read_stages(flavor, found); });
        }
        return found;
    }

    Catalogue all() {
        Catalogue found = current();
        std::set<std::string> named;
        for (const auto& name : names_) {
            if (may_be_info(name) && found.current.ids.count(flavor_of_hit(name)) == 0) {
                attempt(found, [&] {
                    require_plain(name, name);
                    Release& release = found.releases.emplace_back(release_of(name, found.current));
                    const zqu::CompleteInfo read = info(name);
                    release.size = read.size;
                    named.insert(release.archive = read.cab_name);
                });
            }
        }
        for (const auto& name : names_) {
            const std::string owner = owner_of(name);
            const auto release = std::find_if(found.releases.begin(), found.releases.end(),
                                              [&](const Release& each) { return each.info == owner; });
            if (release != found.releases.end()) {
                release->companions.push_back(name);
            } else if ((!owner.empty() || !format_of(name).empty()) && named.count(name) == 0) {
                const bool ours = (is_ours(name) || may_be_info(owner)) &&
                                  fs::is_regular_file(fs::symlink_status(directory_of(options_) / name));
                (ours ? found.orphans : found.strangers).push_back(name);
            }
        }
        return found;
    }

private:
    // Adds what read throws to the problems, once.
    static void attempt(Catalogue& found, const std::function<void()>& read) {
        try {
            read();
        } catch (const std::exception& e) {
            if (std::count(found.problems.begin(), found.problems.end(), e.what()) == 0) {
                found.problems.emplace_back(e.what());
            }
        }
    }

    // Leaves out a file that is the INI of a release whose id ends in "hit".
    void read_hit(const std::string& name, Current& current) {
        require_plain(name, name);
        const std::string flavor = cfg_.flavor = flavor_of_hit(name);
        std::string id;
        try {
            id = client_.fetch_id();
        } catch (const tools::MirrorError&) {
            if (may_be_info(name) && is_info(name)) {
                return;
            }
            throw;
        }
        require_plain(name, id);
        current.ids[flavor] = id;
        current.archives.insert(info(info_name(flavor, id)).cab_name);
    }

    void read_stages(const std::string& flavor, Catalogue& found) {
        require_plain(stage_name(flavor, 1), flavor);
        Options of_flavor = options_;
        of_flavor.flavor = flavor;
        const Rollout rollout = rollout_of(of_flavor);
        found.leftovers.insert(found.leftovers.end(), rollout.leftovers.begin(), rollout.leftovers.end());
        for (const auto& fault : rollout.faults) {
            found.problems.push_back(fault.what);
        }
        if (rollout.percent > 0) {
            found.current.candidates[flavor] = rollout.id;
            found.current.archives.insert(info(info_name(flavor, rollout.id)).cab_name);
        }
    }

    bool is_info(const std::string& name) {
        try {
            info(name);
            return true;
        } catch (const tools::MirrorError&) {
            return false;
        }
    }

    Release release_of(const std::string& name, const Current& current) {
        Release release;
        release.info = name;
        release.times = times_of(directory_of(options_) / name);
        const auto consider = [&](const std::string& flavor) {
            const auto id = id_in(name, flavor);
            if (id && flavor.size() >= release.flavor.size()) {
                release.flavor = flavor;
                release.id = *id;
            }
        };
        consider(options_.flavor);
        for (const auto& [flavor, id] : current.ids) {
            consider(flavor);
            release.current = release.current || info_name(flavor, id) == name;
        }
        for (const auto& [flavor, id] : current.candidates) {
            consider(flavor);
            release.candidate = release.candidate || info_name(flavor, id) == name;
        }
        return release;
    }

    const Options& options_;
    zqu::Config cfg_;
    tools::Client client_;
    std::vector<std::string> names_;
};

}  // namespace

Current read_current(const Options& options) {
    Catalogue found = IniReader(options).current();
    require_understood(found);
    return std::move(found.current);
}

Catalogue read_catalogue(const Options& options) {
    IniReader reader(options);
    Catalogue found = reader.all();
    const std::string hit = hit_name(options.flavor);
    if (!std::binary_search(reader.names().begin(), reader.names().end(), hit)) {
        found.problems.insert(found.problems.begin(), hit + " is missing: nothing says which release is current");
    }
    return found;
}

void require_understood(const Catalogue& catalogue) {
    if (!catalogue.problems.empty()) {
        fail(catalogue.problems.front());
    }
}

std::vector<Release> newest_first(const Catalogue& catalogue, const Options& options, std::int64_t now) {
    std::vector<Release> found;
    std::copy_if(catalogue.releases.begin(), catalogue.releases.end(), std::back_inserter(found),
                 [&](const Release& release) { return release.flavor == options.flavor; });
    std::stable_sort(found.begin(), found.end(), [](const Release& a, const Release& b) {
        return a.current != b.current ? a.current : a.times.modified_ns > b.times.modified_ns;
    });
    const fs::path hit = directory_of(options) / hit_name(options.flavor);
    const Times replaced = fs::exists(fs::symlink_status(hit)) ? times_of(hit) : Times{0, 0};
    const auto was_replaced = [&](const Release& release) {
        return !release.current && release.times.modified_ns == replaced.modified_ns;
    };
    bool recorded = std::any_of(found.begin(), found.end(), was_replaced);
    const std::int64_t grace = options.grace_s * 1'000'000'000;
    for (auto& release : found) {
        release.grace_ns = release.times.changed_ns + grace;
        if (was_replaced(release) || (!release.current && !release.candidate && !recorded && release.grace_ns < now)) {
            release.grace_ns = std::max(release.grace_ns, replaced.changed_ns + grace);
            recorded = true;
        }
    }
    return found;
}

std::string info_that_names(const Options& options, const std::string& archive) {
    const Catalogue found = IniReader(options).all();
    require_understood(found);
    const auto names_it = [&](const Release& release) { return release.archive == archive; };
    const auto release = std::find_if(found.releases.begin(), found.releases.end(), names_it);
    return release == found.releases.end() ? "" : release->info;
}

bool is_ours(const std::string& archive) {
    const auto mark = archive.find(info_mark, prefix.size() + 1);
    const auto suffix = suffixes.find(format_of(archive));
    return begins_with(archive, prefix) && mark != std::string::npos && suffix != suffixes.end() &&
           mark + info_mark.size() + suffix->second.size() < archive.size() && unusable_name(archive).empty();
}

std::vector<std::string> archives_of_killed_run(const fs::path& directory) {
    std::vector<std::string> left;
    Options here;
    here.mirror = directory;
    here.subdir = "";
    Options work = here;
    work.subdir = work_directory_name;
    IniReader reader(work);
    for (const auto& name : reader.names()) {
        try {
            const zqu::CompleteInfo info = may_be_info(name) ? reader.info(name) : zqu::CompleteInfo{};
            const fs::path archive = directory / info.cab_name;
            if (!info.cab_name.empty() && fs::is_regular_file(fs::symlink_status(archive)) &&
                zqu::verifier::verify(archive, info.sha256) && info_that_names(here, info.cab_name).empty()) {
                left.push_back(info.cab_name);
            }
        } catch (const std::runtime_error&) {  // cut short by the kill, or the mirror is damaged: the archive stays
        }
    }
    return left;
}

Times times_of(const fs::path& path) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
        fail_errno("cannot read the time of " + path.string());
    }
    const auto nanoseconds = [](const timespec& time) {
        return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
    };
    const std::int64_t modified = nanoseconds(status.st_mtim);
    return {modified, std::max(modified, nanoseconds(status.st_ctim))};
}

std::int64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

}  // namespace zqu::mirror_tool
