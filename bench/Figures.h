#pragma once

#include "Contest.h"

#include <nlohmann/json.hpp>

#include <fstream>

namespace bench {

/// A contest's results, a row for each contender.
inline nlohmann::json figures(const std::vector<Result>& results) {
    auto rows = nlohmann::json::array();
    for (const auto& result : results)
        rows.push_back({{"name", result.name},
                        {"median_ns", result.medianNs},
                        {"p99_ns", result.p99Ns},
                        {"ratio", result.ratio},
                        {"p99_ratio", result.p99Ratio}});
    return rows;
}

/// Puts the figures under the name into the report that the file holds, beside what others wrote.
inline void addTo(const char* file, const char* name, const nlohmann::json& figures) {
    auto report = nlohmann::json::parse(std::ifstream(file), nullptr, false);
    if (!report.is_object()) report = nlohmann::json::object();
    report[name] = figures;
    std::ofstream(file) << report.dump(2) << '\n';
}

}  // namespace bench
