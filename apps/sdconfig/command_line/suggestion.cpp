#include "apps/sdconfig/command_line/suggestion.h"

#include <algorithm>
#include <cstddef>

namespace cli {

namespace {

// The least number of letters to add, drop, replace or swap with their neighbour.
std::size_t distance(const std::string& one, const std::string& other) {
    std::vector<std::vector<std::size_t>> cost(one.size() + 1, std::vector<std::size_t>(other.size() + 1));
    for (std::size_t i = 0; i <= one.size(); ++i) {
        for (std::size_t j = 0; j <= other.size(); ++j) {
            if (i == 0 || j == 0) {
                cost[i][j] = i + j;
                continue;
            }
            const std::size_t replaced = cost[i - 1][j - 1] + (one[i - 1] == other[j - 1] ? 0 : 1);
            cost[i][j] = std::min({replaced, cost[i - 1][j] + 1, cost[i][j - 1] + 1});
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1])
                cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
        }
    }
    return cost.back().back();
}

}  // namespace

std::string nearest(const std::string& word, const std::vector<std::string>& names) {
    constexpr std::size_t kLongestName = 16;
    if (word.size() > kLongestName) return "";
    std::size_t least = std::min<std::size_t>(3, word.size() / 2 + 1);  // of a short word nothing else would be left
    std::string found;
    for (const std::string& name : names) {
        const std::size_t slips = distance(word, name);
        if (slips >= least) continue;
        least = slips;
        found = name;
    }
    return found;
}

}  // namespace cli
