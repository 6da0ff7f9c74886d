#include "catalogue.hpp"
#include "commands.hpp"
#include "plain.hpp"
#include "rollout.hpp"
#include "signature.hpp"
#include "upstream.hpp"
#include "workplace.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

namespace {

constexpr const char* advice = "; run zqu-mirror repair --from UPSTREAM MIRROR";

// Reports what, unless the files of the current release are damaged. Takes no lock, because it changes nothing.
void report_nothing_new(const Options& options, const std::string& what, Run& run) {
    const auto current = current_id(options);
    if (!current) {
        fail(hit_name(options.flavor) + " is missing or names no release" + advice);
    }
    const Examined found = examine(options, *current, options.verify ? Depth::digest : Depth::size, run);
    if (!found.fault.empty()) {
        fail(*current + " is current, but damaged: " + found.fault + advice);
    }
    report(options, what + *current + " is current", run);
}

// Whether the id is known here. Requires that it then has the same archive.
bool require_same_content(const Options& options, const Offer& offer, Run& run) {
    if (!fs::exists(fs::symlink_status(directory_of(options) / info_name(options.flavor, offer.id)))) {
        return false;
    }
    const Examined known = examine(options, offer.id, Depth::digest, run);
    if (!known.fault.empty()) {
        fail(offer.id + " is on the mirror, but damaged: " + known.fault + advice);
    }
    if (!is_same(options, offer, known.info)) {
        fail(offer.id + " is on the mirror with other content: an id never gets other content");
    }
    return true;
}

// Whether the archive is here already. One with that name and other content must not be named by anything.
bool have_archive(const Options& options, const zqu::CompleteInfo& info, Run& run) {
    const fs::path archive = directory_of(options) / info.cab_name;
    if (!fs::exists(fs::symlink_status(archive)) || has_digest(archive, info.sha256, run)) {
        return fs::exists(archive);
    }
    const std::string other = info_that_names(options, info.cab_name);
    if (!other.empty()) {
        fail(info.cab_name + " is on the mirror with other content, and " + other + " names it");
    }
    if (!is_ours(info.cab_name)) {
        fail(info.cab_name + " is on the mirror with other content, and is not from zqu-mirror: remove or rename it");
    }
    return false;
}

// Gets the deltas, for mirrors that copy from this one. Gateways do not need them.
void add_deltas(const Options& options, const Offer& offer, Upstream& upstream, Workplace& place) {
    for (const auto& delta : plain_info(offer.text).deltas) {
        try {
            upstream.download(offer, delta, place.work("delta"));
            place.add("delta", delta_name(options.flavor, offer.id, delta));
            flush(place.directory());
        } catch (const tools::MirrorError& e) {
            upstream.add_warning("the delta from " + delta.from + " is not copied: " + e.what());
            fs::remove(place.work("delta"));
        }
    }
}

// Puts the release into place as a plain archive with an INI of its own, beside that of the upstream mirror.
void add_plain(const Options& options, const Offer& offer, Upstream& upstream, Workplace& place) {
    const std::string info = info_name(options.flavor, offer.id);
    const std::string archive = plain_name(options.flavor, offer.id);
    if (fs::exists(fs::symlink_status(place.directory() / archive))) {
        refuse(archive + " is on the mirror, and named by", info_that_names(options, archive));
    }
    const std::string digest = upstream.make_plain(offer, place);
    write_text(place.work("plain.ini"), info_text(offer.id, archive, digest, fs::file_size(place.work("plain"))));
    place.add("plain", archive);
    place.add(info, upstream_info_name(info));
    flush(place.directory());
    place.add("plain.ini", info);
    flush(place.directory());
}

// Gets the archive, from the upstream mirror unless it is here already, and puts the release into place, one file after
// the other, each on disk before the next: nothing ever names what is not there.
void add_release(const Options& options, const Offer& offer, Upstream& upstream, Workplace& place, Run& run) {
    const std::string& archive = offer.info.cab_name;
    const bool have = have_archive(options, offer.info, run);
    if (have) {
        upstream.require_sound(archive, place.directory() / archive);
    } else {
        upstream.download(offer, place.work("archive"));
        place.add("archive", archive);
        flush(place.directory());
    }
    add_deltas(options, offer, upstream, place);
    const std::string info = info_name(options.flavor, offer.id);
    place.add(info, info);
    flush(place.directory());
}

// Copies what the upstream mirror names, unless that is not to be taken or here already.
void follow(const Options& options, Upstream& upstream, Run& run) {
    const std::string id = upstream.current();
    const Offer offer = upstream.release(id);
    if (!options.force && current_id(options) != id && held_ids(options).count(id) != 0) {
        report_nothing_new(options, id + " is held (--force takes it again, with --percent as a candidate): ", run);
        return;
    }
    const Rollout rollout = sound_rollout(options);
    const std::string waits = "waits: " + rollout.text() + "; ";
    if (rollout.percent > 0 && current_id(options) != id && (!options.replace || rollout.id == id)) {
        report_nothing_new(options, waits, run);
        return;
    }
    const fs::path info = directory_of(options) / info_name(options.flavor, id);
    if (current_id(options) == id && upstream_text(options, id) == offer.text) {
        report_nothing_new(options, rollout.percent > 0 ? waits : "nothing new: ", run);
        return;
    }
    Workplace place(directory_of(options), run);
    write_text(place.work(info.filename()), offer.text);
    const bool is_current = current_id(options) == id;  // its INI has changed here, or has gone
    if (!is_current) {
        require_turn(options, id);
    }
    const bool known = require_same_content(options, offer, run);
    if (known && is_current) {  // nothing in it has changed
        report_nothing_new(options, "nothing new: ", run);
        return;
    }
    if (!known && options.plain) {
        add_plain(options, offer, upstream, place);
    } else if (!known) {
        add_release(options, offer, upstream, place, run);
    }
    const Examined release = examine(options, id, known ? Depth::entries : Depth::size, run);
    refuse(id + " is refused:", release.fault);
    const int percent = is_current ? 0 : options.percent;
    if (is_current) {
        place.make_current(options, id);
    } else {
        give_out(options, id, place, run);
    }
    const std::string done = known ? "made " + role_of(percent) + " again " + id
                                   : "mirrored " + id + upstream.by() + (percent == 0 ? "" : " as " + role_of(percent));
    report(options, summary(place.directory(), done, release.info), run);
}

}  // namespace

void mirror(const Options& options, Run& run) {
    Upstream upstream(options, trusted_keys(options, run), run);
    try {
        follow(options, upstream, run);
    } catch (...) {
        if (options.allow_http) {  // else the redirect is the reason
            upstream.warn();
        }
        throw;
    }
    upstream.warn();
}

}  // namespace zqu::mirror_tool
