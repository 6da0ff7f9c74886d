#include "check.hpp"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "client.hpp"
#include "failure.hpp"
#include "inspect.hpp"
#include "names.hpp"
#include "verifier.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;
using tools::inspect;
using tools::Inspection;

namespace {

bool report(Run& run, const std::string& verdict, const std::string& text) {
    run.phase("");  // clears the progress, and says nothing more once a signal is ending the run
    say(verdict + std::string(9 - verdict.size(), ' ') + text);
    return verdict != "FAULT";
}

fs::path make_temp(Run& run) {
    return run.make_scratch([] {
        std::string path = fs::absolute(fs::temp_directory_path()) / "zqu-mirror-XXXXXX";
        if (mkdtemp(path.data()) == nullptr) {
            fail_errno("cannot create a folder like " + path);
        }
        return fs::path(path);
    });
}

// Refuses what daemons would take for a path, or make no URL of. Says what it is.
bool check_name(const std::string& what, const std::string& name, Run& run) {
    if (name.find('/') != std::string::npos || name == "." || name == "..") {
        return report(run, "FAULT", what + " is a path: " + name);
    }
    if (std::any_of(name.begin(), name.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; })) {
        return report(run, "FAULT", what + " makes no URL: " + name);
    }
    return true;
}

// Downloads the archive, and compares it with what the complete-info INI says of it.
bool check_archive(tools::Client& client, const zqu::CompleteInfo& info, const fs::path& archive, Run& run) {
    run.phase("downloading " + info.cab_name, archive);
    client.download(info.cab_name, archive);
    const std::string size = std::to_string(fs::file_size(archive));
    report(run, "ok", info.cab_name + " can be downloaded: " + size + " bytes");
    if (std::to_string(info.size) != size) {
        report(run, "warning", "def.Current.size is another size: " + std::to_string(info.size));
    }
    if (!zqu::verifier::verify(archive, info.sha256)) {
        return report(run, "FAULT", info.cab_name + " does not have the digest " + info.sha256);
    }
    return report(run, "ok", info.cab_name + " has the digest " + info.sha256);
}

bool check_entries(const Options& options, const std::string& name, const fs::path& archive, Run& run) {
    run.phase("reading " + name);
    const Inspection found = inspect(archive, name, options.flavor);
    for (const auto& remark : found.remarks) {
        report(run, remark.verdict, remark.text);
    }
    return first_fault(found).empty();
}

bool check_release(tools::Client& client, const Options& options, Run& run) {
    const std::string id = client.fetch_id();
    report(run, "ok", hit_name(options.flavor) + " names " + id);
    if (!check_name("the id", id, run)) {
        return false;
    }
    const zqu::CompleteInfo info = client.fetch_info(id);
    report(run, "ok", info_name(options.flavor, id) + " names " + info.cab_name);
    if (info.defid != id) {
        report(run, "warning", "def.Current.defId is another id: " + info.defid);
    }
    if (!check_name("the archive's name", info.cab_name, run)) {
        return false;
    }
    // As a client calls it, for a name that is too long for a file.
    const fs::path archive = make_temp(run) / (info.cab_name + ".part");
    return check_archive(client, info, archive, run) && check_entries(options, info.cab_name, archive, run);
}

}  // namespace

bool check(const Options& options, Run& run) {
    const zqu::Config cfg = client_config(options);
    tools::Client client(cfg);
    try {
        return check_release(client, options, run);
    } catch (const tools::MirrorError& e) {
        return report(run, "FAULT", e.what());
    }
}

}  // namespace zqu::mirror_tool
