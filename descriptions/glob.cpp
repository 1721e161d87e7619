#include "descriptions/glob.h"

#include <algorithm>
#include <vector>

#include "base/letter_case.h"

namespace sd {

std::string unfitGlob(std::string_view glob) {
    if (glob.size() > kGlobBytesMax) return "is a glob longer than 256 bytes";
    const std::size_t dot = glob.find('.');
    if (dot == std::string_view::npos || glob.find('*') < dot) return "is a glob that stands for keys of everybody";
    return glob.find("**") == std::string_view::npos ? "" : "is a glob with \"**\"";
}

bool fitsGlob(std::string_view key, std::string_view glob, LetterCase letterCase) {
    const auto isSame = [letterCase](char a, char b) {
        return a == b || (letterCase == LetterCase::Ignored && folded(a) == folded(b));
    };
    // A "*" takes one character first, and one more where what follows it doesn't fit.
    std::size_t at = 0;
    std::size_t in = 0;
    std::size_t star = std::string_view::npos;
    std::size_t taken = 0;
    while (at < key.size()) {
        if (in < glob.size() && glob[in] == '*' && key[at] != '.') {
            star = in++;
            taken = ++at;
        } else if (in < glob.size() && glob[in] != '*' && isSame(glob[in], key[at])) {
            ++in;
            ++at;
        } else if (star != std::string_view::npos && key[taken] != '.') {
            in = star + 1;
            at = ++taken;
        } else {
            return false;
        }
    }
    return in == glob.size();
}

bool doGlobsMeet(std::string_view one, std::string_view other) {
    // meets[j]: whether what was looked at of `one` and j characters of `other` stand for a common text.
    std::vector<bool> meets(other.size() + 1);
    meets[0] = true;
    for (const char a : one) {
        std::vector<bool> next(other.size() + 1);
        for (std::size_t j = 1; j <= other.size(); ++j) {
            const char b = other[j - 1];
            const bool isSame = a == '*' ? b != '.' : b == '*' ? a != '.' : folded(a) == folded(b);
            // A "*" goes on for more than one character of the other one.
            next[j] = isSame && (meets[j - 1] || (a == '*' && next[j - 1]) || (b == '*' && meets[j]));
        }
        meets = std::move(next);
    }
    return meets[other.size()];
}

std::size_t lettersOf(std::string_view glob) {
    return static_cast<std::size_t>(std::count_if(glob.begin(), glob.end(), [](char c) { return c != '*'; }));
}

}  // namespace sd
