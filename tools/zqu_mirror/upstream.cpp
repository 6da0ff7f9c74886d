#include "upstream.hpp"

#include <fcntl.h>

#include <utility>

#include "signature.hpp"
#include "workplace.hpp"

namespace zqu::mirror_tool {

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
    require_sound(offer, archive);
}

void Upstream::require_sound(const Offer& offer, const std::filesystem::path& archive) const {
    refuse("the upstream mirror's archive is refused:",
           tools::first_fault(inspect_in(run_, "checking the archive", archive, offer.info.cab_name, options_.flavor)));
}

void Upstream::warn() const {
    run_.phase("");
    for (const auto& warning : client_.warnings()) {
        complain("warning: " + warning);
    }
}

}  // namespace zqu::mirror_tool
