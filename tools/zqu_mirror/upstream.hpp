// The mirror that `mirror` and `repair` copy from. All that it sends is hostile: names, sizes and contents are checked
// before anything of it gets a name here.
//
// For the thread that works with the run. Every member throws MirrorError when a transfer fails, and std::runtime_error
// with the reason when it refuses what the upstream mirror sends.
#pragma once

#include <filesystem>
#include <string>

#include "client.hpp"
#include "options.hpp"
#include "plain.hpp"
#include "run.hpp"
#include "workplace.hpp"

namespace zqu::mirror_tool {

// A release that the upstream mirror has.
struct Offer {
    std::string id;
    std::string text;        // its complete-info INI, to the byte
    zqu::CompleteInfo info;  // what that says; its names are usable
};

// Whether a release of the mirror, found sound, has the content of an offer: the archive, or the plain archive of it.
[[nodiscard]] bool is_same(const Options& options, const Offer& offer, const zqu::CompleteInfo& known);

class Upstream {
public:
    // Keeps references to options and run, which must outlive it. Takes only what one of the keys has signed
    // (signature.hpp), if there are any.
    Upstream(const Options& options, std::string keys, Run& run);

    // The id of the current release there, a usable one.
    [[nodiscard]] std::string current();

    // What the upstream mirror says of the release id. Throws tools::MissingFile when it does not have the release,
    // Distrusted when its signature is refused.
    [[nodiscard]] Offer release(const std::string& id);

    // Downloads the archive to a path in the work directory and requires that clients would take it; flushes it.
    void download(const Offer& offer, const std::filesystem::path& archive);

    // Downloads a delta of the release to a path in the work directory, and flushes it. Throws MirrorError also when it
    // does not have the size and the digest that the INI gives.
    void download(const Offer& offer, const Delta& delta, const std::filesystem::path& path);

    // Makes the plain archive of the release in the work directory, as "plain": by a delta from a plain archive of the
    // mirror, else from the whole archive, with a warning that says why. Requires that clients would take it; flushes
    // it. Returns its SHA-256.
    [[nodiscard]] std::string make_plain(const Offer& offer, const Workplace& place);

    // How make_plain() did it, to follow an id; empty for the whole archive.
    [[nodiscard]] const std::string& by() const { return by_; }

    // Requires that the entries of the archive, called name, are such that clients would take it.
    void require_sound(const std::string& name, const std::filesystem::path& archive) const;

    // Says on standard error what an administrator should know of the transfers so far, and what was added.
    void warn() const;
    void add_warning(const std::string& warning) { warnings_.push_back(warning); }

private:
    void apply_best_delta(const Offer& offer, const PlainInfo& plain, const Workplace& place);

    const Options& options_;
    const std::string keys_;
    Run& run_;
    const zqu::Config cfg_;
    tools::Client client_;
    std::vector<std::string> warnings_{};
    std::string by_{};
};

}  // namespace zqu::mirror_tool
