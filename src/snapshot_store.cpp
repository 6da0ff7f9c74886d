#include "snapshot_store.hpp"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

namespace zqu {
namespace {

namespace fs = std::filesystem;

// Escapes these five characters and no others: intended.
std::string json_escape(const std::string& in) {
    std::string out;
    out.reserve(in.size() + 8);
    for (const char c : in) {
        switch (c) {
            case '\t':
                out += "\\t";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::vector<fs::directory_entry> directories_below(const std::string& root) {
    std::vector<fs::directory_entry> found;
    std::error_code ignored;  // a root that cannot be opened counts as empty; a listing that breaks off throws
    for (const auto& entry : fs::directory_iterator(root, ignored)) {
        if (entry.is_directory()) {
            found.push_back(entry);
        }
    }
    return found;
}

// Reads both times again; one that cannot be read is the smallest time. Equal times have no order: intended.
bool older(const fs::directory_entry& a, const fs::directory_entry& b) {
    std::error_code ignored;
    return fs::last_write_time(a.path(), ignored) < fs::last_write_time(b.path(), ignored);
}

// Makes a rename inside the directory survive a power cut, as far as the file system allows.
void flush_directory(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
}

}  // namespace

SnapshotStore::SnapshotStore(const Config& cfg) : cfg_(cfg) {
    std::error_code ignored;
    fs::create_directories(snapshots_root(), ignored);
    fs::create_directories(fs::path(cfg_.status_path).parent_path(), ignored);
}

std::string SnapshotStore::active_link() const {
    return cfg_.def_root + "/active";
}

std::string SnapshotStore::snapshots_root() const {
    return cfg_.def_root + "/snapshots";
}

std::string SnapshotStore::stage_dir(const std::string& version) const {
    std::string dir = snapshots_root() + "/" + version;
    std::error_code ignored;
    fs::create_directories(dir, ignored);
    return dir;
}

std::optional<std::string> SnapshotStore::active_version() const {
    std::error_code error;
    const fs::path target = fs::read_symlink(active_link(), error);
    if (error) {
        return std::nullopt;
    }
    return target.filename().string();
}

bool SnapshotStore::publish(const std::string& version) {
    const std::string target = "snapshots/" + version;
    const std::string temporary = active_link() + ".tmp";
    unlink(temporary.c_str());  // what a crash between the next two steps leaves
    if (symlink(target.c_str(), temporary.c_str()) != 0) {
        syslog(LOG_ERR, "publish: symlink %s failed", temporary.c_str());
        return false;
    }
    if (std::rename(temporary.c_str(), active_link().c_str()) != 0) {
        syslog(LOG_ERR, "publish: rename to active failed");
        unlink(temporary.c_str());
        return false;
    }
    flush_directory(cfg_.def_root);
    syslog(LOG_INFO, "published def snapshot %s", version.c_str());
    return true;
}

void SnapshotStore::prune() {
    const auto active = active_version();
    auto snapshots = directories_below(snapshots_root());
    if (snapshots.empty()) {
        return;
    }
    // Not by std::sort, which reads past the end when the comparison contradicts itself. That happens when a time could
    // be read before and cannot be read now.
    std::make_heap(snapshots.begin(), snapshots.end(), older);
    std::sort_heap(snapshots.begin(), snapshots.end(), older);
    // The difference modulo 2^32, read as signed: intended, also where it wraps.
    auto excess = static_cast<std::int32_t>(snapshots.size() - cfg_.retained_snapshots);
    for (const auto& snapshot : snapshots) {
        if (excess <= 0) {
            return;
        }
        if (active && snapshot.path().filename().string() == *active) {
            continue;
        }
        std::error_code ignored;
        fs::remove_all(snapshot.path(), ignored);
        --excess;  // also when the removal failed, so that no newer one goes instead
    }
}

void SnapshotStore::write_status(const Status& s) const {
    std::ofstream out(cfg_.status_path, std::ios::out | std::ios::trunc);
    if (!out) {
        return;
    }
    out << "{\n";
    out << "  \"schema_version\": 1,\n";
    out << "  \"active_version\": \"" << json_escape(s.active_version) << "\",\n";
    out << "  \"engine_version\": \"" << json_escape(s.engine_version) << "\",\n";
    out << "  \"antivir_def_version\": \"" << json_escape(s.antivir_def_version) << "\",\n";
    out << "  \"aivsecon_def_version\": \"" << json_escape(s.aivsecon_def_version) << "\",\n";
    out << "  \"last_check_epoch\": " << s.last_check_epoch << ",\n";
    out << "  \"last_success_epoch\": " << s.last_success_epoch << ",\n";
    out << "  \"last_error\": \"" << json_escape(s.last_error) << "\"\n";
    out << "}\n";
}

}  // namespace zqu
