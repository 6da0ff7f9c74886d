#include "upstream.hpp"

#include "failure.hpp"
#include "files.hpp"
#include "inspect.hpp"
#include "names.hpp"
#include "verifier.hpp"

namespace zqu::mirror_tool {

namespace {

void require_usable(const std::string& what, const std::string& name, const std::string& reason) {
    if (!reason.empty()) {
        fail("the upstream mirror's " + what + " " + name + " is refused: it " + reason);
    }
}

}  // namespace

Upstream::Upstream(const Options& options, Run& run)
    : options_(options), run_(run), cfg_(upstream_config(options)), client_(cfg_) {
    if (!options.allow_http) {
        client_.refuse_insecure_redirects();
    }
}

std::string Upstream::current() {
    run_.phase("asking the upstream mirror");
    std::string id = client_.fetch_id();
    require_usable("id", id, unusable_id(id));
    require_usable("id", id, unusable_archive(stem(options_.flavor, id)));  // for its length
    return id;
}

Offer Upstream::release(const std::string& id) {
    run_.phase("asking the upstream mirror");
    const std::string text = client_.fetch_info_text(id);
    const zqu::CompleteInfo info = client_.read_info(text, id);
    require_usable("archive name", info.cab_name, unusable_archive(info.cab_name));
    return {id, text, info};
}

void Upstream::download(const Offer& offer, const std::filesystem::path& archive) {
    run_.phase("downloading " + offer.info.cab_name, archive);
    client_.download(offer.info.cab_name, archive);
    run_.phase("checking the archive");
    if (!zqu::verifier::verify(archive, offer.info.sha256)) {
        fail("the upstream mirror's " + offer.info.cab_name + " does not have the digest " + offer.info.sha256);
    }
    flush(archive);
    require_sound(offer, archive);
}

void Upstream::require_sound(const Offer& offer, const std::filesystem::path& archive) const {
    const auto watch = [this](const auto& position) { run_.phase("checking the archive", position); };
    const std::string fault = tools::first_fault(tools::inspect(archive, offer.info.cab_name, options_.flavor, watch));
    if (!fault.empty()) {
        fail("the upstream mirror's archive is refused: " + fault);
    }
}

void Upstream::warn() const {
    run_.phase("");
    for (const auto& warning : client_.warnings()) {
        complain("warning: " + warning);
    }
}

}  // namespace zqu::mirror_tool
