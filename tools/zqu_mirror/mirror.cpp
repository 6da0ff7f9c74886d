#include "mirror.hpp"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "catalogue.hpp"
#include "failure.hpp"
#include "files.hpp"
#include "mirror_client.hpp"
#include "names.hpp"
#include "unpack.hpp"
#include "verifier.hpp"
#include "workplace.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

namespace {

// What the upstream mirror says of its current release.
struct Upstream {
    std::string id;
    std::string info;  // the whole text of the complete-info INI
};

void require_usable(const std::string& what, const std::string& name, const std::string& reason) {
    if (!reason.empty()) {
        fail("the upstream mirror's " + what + " " + name + " is refused: it " + reason);
    }
}

// The INI of such an id has the name of a hit INI of another flavor: what it says could keep prune from its work.
std::string mistakable_id(const std::string& id) {
    const std::string end = "-hit";
    const std::string name = "-" + id;
    const bool mistakable = name.size() >= end.size() && name.compare(name.size() - end.size(), end.size(), end) == 0;
    return mistakable ? "must not be \"hit\" or end in -hit" : "";
}

Upstream ask(zqu::MirrorClient& client, const Options& options) {
    const auto id = client.fetch_defid();
    if (!id) {
        fail("the upstream mirror's " + hit_name(options.flavor) + " cannot be fetched, or names no release");
    }
    require_usable("id", *id, unusable_name(*id));
    require_usable("id", *id, mistakable_id(*id));
    const std::string name = info_name(options.flavor, *id);
    require_usable("id", *id, unusable_archive(stem(options.flavor, *id)));  // for its length
    Upstream upstream{*id, ""};
    if (!client.http_get_string(client.complete_ini_url(*id), upstream.info)) {
        fail("the upstream mirror's " + name + " cannot be fetched");
    }
    return upstream;
}

std::string read_text(const fs::path& path) {
    std::string text;
    read_blocks(path, [&](const char* data, std::size_t size) { text.append(data, size); });
    return text;
}

// Whether this is the current release here, too, with the same INI to the byte. Takes no lock: changes nothing.
bool is_current(const Options& options, const Upstream& upstream) {
    const fs::path place = folder(options);
    const fs::path info = place / info_name(options.flavor, upstream.id);
    return current_id(place, options.flavor) == upstream.id && fs::exists(info) && read_text(info) == upstream.info;
}

// Reads a complete-info INI in a folder with the daemon's own code.
std::optional<zqu::CompleteInfo> read_info(const fs::path& place, const std::string& flavor, const std::string& id) {
    Options options;
    options.mirror = place;
    options.subdir = "";
    options.flavor = flavor;
    const zqu::Config cfg = client_config(options);
    return zqu::MirrorClient(cfg).fetch_complete_info(id);
}

// Puts the upstream's INI into the work folder, under its name, and reads it there: what is published later is what
// was read.
zqu::CompleteInfo stage_info(const Options& options, const Upstream& upstream, const Workplace& place) {
    const std::string name = info_name(options.flavor, upstream.id);
    write_text(place.work(name), upstream.info);
    const auto info = read_info(place.work(name).parent_path(), options.flavor, upstream.id);
    if (!info) {
        fail("the upstream mirror's " + name + " names no archive or no digest");
    }
    require_usable("archive name", info->cab_name, unusable_archive(info->cab_name));
    return *info;
}

// Requires that the id, if it is known here, stands for the same archive.
bool require_same_content(const Options& options, const Upstream& upstream, const zqu::CompleteInfo& info) {
    const fs::path place = folder(options);
    if (!fs::exists(place / info_name(options.flavor, upstream.id))) {
        return false;
    }
    const auto known = read_info(place, options.flavor, upstream.id);
    if (!known || !unusable_archive(known->cab_name).empty() ||
        !zqu::verifier::verify(place / known->cab_name, known->sha256)) {
        fail(upstream.id + " is on the mirror, but its INI file and its archive do not match");
    }
    if (known->cab_name != info.cab_name || !zqu::verifier::verify(place / known->cab_name, info.sha256)) {
        fail(upstream.id + " is on the mirror with other content: an id never gets other content");
    }
    return true;
}

// Whether the archive is here already. One with that name and other content must not be named by anything.
bool have_archive(const Options& options, const zqu::CompleteInfo& info) {
    const fs::path archive = folder(options) / info.cab_name;
    if (!fs::exists(fs::symlink_status(archive)) || zqu::verifier::verify(archive, info.sha256)) {
        return fs::exists(archive);
    }
    const std::string other = info_that_names(options, info.cab_name);
    if (!other.empty()) {
        fail(info.cab_name + " is on the mirror with other content, and " + other + " names it");
    }
    return false;
}

void download(zqu::MirrorClient& client, const zqu::CompleteInfo& info, const fs::path& archive, Run& run) {
    run.phase("downloading " + info.cab_name, archive.string() + ".part");
    if (!client.download_cab(info.cab_name, archive)) {
        fail("the upstream mirror's " + info.cab_name + " cannot be downloaded");
    }
    run.phase("checking the archive");
    if (!zqu::verifier::verify(archive, info.sha256)) {
        fail("the upstream mirror's " + info.cab_name + " does not have the digest " + info.sha256);
    }
    flush(archive);
}

// Requires what the daemon requires of an archive before it puts it into service.
void require_definitions(const Options& options, const fs::path& archive, const Workplace& place) {
    const fs::path unpacked = place.work("unpacked");
    const std::string which = "the upstream mirror's archive ";
    make_folder(unpacked, 0700);
    if (!extract_into(unpacked, archive)) {
        fail(which + "cannot be unpacked: is there room in " + place.folder().string() + "?");
    }
    const auto index = read_index(unpacked, options.flavor);
    for (const auto& name : {antivir_name(options.flavor), aivsecon_name(options.flavor)}) {
        const auto entry = index.find(name);
        if (!fs::exists(unpacked / name)) {
            fail(which + "lacks " + name);
        }
        if (entry != index.end() && !zqu::verifier::verify(unpacked / name, entry->second)) {
            fail(which + "holds another " + name + " than its index says");
        }
    }
}

// One after the other, each on disk before the next: nothing ever names what is not there.
void add_release(const std::string& info, const std::string& archive, bool have, Workplace& place) {
    if (!have) {
        place.add("archive", archive);
        flush(place.folder());
    }
    place.add(info, info);
    flush(place.folder());
}

void report_nothing_new(const Upstream& upstream, Run& run) {
    run.phase("");
    std::printf("nothing new: %s is current\n", upstream.id.c_str());
}

// Gets the archive, from the upstream mirror unless it is here already, and puts the release into place.
void add_and_make_current(const Options& options, const Upstream& upstream, const zqu::CompleteInfo& info, bool known,
                          zqu::MirrorClient& client, Workplace& place, Run& run) {
    const bool have = have_archive(options, info);
    const fs::path archive = have ? place.folder() / info.cab_name : place.work("archive");
    if (!have) {
        download(client, info, archive, run);
    }
    require_definitions(options, archive, place);
    if (!known) {
        add_release(info_name(options.flavor, upstream.id), info.cab_name, have, place);
    }
    place.make_current(options.flavor, upstream.id);
}

}  // namespace

void mirror(const Options& options, Run& run) {
    const zqu::Config cfg = upstream_config(options);
    zqu::MirrorClient client(cfg);
    run.phase("asking the upstream mirror");
    const Upstream upstream = ask(client, options);
    if (is_current(options, upstream)) {
        report_nothing_new(upstream, run);
        return;
    }
    Workplace place(folder(options), run);
    const zqu::CompleteInfo info = stage_info(options, upstream, place);
    const bool known = require_same_content(options, upstream, info);
    if (known && current_id(place.folder(), options.flavor) == upstream.id) {  // the INI has changed, but nothing in it
        report_nothing_new(upstream, run);
        return;
    }
    add_and_make_current(options, upstream, info, known, client, place, run);
    run.phase("");
    std::printf("%s %s: %s, %ju bytes, SHA-256 %s\n", known ? "made current again" : "mirrored", upstream.id.c_str(),
                info.cab_name.c_str(), fs::file_size(place.folder() / info.cab_name), info.sha256.c_str());
}

}  // namespace zqu::mirror_tool
