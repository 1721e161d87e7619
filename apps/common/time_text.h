// A point in time as it is shown: UTC, as ISO 8601 has it, to the second.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace apps {

// seconds: since 1970. "" for 0 and what no calendar has.
inline std::string timeText(std::int64_t seconds) {
    const std::time_t time = seconds;
    std::tm parts{};
    char text[32];
    if (seconds == 0 || !::gmtime_r(&time, &parts) || !std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts))
        return "";
    return text;
}

}  // namespace apps
