// The command that reads a mirror the way a client does.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "monitoring.hpp"
#include "options.hpp"
#include "run.hpp"

namespace zqu::mirror_tool {

// What a check has found, as far as it came.
struct Found {
    std::vector<std::pair<tools::Verdict, std::string>> remarks;  // critical is a FAULT; may hold any bytes
    std::string id;
    std::string archive;                    // its name
    std::optional<std::uintmax_t> size;     // of the archive, in bytes
    std::optional<std::int64_t> published;  // the time of the complete-info INI, in seconds since the Unix epoch
    std::optional<std::int64_t> chain_end;  // when the part of the mirror's chain ends that ends first
};

// Downloads the archive of the current release to a scratch directory of the run below $TMPDIR or /tmp, checks it
// (inspect.hpp), and prints one line for each step: "ok", "warning" (clients succeed) or "FAULT" (clients fail, or
// cannot read the index that is there). A FAULT ends the check, except those of the archive's entries, which are all
// printed. Or prints options.form at the end. Never writes to the mirror. options.mirror is an absolute directory or a
// URL.
//
// Returns the exit status. Throws, with the reason as its text, when this machine is at fault: no room in the scratch
// directory, and what inspect() and tools::Client throw for that. Form::prometheus prints that instead.
[[nodiscard]] int check(const Options& options, Run& run);

// The worst verdict of the remarks.
[[nodiscard]] tools::Verdict verdict(const Found& found);

// The name of this verdict in the lines of a check, and the whole of the other forms at this time.
[[nodiscard]] const char* word_of(tools::Verdict verdict);
[[nodiscard]] std::string json_form(const Options& options, const Found& found);
[[nodiscard]] std::string nagios_form(const Options& options, const Found& found, std::int64_t now);
[[nodiscard]] std::string prometheus_form(const Options& options, const Found& found, std::int64_t now);

}  // namespace zqu::mirror_tool
