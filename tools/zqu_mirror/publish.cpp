#include <algorithm>
#include <climits>
#include <exception>

#include "catalogue.hpp"
#include "client.hpp"
#include "commands.hpp"
#include "pack.hpp"
#include "plain.hpp"
#include "rollout.hpp"
#include "signature.hpp"
#include "workplace.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

namespace {

// Opens and measures the file at path; keeps no descriptor and reads nothing.
Source measured(const std::string& path, const std::string& name, bool allow_empty) {
    Source source{fs::absolute(path), name, {}, ""};
    if (fstat(tools::open_regular(path).get(), &source.before) != 0) {
        fail_errno("cannot read the size of " + path);
    }
    if (source.before.st_size == 0 && !allow_empty) {
        fail(path + " is empty: gateways would scan without its signatures; --allow-empty publishes it");
    }
    return source;
}

// Throws when the file at the source's path is another one, or was written, since it was measured.
void require_unchanged(const Source& source) {
    struct stat now = {};
    const struct stat& before = source.before;
    if (stat(source.path.c_str(), &now) != 0 || now.st_dev != before.st_dev || now.st_ino != before.st_ino ||
        now.st_size != before.st_size || now.st_mtim.tv_sec != before.st_mtim.tv_sec ||
        now.st_mtim.tv_nsec != before.st_mtim.tv_nsec) {
        fail(source.path.string() + " changed while it was read");
    }
}

// The digest index.
std::string index_text(const std::vector<Source>& sources) {
    std::string text;
    for (const auto& source : sources) {
        text += source.name + ".sha256 = " + source.digest + "\n";
    }
    return text;
}

// Measures the sources; they are read only after all that can be refused has been refused.
std::vector<Source> measured_sources(const Options& options) {
    std::vector<Source> sources{measured(options.antivir, tools::antivir_name(options.flavor), options.allow_empty),
                                measured(options.aivsecon, tools::aivsecon_name(options.flavor), options.allow_empty)};
    std::uintmax_t total =
        index_text(sources).size() + std::uintmax_t{2} * 64;  // as long as it will be with its digests
    for (const auto& source : sources) {
        total += static_cast<std::uintmax_t>(source.before.st_size);
    }
    if (options.format == "cab" && total > cab_capacity) {
        fail("the definitions do not fit into a CAB, which holds " + std::to_string(cab_capacity) +
             " bytes with the index: use --format zip or zstd");
    }
    return sources;
}

std::string archive_name(const Options& options) {
    return stem(options.flavor, options.id) + suffixes.at(options.format);
}

// An archive of that name may have been left by a killed run; but an INI made by others may name it, too.
void require_free_name(const Options& options) {
    const std::string name = archive_name(options);
    const std::string info =
        fs::exists(fs::symlink_status(directory_of(options) / name)) ? info_that_names(options, name) : "";
    if (!info.empty()) {
        fail(name + " is on the mirror, and " + info + " names it: take a new id");
    }
}

// Makes a delta from a release of the mirror, unless that has more than most bytes, and puts it into place. It has been
// applied then. Returns its size; 0 for none.
std::uintmax_t add_delta(const Options& options, const std::string& from, std::uintmax_t most, PlainInfo& plain,
                         Workplace& place, Run& run) {
    const Examined old = examine(options, from, Depth::digest, run);
    if (!old.fault.empty()) {
        complain("warning: there is no delta from " + from + ": " + old.fault);
        return 0;
    }
    const std::string& name = old.info.cab_name;
    try {
        convert_to_plain(place.directory() / name, name, options.flavor, place.work("old"), run);
    } catch (const std::system_error&) {
        throw;
    } catch (const std::runtime_error& e) {
        complain("warning: there is no delta from " + from + ": " + e.what());
        fs::remove(place.work("old"));
        return 0;
    }
    run.phase("making the delta from " + from, place.work("again"));
    const bool kept = make_delta(place.work("old"), place.work("plain"), place.work("delta"), most);
    if (kept) {
        apply_delta(place.work("old"), place.work("delta"), place.work("again"), plain.size);
        if (!has_digest(place.work("again"), plain.sha256, run)) {
            fail("the delta from " + from + " does not give back the release");
        }
        const Delta delta{from, fs::file_size(place.work("delta")), sha256_in(run, place.work("delta"))};
        flush(place.work("delta"));
        place.add("delta", delta_name(options.flavor, options.id, delta));
        plain.deltas.push_back(delta);
    }
    for (const auto* const left : {"old", "delta", "again"}) {
        fs::remove(place.work(left));
    }
    return kept ? plain.deltas.back().size : 0;
}

// What the INI says of the plain archive and of the deltas to it.
std::string add_deltas(const Options& options, const std::vector<Source>& sources, std::uintmax_t archive_size,
                       Workplace& place, Run& run) {
    const fs::path path = place.work("plain");
    run.phase("making the plain archive", path);
    write_plain(path, index_text(sources), tools::index_name(options.flavor), sources);
    PlainInfo plain{sha256_in(run, path), fs::file_size(path)};
    std::vector<Release> releases = newest_first(read_catalogue(options), options, now_ns());
    releases.resize(std::min(releases.size(), options.deltas));
    std::uintmax_t left = archive_size;  // for all deltas together
    for (auto release = releases.begin(); release != releases.end() && left > 1; ++release) {
        left -= add_delta(options, release->id, std::min(archive_size / 2, left), plain, place, run);
    }
    fs::remove(path);
    return lines_of(plain);
}

// Puts the archive, the deltas and the INI that describes them into place; nothing names them yet.
void add_release(const Options& options, const std::vector<Source>& sources, const std::string& key, Workplace& place,
                 Run& run) {
    const fs::path archive = place.work("archive");
    const std::string name = archive_name(options);
    run.phase("packing", archive);
    const time_t newest = std::max(sources[0].before.st_mtim.tv_sec, sources[1].before.st_mtim.tv_sec);
    static const std::map<std::string, Packer*> packers{{"cab", pack_cab}, {"zip", pack_zip}, {"zstd", pack_zstd}};
    // In a process of its own: libgcab starts a thread, which a process that is made later would not have.
    const auto pack = [&] {
        packers.at(options.format)(archive, index_text(sources), tools::index_name(options.flavor), sources, newest);
        return std::string();
    };
    tools::in_child([] {}, pack).require("packs the archive");
    flush(archive);
    run.phase("reading the archive");
    const std::uintmax_t size = fs::file_size(archive);
    std::string text = info_text(options.id, name, sha256_in(run, archive), size);
    if (!key.empty()) {
        text += "def.Current.flavor = " + options.flavor +
                "\ndef.Current.published = " + std::to_string(std::time(nullptr)) + "\n";
    }
    text += add_deltas(options, sources, size, place, run);
    write_text(place.work("info"), key.empty() ? text : with_signature(text, key));
    place.add("archive", name);
    place.add("info", info_name(options.flavor, options.id));
    flush(place.directory());
}

// Requires that the release, read as a client does, gives back the sources, and is signed by the key, if there is one.
zqu::CompleteInfo require_release(const Options& options, const std::vector<Source>& sources, const std::string& key,
                                  bool known, Run& run) {
    const zqu::Config cfg = client_config(options);
    tools::Client client(cfg);
    const std::string text = client.fetch_info_text(options.id);
    zqu::CompleteInfo info = client.read_info(text, options.id);
    const fs::path archive = directory_of(options) / info.cab_name;
    if (info.defid != options.id || !fs::is_regular_file(archive) || !has_digest(archive, info.sha256, run)) {
        fail(options.id + " is on the mirror, but its INI file and its archive do not match");
    }
    auto found = inspect_in(run, "checking the archive", archive, info.cab_name, options.flavor);
    for (const auto& source : sources) {
        if (found.digests[source.name] != source.digest) {
            fail(known ? options.id + " was published before with other content: take a new id"
                       : "the archive does not hold what was read");
        }
    }
    refuse("the archive is refused:", tools::first_fault(found));
    const std::string fault = key.empty() ? "" : distrust(options, public_half(key), options.id, text);
    refuse(options.id + " was published without this signature, take a new id:", fault);
    return info;
}

}  // namespace

void publish(const Options& options, Run& run) {
    // The daemon downloads by way of "<archive>.part".
    const std::size_t longest = archive_name(options).size() + std::string(".part").size();
    const std::string of_delta = delta_name(options.flavor, options.id, {"", 0, std::string(64, '0')});
    if (std::max(longest, options.deltas > 0 ? of_delta.size() : 0) > NAME_MAX) {
        fail("the id and the flavor are too long for a file name");
    }
    const std::string key = private_key(options);
    std::vector<Source> sources = measured_sources(options);
    run.phase("reading the definitions");
    for (auto& source : sources) {
        source.digest = sha256_in(run, source.path);
    }
    Workplace place(directory_of(options), run);
    require_turn(options, options.id);
    if (options.percent > 0 && current_id(options) == options.id) {
        fail(options.id + " is current already: --percent needs another release");
    }
    const bool known = fs::exists(place.directory() / info_name(options.flavor, options.id));
    try {
        if (!known) {
            require_free_name(options);
            add_release(options, sources, key, place, run);
        }
        run.phase("checking the archive");
    } catch (const std::exception&) {
        std::for_each(sources.begin(), sources.end(), require_unchanged);  // the better explanation
        throw;
    }
    std::for_each(sources.begin(), sources.end(), require_unchanged);
    const zqu::CompleteInfo info = require_release(options, sources, key, known, run);
    give_out(options, options.id, place, run);
    const std::string done =
        known ? options.id + " was published before with this content and is " + role_of(options.percent) + " now"
              : "published " + options.id + (options.percent == 0 ? "" : " as " + role_of(options.percent));
    report(options, summary(place.directory(), done, info), run);
}

void activate(const Options& options, Run& run) {
    Workplace place(existing_directory(options), run);
    const Examined found = examine(options, options.id, Depth::entries, run);
    refuse(options.id + " cannot be made current:", found.fault);
    remove_leftover_stages(options);
    const Rollout found_rollout = sound_rollout(options);
    const auto former = current_id(options);
    if (former && found_rollout.percent > 0) {
        fail(found_rollout.text() + ": run zqu-mirror rollout MIRROR with 100 or withdraw first");
    }
    const bool changes = former != options.id;
    if (former && changes) {
        hold(options, *former, run);
    }
    if (changes) {
        place.make_current(options, options.id, true);
    } else {
        end_hold(options, options.id);
    }
    const std::string done = changes ? "made current " : "is current already: ";
    report(options, done + summary(place.directory(), options.id, found.info), run);
    if (former && changes) {
        report(options, "held " + *former + ": mirror does not take it again", run);
    }
}

}  // namespace zqu::mirror_tool
