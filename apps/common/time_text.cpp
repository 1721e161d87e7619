#include "apps/common/time_text.h"

#include <array>
#include <charconv>
#include <ctime>
#include <string_view>

namespace apps {

namespace {

constexpr std::int64_t kMinute = 60;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;
constexpr std::int64_t kWeek = 7 * kDay;

// What a number of seconds below `below` is told in.
struct Unit {
    std::int64_t below;
    std::int64_t seconds;
    const char* name;
};
constexpr std::array<Unit, 7> kUnits{{{90, 1, "second"},
                                      {90 * kMinute, kMinute, "minute"},
                                      {36 * kHour, kHour, "hour"},
                                      {14 * kDay, kDay, "day"},
                                      {10 * kWeek, kWeek, "week"},
                                      {730 * kDay, 30 * kDay, "month"},
                                      {INT64_MAX, 365 * kDay, "year"}}};

// Nothing where the text is no such number, or one of more than nine digits.
std::optional<std::int64_t> numberOf(std::string_view text) {
    constexpr std::size_t kMostDigits = 9;
    std::int64_t number = 0;
    const auto [stop, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = failure == std::errc() && stop == text.data() + text.size() && text.front() != '-';
    return isNumber && text.size() <= kMostDigits ? std::optional(number) : std::nullopt;
}

std::optional<std::int64_t> spanOf(std::string_view text) {
    constexpr std::string_view kLetters = "smhdw";
    constexpr std::array kSeconds{std::int64_t{1}, kMinute, kHour, kDay, kWeek};
    const std::size_t unit = text.size() < 2 ? std::string_view::npos : kLetters.find(text.back());
    if (unit == std::string_view::npos) return std::nullopt;
    const auto count = numberOf(text.substr(0, text.size() - 1));
    return count ? std::optional(*count * kSeconds.at(unit)) : std::nullopt;
}

// What the form has nothing for is 0. The calendar's own functions would take the 31st of February for a day in March.
std::optional<std::int64_t> timeOf(const std::string& text, const char* form, std::time_t (*secondsOf)(std::tm*)) {
    std::tm parts{};
    const char* const end = ::strptime(text.c_str(), form, &parts);
    if (!end || *end || text.size() != std::string_view(text.c_str()).size()) return std::nullopt;
    const std::tm typed = parts;
    parts.tm_isdst = -1;
    const std::int64_t seconds = secondsOf(&parts);
    const bool isDay = parts.tm_mday == typed.tm_mday && parts.tm_mon == typed.tm_mon && parts.tm_year == typed.tm_year;
    return isDay ? std::optional(seconds) : std::nullopt;
}

}  // namespace

std::string timeText(std::int64_t seconds) {
    const std::time_t time = seconds;
    std::tm parts{};
    char text[32];
    if (seconds == 0 || !::gmtime_r(&time, &parts) || !std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts))
        return "";
    return text;
}

std::string agoText(std::int64_t seconds, std::int64_t now) {
    if (seconds > now) return timeText(seconds);
    const std::int64_t passed = now - seconds;
    const Unit* unit = kUnits.data();
    while (passed >= unit->below) ++unit;
    const std::int64_t count = (passed + unit->seconds / 2) / unit->seconds;
    return std::to_string(count) + " " + unit->name + (count == 1 ? "" : "s") + " ago";
}

std::optional<std::int64_t> typedTime(const std::string& text, std::int64_t now) {
    if (const auto span = spanOf(text)) return now - *span;
    if (const auto utc = timeOf(text, "%Y-%m-%dT%H:%M:%SZ", ::timegm)) return utc;
    for (const char* form : {"%Y-%m-%d", "%Y-%m-%dT%H:%M", "%Y-%m-%dT%H:%M:%S"})
        if (const auto local = timeOf(text, form, ::mktime)) return local;
    return std::nullopt;
}

}  // namespace apps
