#include "upstream.hpp"

#include <fcntl.h>

#include <cstring>
#include <utility>

#include "signature.hpp"
#include "workplace.hpp"

namespace zqu::mirror_tool {

bool is_same(const Options& options, const Offer& offer, const zqu::CompleteInfo& known) {
    const auto equal = [](const std::string& a, const std::string& b) { return strcasecmp(a.c_str(), b.c_str()) == 0; };
    if (known.cab_name != plain_name(options.flavor, offer.id)) {
        return known.cab_name == offer.info.cab_name && equal(known.sha256, offer.info.sha256);
    }
    if (equal(known.sha256, plain_info(offer.text).sha256)) {
        return true;
    }
    const auto copied = directory_of(options) / upstream_info_name(info_name(options.flavor, offer.id));
    const zqu::Config cfg = client_config(options);
    try {
        return equal(tools::Client(cfg).read_info(text_of(copied), offer.id).sha256, offer.info.sha256);
    } catch (const tools::MirrorError&) {
        return true;  // lost or damaged: nothing says that it was another one
    }
}

Upstream::Upstream(const Options& options, std::string keys, Run& run)
    : options_(options), keys_(std::move(keys)), run_(run), cfg_(upstream_config(options)), client_(cfg_) {
    client_.ask_for_current();
    if (!options.allow_http) {
        client_.refuse_insecure_redirects();
    }
}

std::string Upstream::current() {
    run_.phase("asking the upstream mirror");
    std::string id = client_.fetch_id();
    refuse("the upstream mirror's id " + id + " is refused: it", unusable_id(id));
    refuse("the upstream mirror's id " + id + " is refused: it", unusable_archive(stem(options_.flavor, id)));
    return id;
}

Offer Upstream::release(const std::string& id) {
    run_.phase("asking the upstream mirror");
    const std::string text = client_.fetch_info_text(id);
    const std::string fault = distrust(options_, keys_, id, text);
    if (!fault.empty()) {
        throw Distrusted("the upstream mirror's " + fault);
    }
    const zqu::CompleteInfo info = client_.read_info(text, id);
    refuse("the upstream mirror's archive name " + info.cab_name + " is refused: it", unusable_archive(info.cab_name));
    return {id, text, info};
}

void Upstream::download(const Offer& offer, const std::filesystem::path& archive) {
    run_.phase("downloading " + offer.info.cab_name, archive);
    client_.download(offer.info.cab_name, Fd(archive, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW).get());
    run_.phase("checking the archive");
    if (!has_digest(archive, offer.info.sha256, run_)) {
        fail("the upstream mirror's " + offer.info.cab_name + " does not have the digest " + offer.info.sha256);
    }
    flush(archive);
    require_sound(offer.info.cab_name, archive);
}

void Upstream::download(const Offer& offer, const Delta& delta, const std::filesystem::path& path) {
    const std::string name = delta_name(options_.flavor, offer.id, delta);
    run_.phase("downloading " + name, path);
    client_.download(name, Fd(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW).get(), delta.size);
    if (std::filesystem::file_size(path) != delta.size || !has_digest(path, delta.sha256, run_)) {
        throw tools::MirrorError("the upstream mirror's " + name +
                                 " does not have the size and the digest that its INI gives");
    }
    flush(path);
}

// Throws std::exception when no delta gives the plain archive.
void Upstream::apply_best_delta(const Offer& offer, const PlainInfo& plain, const Workplace& place) {
    const auto path = place.work("plain");
    for (const auto& delta : plain.deltas) {
        const auto from = place.directory() / plain_name(options_.flavor, delta.from);
        std::error_code unusable;
        if (!std::filesystem::is_regular_file(std::filesystem::symlink_status(from, unusable))) {
            continue;
        }
        download(offer, delta, place.work("delta"));
        run_.phase("applying the delta from " + delta.from);
        apply_delta(from, place.work("delta"), path, plain.size);
        if (!has_digest(path, plain.sha256, run_)) {
            fail("the delta from " + delta.from + " does not give the digest " + plain.sha256);
        }
        require_sound("what the delta from " + delta.from + " gives", path);
        by_ = " by a delta of " + std::to_string(delta.size) + " bytes from " + delta.from;
        return;
    }
    fail(plain.deltas.empty() ? "the upstream mirror has none" : "none starts from a plain archive that is here");
}

std::string Upstream::make_plain(const Offer& offer, const Workplace& place) {
    const PlainInfo plain = plain_info(offer.text);
    const auto path = place.work("plain");
    std::string digest = plain.sha256;
    try {
        apply_best_delta(offer, plain, place);
    } catch (const std::system_error&) {  // no room, for example: then there is none for the whole archive
        throw;
    } catch (const std::exception& e) {
        add_warning("downloaded the whole archive of " + offer.id + ", not a delta: " + e.what());
        for (const auto& left : {path, place.work("delta")}) {
            std::filesystem::remove(left);
        }
        download(offer, place.work("whole"));
        convert_to_plain(place.work("whole"), offer.info.cab_name, options_.flavor, path, run_);
        std::filesystem::remove(place.work("whole"));
        require_sound(plain_name(options_.flavor, offer.id), path);
        digest = sha256_in(run_, path);
        if (!plain.sha256.empty() && digest != plain.sha256) {
            warnings_.back() += "; its plain archive does not have the digest " + plain.sha256;
        }
    }
    flush(path);
    return digest;
}

void Upstream::require_sound(const std::string& name, const std::filesystem::path& archive) const {
    refuse("the upstream mirror's archive is refused:",
           tools::first_fault(inspect_in(run_, "checking the archive", archive, name, options_.flavor)));
}

void Upstream::warn() const {
    run_.phase("");
    for (const auto& warning : client_.warnings()) {
        complain("warning: " + warning);
    }
    for (const auto& warning : warnings_) {
        complain("warning: " + warning);
    }
}

}  // namespace zqu::mirror_tool
