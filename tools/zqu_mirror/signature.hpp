// Signed releases. The complete-info INI of one ends with the line "# signature: " and the base64 form of the Ed25519
// signature (RFC 8032) of all bytes before that line. The daemon takes it for a comment.
//
// For one thread. Keys are texts in PEM. One that cannot be used throws std::runtime_error with what to do.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "options.hpp"
#include "run.hpp"

namespace zqu::mirror_tool {

// The private key in the file options.sign; empty for none. Refuses one that users other than its owner may use, and
// never asks for a pass phrase. When root runs it, refuses to sign in a directory of another user: the run continues as
// that user (become_owner), who could read the key in its memory.
[[nodiscard]] std::string private_key(const Options& options);

[[nodiscard]] std::string public_half(const std::string& private_key);

// text, and the line of its signature.
[[nodiscard]] std::string with_signature(const std::string& text, const std::string& private_key);

// The public keys of options.trust; empty for none. Throws for a file that is longer than 64 KiB or holds anything but
// Ed25519 public keys as "openssl pkey -pubout" writes them.
[[nodiscard]] std::string given_keys(const Options& options);

// The same, and stores them in options' mirror, a directory, unless just these are stored. Makes and locks it for that;
// a run that fails later keeps both. Without options.trust, those that are stored there. Throws also when something
// other than a regular file has its name, and when there is options.max_age_s but no key: no time is signed then.
[[nodiscard]] std::string trusted_keys(const Options& options, Run& run);

// Why the text of the complete-info INI of the release id is not to be taken; empty when there are no keys, or when one
// of them signed it for this id and options.flavor, not more than five minutes in the future and, if there is a limit,
// not longer ago than options.max_age_s.
[[nodiscard]] std::string distrust(const Options& options, const std::string& keys, const std::string& id,
                                   const std::string& text);

// When a signed INI says that its release was published, in seconds since the Unix epoch, whichever key signed it.
[[nodiscard]] std::optional<std::int64_t> signed_time(const std::string& text);

// A release that is refused for its signature.
struct Distrusted : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace zqu::mirror_tool
