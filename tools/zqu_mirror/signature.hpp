// Signed releases: the keys, and what a signature says.
//
// The complete-info INI of a signed release ends with the line "# signature: " and the base64 form of the Ed25519
// signature (RFC 8032) of all bytes before that line. The daemon takes it for a comment.
//
// For one thread. Keys are texts in PEM. One that cannot be used throws std::runtime_error with what to do; nothing
// asks for a pass phrase.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "descriptors.hpp"
#include "options.hpp"
#include "run.hpp"

namespace zqu::mirror_tool {

// Where `mirror` keeps the keys that it trusts. Not served: the name begins with a dot.
inline constexpr const char* trusted_name = ".zqu-mirror.trusted.pem";

// The public keys of options.trust; empty for none. Throws for a file that is longer than 64 KiB or holds anything but
// Ed25519 public keys as "openssl pkey -pubout" writes them.
[[nodiscard]] std::string given_keys(const Options& options);

// The same, or without options.trust the keys stored in options' mirror, a directory. Throws also for a stored file
// that is no regular one. Without any key refuses options.max_age_s: nobody has signed a time then.
[[nodiscard]] std::string trusted_keys(const Options& options);

// Stores the keys, on disk when this returns, unless just these are stored. Makes and locks the mirror's directory for
// that. A run that fails later keeps both.
void store_keys(const Options& options, const std::string& keys, Run& run);

// Why the text of the complete-info INI of the release id is not to be taken, as what follows the INI's name; empty
// when one of the keys signed it for this id and options.flavor, not more than five minutes in the future and, if there
// is a limit, not longer ago than options.max_age_s.
[[nodiscard]] std::string distrust(const Options& options, const std::string& keys, const std::string& id,
                                   const std::string& text);

// When a signed INI says that its release was published, in seconds since the Unix epoch, whoever signed it.
[[nodiscard]] std::optional<std::int64_t> signed_time(const std::string& text);

// A release that is refused for its signature.
struct Distrusted : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Signs one text. Another process has the private key, and ends with this object: the owner of the mirror's directory
// could read it in the memory of this process, which goes on as that user (become_owner).
class Signer {
public:
    // Reads the key from the PEM file at path. Refuses one that users other than its owner may use.
    explicit Signer(const std::string& path);

    // text with the line of its signature. Once.
    [[nodiscard]] std::string sign(const std::string& text) const;

    // The public half of the key.
    [[nodiscard]] const std::string& key() const { return key_; }

private:
    const tools::Fd channel_;  // to that process
    const std::string key_;
};

}  // namespace zqu::mirror_tool
