// Rates of a fleet's history: percentiles over its seconds, and curves for plots.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <vector>

namespace zqu::fleet {

// The smallest of the values that at least this share (0 < share <= 1) of them do not exceed. values is not empty, and
// is partly sorted by the call.
[[nodiscard]] std::int64_t percentile(std::vector<std::int64_t>& values, double share);

// Mean, percentiles and peak of the numbers a second from second from_s, included, to to_s, excluded, with the second
// of the (first) peak: "from_s", "to_s", "mean", "p50", "p99", "p999", "max", "max_at_s", "total". The span is not
// empty and lies within the counters.
[[nodiscard]] nlohmann::json rates(const std::vector<std::uint32_t>& counters, std::size_t from_s, std::size_t to_s);

// The same span in bins of bin_s seconds (the last one may be shorter): "from_s", "bin_s", and for each bin the mean
// and the greatest number a second, "mean" and "max".
[[nodiscard]] nlohmann::json curve(const std::vector<std::uint32_t>& counters, std::size_t from_s, std::size_t to_s,
                                   std::size_t bin_s);

}  // namespace zqu::fleet
