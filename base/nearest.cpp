#include "base/nearest.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace sd {

namespace {

constexpr std::size_t kLongestWord = 256;

// What both begin or end with takes no slip.
void dropCommon(std::string_view& one, std::string_view& other) {
    while (!one.empty() && !other.empty() && one.front() == other.front()) {
        one.remove_prefix(1);
        other.remove_prefix(1);
    }
    while (!one.empty() && !other.empty() && one.back() == other.back()) {
        one.remove_suffix(1);
        other.remove_suffix(1);
    }
}

// The least number of letters to add, drop, replace or swap with their neighbour; `most` where it is that or more.
std::size_t distance(std::string_view one, std::string_view other, std::size_t most) {
    dropCommon(one, other);
    const auto [shorter, longer] = std::minmax({one.size(), other.size()});
    if (longer - shorter >= most || longer > kLongestWord) return most;
    using Row = std::array<std::size_t, kLongestWord + 1>;
    Row rows[3];
    for (std::size_t j = 0; j <= other.size(); ++j) rows[0][j] = j;
    for (std::size_t i = 1; i <= one.size(); ++i) {
        const Row& before = rows[(i + 1) % 3];
        const Row& above = rows[(i + 2) % 3];
        Row& row = rows[i % 3];
        row[0] = i;
        std::size_t least = i;
        for (std::size_t j = 1; j <= other.size(); ++j) {
            const std::size_t replaced = above[j - 1] + (one[i - 1] == other[j - 1] ? 0 : 1);
            row[j] = std::min({replaced, above[j] + 1, row[j - 1] + 1});
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1])
                row[j] = std::min(row[j], before[j - 2] + 1);
            least = std::min(least, row[j]);
        }
        if (least > most) return most;  // the next row may be less by a swap alone, and the one after it no more
    }
    return std::min(rows[one.size() % 3][other.size()], most);
}

}  // namespace

std::string nearest(std::string_view word, const std::vector<std::string_view>& names) {
    if (word.size() > kLongestWord) return "";
    std::size_t least = std::min<std::size_t>(3, word.size() / 2 + 1);  // of a short word nothing else would be left
    std::string_view found;
    for (const std::string_view name : names) {
        const std::size_t slips = distance(word, name, least);
        if (slips >= least) continue;
        least = slips;
        found = name;
    }
    return std::string(found);
}

}  // namespace sd
