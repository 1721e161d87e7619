// Names of what is kept beside a file or a folder before it changes.
#pragma once

#include <array>
#include <ctime>
#include <string>

namespace cli {

// Names of one second. Who needs more of them runs wild.
inline constexpr int kMostDatedNames = 10;

// The path, a dot and the time, as in "data.20261125T012204Z"; with "-2" and so on behind it where count is more
// than 1.
inline std::string datedName(const std::string& path, int count) {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    std::array<char, 32> text{};
    ::gmtime_r(&now, &parts);
    (void)std::strftime(text.data(), text.size(), "%Y%m%dT%H%M%SZ", &parts);
    return path + "." + text.data() + (count > 1 ? "-" + std::to_string(count) : "");
}

}  // namespace cli
