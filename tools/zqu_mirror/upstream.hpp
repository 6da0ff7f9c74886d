// The mirror that `mirror` and `repair` copy from. All that it sends is hostile: names, sizes and contents are checked
// before anything of it gets a name here.
//
// For the thread that works with the run. Every member throws MirrorError when a transfer fails, and std::runtime_error
// with the reason when what the upstream mirror says is refused.
#pragma once

#include <filesystem>
#include <string>

#include "client.hpp"
#include "options.hpp"
#include "run.hpp"

namespace zqu::mirror_tool {

// A release that the upstream mirror has.
struct Offer {
    std::string id;
    std::string text;        // its complete-info INI, to the byte
    zqu::CompleteInfo info;  // what that says; its names are plain
};

class Upstream {
public:
    // Keeps references to options and run, which must outlive it. Takes only what one of the keys has signed
    // (signature.hpp), if there are any.
    Upstream(const Options& options, std::string keys, Run& run);

    // The id of the current release there, a plain one.
    [[nodiscard]] std::string current();

    // What the upstream mirror says of the release id. Throws tools::MissingFile when it does not have it, and
    // Distrusted.
    [[nodiscard]] Offer release(const std::string& id);

    // Downloads the archive to a path in the work directory and requires that clients would take it; flushes it.
    void download(const Offer& offer, const std::filesystem::path& archive);

    // Requires that the entries of the archive are such that clients would take it.
    void require_sound(const Offer& offer, const std::filesystem::path& archive) const;

    // Says on standard error what an administrator should know of the transfers so far.
    void warn() const;

private:
    const Options& options_;
    const std::string keys_;
    Run& run_;
    const zqu::Config cfg_;
    tools::Client client_;
};

}  // namespace zqu::mirror_tool
