#include "catalogue.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <optional>

#include "client.hpp"
#include "failure.hpp"
#include "names.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

namespace {

const std::string prefix = "antivir-";
const std::string hit_suffix = "-hit.ini";
const std::string info_mark = "-c-";
const std::string info_suffix = ".ini";

bool ends_with(const std::string& name, const std::string& suffix) {
    return name.size() >= suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool begins_with(const std::string& name, const std::string& start) {
    return name.compare(0, start.size(), start) == 0;
}

bool is_archive(const std::string& name) {
    return ends_with(name, ".cab") || ends_with(name, ".zip");
}

bool may_be_hit(const std::string& name) {
    return begins_with(name, prefix) && ends_with(name, hit_suffix) && name.size() > prefix.size() + hit_suffix.size();
}

bool may_be_info(const std::string& name) {
    return begins_with(name, prefix) && ends_with(name, info_suffix) &&
           name.find(info_mark, prefix.size()) != std::string::npos;
}

void require_plain(const std::string& file, const std::string& name) {
    const std::string reason = unusable_name(name);
    if (!reason.empty()) {
        fail(file + ": the name " + name + " " + reason);
    }
}

// An archive's name that is an INI file's would have that removed instead of the archive.
void require_archive(const std::string& file, const std::string& name) {
    const std::string reason = unusable_archive(name);
    if (!reason.empty()) {
        fail(file + ": the archive's name " + name + " " + reason);
    }
}

std::string flavor_of_hit(const std::string& name) {
    return name.substr(prefix.size(), name.size() - prefix.size() - hit_suffix.size());
}

// Reads the INI files of one folder through one client.
class Reader {
public:
    explicit Reader(const Options& options) : folder_(folder(options)), cfg_(client_config(options)), client_(cfg_) {
        for (const auto& entry : fs::directory_iterator(folder_)) {
            names_.push_back(entry.path().filename());
        }
        std::sort(names_.begin(), names_.end());
    }

    // The file names in the folder, sorted.
    [[nodiscard]] const std::vector<std::string>& names() const { return names_; }

    // Which of the marks parts flavor and id makes no difference to the file that is read.
    zqu::CompleteInfo info(const std::string& name) {
        require_plain(name, name);
        const auto mark = name.find(info_mark, prefix.size());
        const auto id_at = mark + info_mark.size();
        cfg_.flavor = name.substr(prefix.size(), mark - prefix.size());
        auto found = client_.fetch_info(name.substr(id_at, name.size() - id_at - info_suffix.size()));
        require_archive(name, found.cab_name);
        return found;
    }

    // The name of the complete-info INI that a hit INI names; none when it is the INI of a release whose id ends so.
    std::optional<std::string> hit(const std::string& name) {
        require_plain(name, name);
        cfg_.flavor = flavor_of_hit(name);
        std::string id;
        try {
            id = client_.fetch_id();
        } catch (const tools::MirrorError&) {
            if (may_be_info(name) && is_info(name)) {
                return std::nullopt;
            }
            throw;
        }
        require_plain(name, id);
        return info_name(flavor_of_hit(name), id);
    }

    Release release(const std::string& name, const Current& current) {
        Release release;
        release.info = name;
        release.archive = info(name).cab_name;
        release.seen_ns = modified_ns(folder_ / name);
        for (const auto& [flavor, unused] : current.infos) {
            const std::string start = stem(flavor, "");
            if (begins_with(name, start) && flavor.size() >= release.flavor.size()) {
                release.flavor = flavor;
                release.id = name.substr(start.size(), name.size() - start.size() - info_suffix.size());
            }
        }
        return release;
    }

    Current current() {
        Current current;
        for (const auto& name : names_) {
            const auto named = may_be_hit(name) ? hit(name) : std::nullopt;
            if (named) {
                current.infos[flavor_of_hit(name)] = *named;
                current.archives.insert(info(*named).cab_name);
            }
        }
        return current;
    }

private:
    bool is_info(const std::string& name) {
        try {
            info(name);
            return true;
        } catch (const tools::MirrorError&) {
            return false;
        }
    }

    const fs::path folder_;
    zqu::Config cfg_;
    tools::Client client_;
    std::vector<std::string> names_;
};

std::int64_t nanoseconds(const timespec& time) {
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

struct stat status_of(const fs::path& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        fail_errno("cannot tell the time of " + path.string());
    }
    return status;
}

}  // namespace

Current read_current(const Options& options) {
    return Reader(options).current();
}

Catalogue read_catalogue(const Options& options) {
    Reader reader(options);
    Catalogue catalogue;
    catalogue.current = reader.current();
    std::set<std::string> named;
    for (const auto& name : reader.names()) {
        const bool hit = catalogue.current.infos.count(may_be_hit(name) ? flavor_of_hit(name) : "") != 0;
        if (may_be_info(name) && !hit) {
            catalogue.releases.push_back(reader.release(name, catalogue.current));
            named.insert(catalogue.releases.back().archive);
        }
    }
    for (const auto& name : reader.names()) {
        if (is_archive(name) && named.count(name) == 0) {
            catalogue.orphans.push_back(name);
        }
    }
    return catalogue;
}

std::string info_that_names(const Options& options, const std::string& archive) {
    for (const auto& release : read_catalogue(options).releases) {
        if (release.archive == archive) {
            return release.info;
        }
    }
    return "";
}

std::int64_t modified_ns(const fs::path& path) {
    return nanoseconds(status_of(path).st_mtim);
}

std::int64_t changed_ns(const fs::path& path) {
    return nanoseconds(status_of(path).st_ctim);
}

}  // namespace zqu::mirror_tool
