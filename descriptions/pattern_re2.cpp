// With RE2.
#include <re2/re2.h>

#include "descriptions/pattern.h"

namespace sd {

namespace {

// A pattern that takes more is refused; one that a person writes takes some kilobytes.
constexpr std::int64_t kMemoryMax = std::int64_t{1} << 20;

RE2::Options options() {
    RE2::Options options;
    options.set_log_errors(false);
    options.set_max_mem(kMemoryMax);
    return options;
}

}  // namespace

bool knowsPatterns() {
    return true;
}

bool hasPattern(const std::string& text, const std::string& pattern) {
    const RE2 compiled(pattern, options());
    return compiled.ok() && RE2::PartialMatch(text, compiled);
}

std::string patternProblem(const std::string& pattern) {
    const RE2 compiled(pattern, options());
    if (compiled.ok()) return "";
    switch (compiled.error_code()) {
        case RE2::ErrorPatternTooLarge:
            return "takes more than 1 MiB of memory";
        case RE2::ErrorRepeatSize:
            return "repeats a piece more than 1,000 times, or never";
        case RE2::ErrorBadUTF8:
            return "is not UTF-8";
        case RE2::ErrorBadPerlOp:
            return "has a look-ahead or a look-behind, or another piece that no linear search knows";
        default:
            return "can't be read: " + compiled.error();
    }
}

}  // namespace sd
