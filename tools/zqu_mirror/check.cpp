#include "check.hpp"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <string>

#include "failure.hpp"
#include "mirror_client.hpp"
#include "names.hpp"
#include "unpack.hpp"
#include "verifier.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

namespace {

bool say(Run& run, const char* verdict, const std::string& text) {
    run.phase("");  // clears the progress, and says nothing more once a signal is ending the run
    std::printf("%-8s %s\n", verdict, one_line(text).c_str());
    std::fflush(stdout);  // in step with what the core library logs
    return std::string(verdict) != "FAULT";
}

// libcurl refuses a URL with a control character; asking all the same would log it as it stands.
bool makes_a_url(const std::string& name) {
    return one_line(name) == name;
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

// Downloads the archive into stage as the daemon does, and compares it with what the complete-info INI says of it.
bool check_archive(zqu::MirrorClient& client, const zqu::CompleteInfo& info, const fs::path& stage, Run& run) {
    if (info.cab_name.find('/') != std::string::npos || info.cab_name == "." || info.cab_name == "..") {
        return say(run, "FAULT", "the archive's name is a path: " + info.cab_name);
    }
    if (!makes_a_url(info.cab_name)) {
        return say(run, "FAULT", "the archive's name makes no URL: " + info.cab_name);
    }
    const fs::path archive = stage / info.cab_name;
    run.phase("downloading " + info.cab_name, archive.string() + ".part");
    if (!client.download_cab(info.cab_name, archive)) {
        return say(run, "FAULT", info.cab_name + " cannot be downloaded");
    }
    const std::string size = std::to_string(fs::file_size(archive));
    say(run, "ok", info.cab_name + " can be downloaded: " + size + " bytes");
    if (std::to_string(info.size) != size) {
        say(run, "warning", "def.Current.size is another size: " + std::to_string(info.size));
    }
    if (!zqu::verifier::verify(archive, info.sha256)) {
        return say(run, "FAULT", info.cab_name + " does not have the digest " + info.sha256);
    }
    return say(run, "ok", info.cab_name + " has the digest " + info.sha256);
}

bool check_definition(const fs::path& file, const std::map<std::string, std::string>& index, Run& run) {
    const std::string name = file.filename();
    const auto entry = index.find(name);
    if (!fs::exists(file)) {
        return say(run, "FAULT", name + " is not in the archive");
    }
    if (entry == index.end()) {
        return say(run, "warning", name + " has no digest in the index: clients take it unchecked");
    }
    if (!zqu::verifier::verify(file, entry->second)) {
        return say(run, "FAULT", name + " does not have the digest that the index gives");
    }
    return say(run, "ok", name + " has the digest that the index gives");
}

// Unpacks the archive in its folder, where nothing but its entries remains, and looks at each of them.
bool check_entries(const Options& options, const fs::path& archive, Run& run) {
    const fs::path stage = archive.parent_path();
    if (!extract_into(stage, archive)) {
        return say(run, "FAULT", archive.filename().string() + " cannot be unpacked");
    }
    say(run, "ok", archive.filename().string() + " can be unpacked");
    fs::remove(archive);
    const std::string antivir = antivir_name(options.flavor);
    const std::string aivsecon = aivsecon_name(options.flavor);
    const auto index = read_index(stage, options.flavor);
    bool usable = check_definition(stage / antivir, index, run);
    usable = check_definition(stage / aivsecon, index, run) && usable;
    std::set<std::string> others;
    for (const auto& entry : fs::directory_iterator(stage)) {
        others.insert(entry.path().filename());
    }
    for (const auto& expected : {antivir, aivsecon, index_name(options.flavor)}) {
        others.erase(expected);
    }
    for (const auto& other : others) {
        say(run, "warning", other + " is in the archive too: clients drop it");
    }
    return usable;
}

}  // namespace

bool check(const Options& options, Run& run) {
    const zqu::Config cfg = client_config(options);
    zqu::MirrorClient client(cfg);
    const auto id = client.fetch_defid();
    if (!id) {
        return say(run, "FAULT", hit_name(options.flavor) + " cannot be fetched, or names no release");
    }
    if (!makes_a_url(*id)) {
        return say(run, "FAULT", hit_name(options.flavor) + " names an id that makes no URL: " + *id);
    }
    say(run, "ok", hit_name(options.flavor) + " names " + *id);
    const std::string name = info_name(options.flavor, *id);
    const auto info = client.fetch_complete_info(*id);
    if (!info) {
        return say(run, "FAULT", name + " cannot be fetched, or names no archive");
    }
    say(run, "ok", name + " names " + info->cab_name);
    if (info->defid != *id) {
        say(run, "warning", "def.Current.defId is another id: " + info->defid);
    }
    const fs::path stage = make_temp(run);
    return check_archive(client, *info, stage, run) && check_entries(options, stage / info->cab_name, run);
}

}  // namespace zqu::mirror_tool
