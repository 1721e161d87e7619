// Medians and spreads: what every driver prints.
#pragma once

#include <algorithm>
#include <cstdio>
#include <vector>

namespace bench {

inline double quantile(std::vector<double> values, double share) {
    if (values.empty()) return 0;
    const auto at = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + at, values.end());
    return values[static_cast<size_t>(at)];
}

inline double median(const std::vector<double>& values) {
    return quantile(values, 0.5);
}

// One line of a table: the figure, its floor, and their ratio, each the median over the rounds; the spread is that of
// the ratio, from its lowest to its highest.
inline void printRatio(const char* what, const std::vector<double>& figures, const std::vector<double>& floors,
                       const char* unit) {
    std::vector<double> ratios;
    for (size_t i = 0; i < figures.size(); ++i) ratios.push_back(figures[i] / floors[i]);
    std::printf("%-46s %9.1f %s  floor %9.1f %s  ratio %5.2f (%.2f to %.2f)\n", what, median(figures), unit,
                median(floors), unit, median(ratios), quantile(ratios, 0), quantile(ratios, 1));
}

}  // namespace bench
