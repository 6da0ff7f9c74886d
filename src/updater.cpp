#include "updater.hpp"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "verifier.hpp"

namespace zqu {
namespace {

namespace fs = std::filesystem;

// The two files that a snapshot consists of.
struct DefinitionNames {
    std::string antivir;
    std::string aivsecon;
};

void set_versions(SnapshotStore::Status& st, const std::string& version) {
    st.active_version = version;
    st.antivir_def_version = version;
    st.aivsecon_def_version = version;
}

// The file's content; empty when it is missing or cannot be read. Not by a stream's operator<<: on a failed allocation
// it reports the end of the file, and an index cut short leaves files unchecked.
std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::in | std::ios::binary);
    std::vector<char> block(65536);
    std::string text;
    while (in) {
        in.read(block.data(), static_cast<std::streamsize>(block.size()));
        text.append(block.data(), static_cast<std::size_t>(in.gcount()));
    }
    return in.bad() ? "" : text;
}

// Returns what is wrong with the definition files in stage, or "". A file that the index does not name is accepted:
// intended. Throws when a file's status cannot be read.
std::string check_definitions(const std::string& stage, const std::string& flavor, const DefinitionNames& names) {
    const auto index = verifier::parse_def_index(read_file(stage + "/antivir-" + flavor + ".ini"));
    for (const auto& name : {names.antivir, names.aivsecon}) {
        const std::string path = stage + "/" + name;
        if (!fs::exists(path)) {
            return "CAB missing " + name;
        }
        const auto entry = index.find(name);
        if (entry != index.end() && !verifier::verify(path, entry->second)) {
            return "sha256 mismatch " + name;
        }
    }
    return "";
}

// Removes everything but the definition files; what cannot be removed, such as a directory with content, stays.
void sweep(const std::string& stage, const DefinitionNames& names) {
    std::error_code ignored;  // a directory that cannot be opened counts as empty; a listing that breaks off throws
    for (const auto& entry : fs::directory_iterator(stage, ignored)) {
        const std::string name = entry.path().filename().string();
        if (name != names.antivir && name != names.aivsecon) {
            fs::remove(entry.path(), ignored);
        }
    }
}

// Fills stage with the verified definition files of the release. Returns "" or the reason why it cannot be used.
std::string fill_stage(MirrorClient& mirror, const CompleteInfo& info, const std::string& stage,
                       const std::string& flavor) {
    const DefinitionNames names{"antivir-" + flavor + ".def", "aivsecon-" + flavor + ".def"};
    const std::string cab_path = stage + "/" + info.cab_name;
    if (!mirror.download_cab(info.cab_name, cab_path)) {
        return "download CAB";
    }
    if (!verifier::verify(cab_path, info.sha256)) {
        return "CAB sha256 mismatch";
    }
    if (!verifier::extract(cab_path, stage)) {
        return "CAB extract";
    }
    static_cast<void>(std::remove(cab_path.c_str()));
    std::string err = check_definitions(stage, flavor, names);
    if (err.empty()) {
        sweep(stage, names);
    }
    return err;
}

// Spreads the checks of many gateways: differs from process to process and from cycle to cycle.
std::uint32_t jitter(std::uint32_t limit_s) {
    constexpr std::int64_t spread = 2654435761;
    const std::int64_t seed = static_cast<std::int64_t>(getpid()) * spread + std::time(nullptr);
    return static_cast<std::uint32_t>(seed % static_cast<std::int64_t>(limit_s));
}

// One whole second, however often a signal interrupts it.
void sleep_one_second() {
    timespec left{1, 0};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

}  // namespace

Updater::Updater(const Config& cfg) : cfg_(cfg), mirror_(cfg_), store_(cfg_) {}

bool Updater::run_once() {
    const std::int64_t now = std::time(nullptr);
    SnapshotStore::Status st;
    st.last_check_epoch = now;
    st.engine_version = cfg_.engine_version;
    const auto active = store_.active_version();

    const auto fail = [&](const std::string& reason) {
        set_versions(st, active.value_or(""));
        st.last_error = reason;  // last_success_epoch stays 0: the status describes this check only
        store_.write_status(st);
        return false;
    };

    const auto defid = mirror_.fetch_defid();
    if (!defid) {
        return fail("defId fetch failed");
    }
    if (active == defid) {
        set_versions(st, *active);
        st.last_success_epoch = now;
        store_.write_status(st);
        return false;
    }
    const auto info = mirror_.fetch_complete_info(*defid);
    if (!info) {
        return fail("complete-info fetch failed for " + *defid);
    }

    const std::string stage = store_.stage_dir(*defid);
    const std::string err = fill_stage(mirror_, *info, stage, cfg_.flavor);
    if (!err.empty()) {
        syslog(LOG_ERR, "run_once: staging failed: %s", err.c_str());
        std::error_code ignored;
        fs::remove_all(stage, ignored);
        return fail(err);
    }
    if (!store_.publish(*defid)) {
        return fail("publish/flip failed");  // the staging directory stays: intended
    }

    store_.prune();
    set_versions(st, *defid);
    st.last_success_epoch = now;
    store_.write_status(st);
    syslog(LOG_INFO, "def snapshot updated: %s -> %s", active ? active->c_str() : "none", defid->c_str());
    return true;
}

void Updater::run_loop(volatile std::sig_atomic_t& stop) {
    syslog(LOG_INFO, "zel_quorin_updater loop started (interval=%us jitter=%us)", cfg_.poll_interval_s,
           cfg_.poll_jitter_s);
    std::uint32_t failures = 0;
    while (stop == 0) {
        std::uint32_t wait = cfg_.poll_interval_s;
        try {
            run_once();
            failures = 0;
        } catch (const std::exception& e) {
            syslog(LOG_ERR, "run_once exception: %s", e.what());
            wait >>= std::min<std::uint32_t>(failures, 3);  // shrinks: trying again sooner is intended
            ++failures;
        }
        if (cfg_.poll_jitter_s != 0) {
            wait += jitter(cfg_.poll_jitter_s);
        }
        for (std::uint32_t slice = 0; slice < wait && stop == 0; ++slice) {
            sleep_one_second();
        }
    }
    syslog(LOG_INFO, "zel_quorin_updater loop stopped");
}

}  // namespace zqu
