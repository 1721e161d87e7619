// Points in time as they are shown and typed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace apps {

// UTC, as ISO 8601 has it, to the second. seconds: since 1970. "" for 0 and what no calendar has.
std::string timeText(std::int64_t seconds);

// "3 days ago", from now on; the time itself where it is to come, as after a clock was set back.
std::string agoText(std::int64_t seconds, std::int64_t now);

// A point in time as a person types it: so long before `now` ("90s", "15m", "2h", "2d", "3w"); a date, with or without
// a time of day, of this machine's calendar ("2030-01-31", "2030-01-31T12:00", "2030-01-31T12:00:05"); or a time of
// UTC, as timeText() has it. Nothing where it is none of these.
std::optional<std::int64_t> typedTime(const std::string& text, std::int64_t now);

}  // namespace apps
