#include "fleet_rates.hpp"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace zqu::fleet {
namespace {

using Position = std::vector<std::uint32_t>::difference_type;

auto at(const std::vector<std::uint32_t>& counters, std::size_t second) {
    return counters.begin() + static_cast<Position>(second);
}

double mean(const std::vector<std::uint32_t>& counters, std::size_t from_s, std::size_t to_s) {
    const auto total = std::accumulate(at(counters, from_s), at(counters, to_s), std::uint64_t{0});
    return static_cast<double>(total) / static_cast<double>(to_s - from_s);
}

}  // namespace

std::int64_t percentile(std::vector<std::int64_t>& values, double share) {
    const double count = std::ceil(share * static_cast<double>(values.size()));
    const auto rank = std::max<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(count), 1) - 1;
    std::nth_element(values.begin(), values.begin() + rank, values.end());
    return values[static_cast<std::size_t>(rank)];
}

nlohmann::json rates(const std::vector<std::uint32_t>& counters, std::size_t from_s, std::size_t to_s) {
    std::vector<std::int64_t> values(at(counters, from_s), at(counters, to_s));
    const auto peak = std::max_element(values.begin(), values.end());
    const auto peak_at = from_s + static_cast<std::size_t>(peak - values.begin());
    nlohmann::json result{{"from_s", from_s}, {"to_s", to_s}, {"max", *peak}, {"max_at_s", peak_at}};
    result["total"] = std::accumulate(values.begin(), values.end(), std::int64_t{0});
    result["mean"] = mean(counters, from_s, to_s);
    result["p50"] = percentile(values, 0.5);
    result["p99"] = percentile(values, 0.99);
    result["p999"] = percentile(values, 0.999);
    return result;
}

nlohmann::json curve(const std::vector<std::uint32_t>& counters, std::size_t from_s, std::size_t to_s,
                     std::size_t bin_s) {
    nlohmann::json result{{"from_s", from_s}, {"bin_s", bin_s}};
    for (std::size_t start = from_s; start < to_s; start += bin_s) {
        const std::size_t end = std::min(start + bin_s, to_s);
        result["mean"].push_back(mean(counters, start, end));
        result["max"].push_back(*std::max_element(at(counters, start), at(counters, end)));
    }
    return result;
}

}  // namespace zqu::fleet
