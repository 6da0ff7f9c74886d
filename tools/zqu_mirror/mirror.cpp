#include "mirror.hpp"

#include <filesystem>
#include <string>

#include "catalogue.hpp"
#include "client.hpp"
#include "failure.hpp"
#include "files.hpp"
#include "inspect.hpp"
#include "names.hpp"
#include "verifier.hpp"
#include "workplace.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;
using tools::inspect;

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

Upstream ask(tools::Client& client, const Options& options) {
    const std::string id = client.fetch_id();
    require_usable("id", id, unusable_name(id));
    require_usable("id", id, mistakable_id(id));
    require_usable("id", id, unusable_archive(stem(options.flavor, id)));  // for its length
    return {id, client.fetch_info_text(id)};
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
    return current_id(options) == upstream.id && fs::exists(info) && read_text(info) == upstream.info;
}

// Puts the upstream's INI into the work folder, under its name.
zqu::CompleteInfo stage_info(const tools::Client& client, const Options& options, const Upstream& upstream,
                             const Workplace& place) {
    zqu::CompleteInfo info = client.read_info(upstream.info, upstream.id);
    require_usable("archive name", info.cab_name, unusable_archive(info.cab_name));
    write_text(place.work(info_name(options.flavor, upstream.id)), upstream.info);
    return info;
}

// Requires that the id, if it is known here, stands for the same archive.
bool require_same_content(const Options& options, const Upstream& upstream, const zqu::CompleteInfo& info) {
    const fs::path place = folder(options);
    if (!fs::exists(place / info_name(options.flavor, upstream.id))) {
        return false;
    }
    const zqu::Config cfg = client_config(options);
    const zqu::CompleteInfo known = tools::Client(cfg).fetch_info(upstream.id);
    if (!unusable_archive(known.cab_name).empty() || !zqu::verifier::verify(place / known.cab_name, known.sha256)) {
        fail(upstream.id + " is on the mirror, but its INI file and its archive do not match");
    }
    if (known.cab_name != info.cab_name || !zqu::verifier::verify(place / known.cab_name, info.sha256)) {
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

void download(tools::Client& client, const zqu::CompleteInfo& info, const fs::path& archive, Run& run) {
    run.phase("downloading " + info.cab_name, archive);
    client.download(info.cab_name, archive);
    run.phase("checking the archive");
    if (!zqu::verifier::verify(archive, info.sha256)) {
        fail("the upstream mirror's " + info.cab_name + " does not have the digest " + info.sha256);
    }
    flush(archive);
}

void require_sound(const Options& options, const fs::path& archive, const zqu::CompleteInfo& info) {
    const std::string fault = first_fault(inspect(archive, info.cab_name, options.flavor));
    if (!fault.empty()) {
        fail("the upstream mirror's archive is refused: " + fault);
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
    say("nothing new: " + upstream.id + " is current");
}

// Gets the archive, from the upstream mirror unless it is here already, and puts the release into place.
void add_and_make_current(const Options& options, const Upstream& upstream, const zqu::CompleteInfo& info, bool known,
                          tools::Client& client, Workplace& place, Run& run) {
    const bool have = have_archive(options, info);
    const fs::path archive = have ? place.folder() / info.cab_name : place.work("archive");
    if (!have) {
        download(client, info, archive, run);
    }
    require_sound(options, archive, info);
    if (!known) {
        add_release(info_name(options.flavor, upstream.id), info.cab_name, have, place);
    }
    place.make_current(options, upstream.id);
}

}  // namespace

void mirror(const Options& options, Run& run) {
    const zqu::Config cfg = upstream_config(options);
    tools::Client client(cfg);
    run.phase("asking the upstream mirror");
    const Upstream upstream = ask(client, options);
    if (is_current(options, upstream)) {
        report_nothing_new(upstream, run);
        return;
    }
    Workplace place(folder(options), run);
    const zqu::CompleteInfo info = stage_info(client, options, upstream, place);
    const bool known = require_same_content(options, upstream, info);
    if (known && current_id(options) == upstream.id) {  // the INI has changed, but nothing in it
        report_nothing_new(upstream, run);
        return;
    }
    add_and_make_current(options, upstream, info, known, client, place, run);
    run.phase("");
    say((known ? "made current again " : "mirrored ") + upstream.id + ": " + info.cab_name + ", " +
        std::to_string(fs::file_size(place.folder() / info.cab_name)) + " bytes, SHA-256 " + info.sha256);
}

}  // namespace zqu::mirror_tool
