// The one form in which values of each type are written, and what else is understood as one: for whoever describes
// keys, and for programs that read and write typed values. It needs the standard library alone.
//
// "parse" functions return nothing where the text is no value of the type, or one beyond what it holds; "print"
// functions give the form that is stored, which reads back as the same value. All are safe with any bytes, don't depend
// on the locale, and may be called from any thread.
#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <numeric>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sd::forms {

namespace detail {

inline bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

inline bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

inline char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
    return text;
}

inline bool isSameWord(std::string_view one, std::string_view other) {
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [](char a, char b) { return lower(a) == lower(b); });
}

// The number that is the whole text; a single plus may stand before it.
template <typename Number>
std::optional<Number> parseWhole(std::string_view text) {
    text = trimmed(text);
    if (text.size() > 1 && text.front() == '+' && text[1] != '-') text.remove_prefix(1);
    Number number{};
    const auto [stop, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (text.empty() || failure != std::errc() || stop != text.data() + text.size()) return std::nullopt;
    return number;
}

// A unit, and how many of the smallest one it is.
struct Unit {
    std::string_view name;
    std::int64_t count;
};

inline constexpr std::array<Unit, 6> kDurations{
    {{"w", 604'800'000}, {"d", 86'400'000}, {"h", 3'600'000}, {"m", 60'000}, {"s", 1'000}, {"ms", 1}}};
inline constexpr std::array<Unit, 11> kSizes{{{"EiB", std::int64_t{1} << 60},
                                              {"PiB", std::int64_t{1} << 50},
                                              {"PB", 1'000'000'000'000'000},
                                              {"TiB", std::int64_t{1} << 40},
                                              {"TB", 1'000'000'000'000},
                                              {"GiB", std::int64_t{1} << 30},
                                              {"GB", 1'000'000'000},
                                              {"MiB", std::int64_t{1} << 20},
                                              {"MB", 1'000'000},
                                              {"KiB", std::int64_t{1} << 10},
                                              {"kB", 1'000}}};

// Digits, with up to nine behind a point, times `count`. Nothing where that is not whole, or too much.
inline std::optional<std::int64_t> multiplied(std::string_view number, std::int64_t count) {
    const std::size_t point = std::min(number.find('.'), number.size());
    const std::string_view fraction = number.substr(std::min(point + 1, number.size()));
    const auto whole = parseWhole<std::int64_t>(number.substr(0, point));
    const auto part = fraction.empty() ? std::optional<std::int64_t>(0) : parseWhole<std::int64_t>(fraction);
    if (!whole || !part || fraction.size() > 9 || *whole > std::numeric_limits<std::int64_t>::max() / count)
        return std::nullopt;
    std::int64_t scale = 1;
    for (std::size_t i = 0; i < fraction.size(); ++i) scale *= 10;
    const std::int64_t common = std::gcd(scale, count);
    if (*part % (scale / common) != 0) return std::nullopt;
    const std::int64_t more = *part / (scale / common) * (count / common);
    const std::int64_t sum = *whole * count;
    if (sum > std::numeric_limits<std::int64_t>::max() - more) return std::nullopt;
    return sum + more;
}

// Takes digits and points from the front of the text.
inline std::string_view takeNumber(std::string_view& text) {
    std::size_t size = 0;
    while (size < text.size() && (isDigit(text[size]) || text[size] == '.')) ++size;
    const std::string_view number = text.substr(0, size);
    text = trimmed(text.substr(size));
    return number;
}

inline std::string_view takeWord(std::string_view& text) {
    std::size_t size = 0;
    while (size < text.size() && lower(text[size]) >= 'a' && lower(text[size]) <= 'z') ++size;
    const std::string_view word = text.substr(0, size);
    text = trimmed(text.substr(size));
    return word;
}

inline std::optional<std::uint32_t> parseHex(std::string_view digits) {
    std::uint32_t number = 0;
    const auto [stop, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), number, 16);
    if (failure != std::errc() || stop != digits.data() + digits.size()) return std::nullopt;
    return number;
}

inline void addUtf8(std::string& text, std::uint32_t code) {
    const auto add = [&text](std::uint32_t byte) { text += static_cast<char>(static_cast<unsigned char>(byte)); };
    if (code < 0x80) return add(code);
    if (code < 0x800) {
        add(0xc0 | code >> 6);
    } else {
        if (code < 0x10000) {
            add(0xe0 | code >> 12);
        } else {
            add(0xf0 | code >> 18);
            add(0x80 | (code >> 12 & 0x3f));
        }
        add(0x80 | (code >> 6 & 0x3f));
    }
    add(0x80 | (code & 0x3f));
}

// Reads the items of a JSON array of texts, numbers and booleans.
class ListReader {
public:
    explicit ListReader(std::string_view text) : mRest(trimmed(text)) {}

    std::optional<std::vector<std::string>> read() {
        std::vector<std::string> items;
        if (!take('[')) return std::nullopt;
        if (take(']')) return mRest.empty() ? std::optional(items) : std::nullopt;
        do {
            std::string item;
            if (!readItem(item)) return std::nullopt;
            items.push_back(std::move(item));
        } while (take(','));
        return take(']') && mRest.empty() ? std::optional(std::move(items)) : std::nullopt;
    }

private:
    bool take(char c) {
        if (mRest.empty() || mRest.front() != c) return false;
        mRest = trimmed(mRest.substr(1));
        return true;
    }

    bool readItem(std::string& item) {
        if (!mRest.empty() && mRest.front() == '"') return readText(item);
        const std::size_t size = std::min(mRest.find_first_of(",] \t\r\n"), mRest.size());
        item = mRest.substr(0, size);
        mRest = trimmed(mRest.substr(size));
        return item == "true" || item == "false" || parseWhole<double>(item).has_value();
    }

    bool readText(std::string& item) {
        std::size_t at = 1;
        for (; at < mRest.size() && mRest[at] != '"'; ++at) {
            if (static_cast<unsigned char>(mRest[at]) < ' ') return false;
            if (mRest[at] != '\\')
                item += mRest[at];
            else if (!readEscape(item, ++at))
                return false;
        }
        if (at >= mRest.size()) return false;
        mRest = trimmed(mRest.substr(at + 1));
        return true;
    }

    // at: of the character behind the backslash; then of the last one that belongs to it.
    bool readEscape(std::string& item, std::size_t& at) {
        constexpr std::string_view kNames = "\"\\/bfnrt";
        constexpr std::string_view kMeant = "\"\\/\b\f\n\r\t";
        if (at >= mRest.size()) return false;
        if (mRest[at] != 'u') {
            const std::size_t found = kNames.find(mRest[at]);
            if (found == std::string_view::npos) return false;
            item += kMeant[found];
            return true;
        }
        auto code = readCode(at);
        if (code && *code >= 0xd800 && *code < 0xdc00) {
            if (mRest.substr(std::min(at + 1, mRest.size()), 2) != "\\u") return false;
            const auto low = readCode(at += 2);
            if (!low || *low < 0xdc00 || *low > 0xdfff) return false;
            code = 0x10000 + ((*code - 0xd800) << 10) + (*low - 0xdc00);
        }
        if (!code || (*code >= 0xdc00 && *code < 0xe000)) return false;
        addUtf8(item, *code);
        return true;
    }

    // at: of the "u" before the four digits; then of the last of them.
    std::optional<std::uint32_t> readCode(std::size_t& at) {
        const std::string_view digits = mRest.substr(std::min(at + 1, mRest.size()), 4);
        at += 4;
        return digits.size() == 4 ? parseHex(digits) : std::nullopt;
    }

    std::string_view mRest;
};

inline std::string printJsonText(std::string_view text) {
    constexpr std::string_view kHex = "0123456789abcdef";
    std::string json = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            json += '\\';
            json += c;
        } else if (c == '\n' || c == '\t') {
            json += c == '\n' ? "\\n" : "\\t";
        } else if (byte < ' ') {
            json += "\\u00";
            json += kHex[byte >> 4];
            json += kHex[byte & 15];
        } else {
            json += c;
        }
    }
    return json + '"';
}

}  // namespace detail

// "true", "yes", "on" and "1", and their contraries, in any letter case; stored are "true" and "false".
inline std::optional<bool> parseBool(std::string_view text) {
    text = detail::trimmed(text);
    const auto isOneOf = [text](std::initializer_list<std::string_view> words) {
        return std::any_of(words.begin(), words.end(),
                           [text](std::string_view word) { return detail::isSameWord(text, word); });
    };
    if (isOneOf({"true", "yes", "on", "1"})) return true;
    if (isOneOf({"false", "no", "off", "0"})) return false;
    return std::nullopt;
}

inline std::string printBool(bool value) {
    return value ? "true" : "false";
}

// A decimal of 64 bits; stored without a plus, and without zeros before it.
inline std::optional<std::int64_t> parseInt(std::string_view text) {
    return detail::parseWhole<std::int64_t>(text);
}

inline std::string printInt(std::int64_t value) {
    return std::to_string(value);
}

// A finite decimal with a point, perhaps with an exponent; stored in the fewest characters that read back as it.
inline std::optional<double> parseNumber(std::string_view text) {
    const auto number = detail::parseWhole<double>(text);
    return number && std::isfinite(*number) ? number : std::nullopt;
}

inline std::string printNumber(double value) {
    std::array<char, 32> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), value).ptr;
    return {text.data(), end};
}

// Numbers with units, the largest first, as "1h30m", "1.5 h" or "2d 500ms"; units are w, d, h, m, s and ms. Stored in
// whole numbers from d to ms, as "1h30m", and "0s".
inline std::optional<std::chrono::milliseconds> parseDuration(std::string_view text) {
    text = detail::trimmed(text);
    if (text.empty()) return std::nullopt;
    std::int64_t sum = 0;
    for (auto unit = detail::kDurations.begin(); !text.empty(); ++unit) {
        const std::string_view number = detail::takeNumber(text);
        const std::string_view word = detail::takeWord(text);
        unit = std::find_if(unit, detail::kDurations.end(),
                            [word](const detail::Unit& one) { return detail::isSameWord(one.name, word); });
        if (unit == detail::kDurations.end()) return std::nullopt;
        const auto part = detail::multiplied(number, unit->count);
        if (!part || *part > std::numeric_limits<std::int64_t>::max() - sum) return std::nullopt;
        sum += *part;
    }
    return std::chrono::milliseconds(sum);
}

// value: not negative.
inline std::string printDuration(std::chrono::milliseconds value) {
    std::int64_t rest = value.count();
    std::string text;
    for (const detail::Unit& unit : detail::kDurations) {
        if (unit.name == "w" || rest < unit.count) continue;
        text += std::to_string(rest / unit.count).append(unit.name);
        rest %= unit.count;
    }
    return text.empty() ? "0s" : text;
}

// Bytes, as "512", "10 MiB" or "1.5GB"; units are B, those of 1000 (kB, MB, GB, TB, PB) and of 1024 (KiB, MiB, GiB,
// TiB, PiB, EiB), in any letter case. Stored in the unit that leaves the smallest whole number, as "10MiB", or "512B".
inline std::optional<std::int64_t> parseSize(std::string_view text) {
    text = detail::trimmed(text);
    const std::string_view number = detail::takeNumber(text);
    const std::string_view word = detail::takeWord(text);
    if (!text.empty()) return std::nullopt;
    if (word.empty() || detail::isSameWord(word, "B")) return detail::multiplied(number, 1);
    const auto unit = std::find_if(detail::kSizes.begin(), detail::kSizes.end(),
                                   [word](const detail::Unit& one) { return detail::isSameWord(one.name, word); });
    return unit == detail::kSizes.end() ? std::nullopt : detail::multiplied(number, unit->count);
}

// value: not negative.
inline std::string printSize(std::int64_t value) {
    // The units stand from the largest to the smallest.
    for (const detail::Unit& unit : detail::kSizes)
        if (value != 0 && value % unit.count == 0) return std::to_string(value / unit.count).append(unit.name);
    return std::to_string(value) + "B";
}

// "#rgb", "#rrggbb" or "#rrggbbaa", as 0xRRGGBBAA; stored in small letters, and without an opacity of ff.
inline std::optional<std::uint32_t> parseColor(std::string_view text) {
    text = detail::trimmed(text);
    if (text.empty() || text.front() != '#') return std::nullopt;
    text.remove_prefix(1);
    const auto digits = detail::parseHex(text);
    if (!digits) return std::nullopt;
    if (text.size() == 8) return digits;
    if (text.size() == 6) return *digits << 8 | 0xff;
    if (text.size() != 3) return std::nullopt;
    const std::uint32_t red = *digits >> 8;
    const std::uint32_t green = *digits >> 4 & 15;
    const std::uint32_t blue = *digits & 15;
    return red * 0x11000000 + green * 0x110000 + blue * 0x1100 + 0xff;
}

inline std::string printColor(std::uint32_t value) {
    constexpr std::string_view kHex = "0123456789abcdef";
    std::string text = "#";
    for (int shift = 28; shift >= ((value & 0xff) == 0xff ? 8 : 0); shift -= 4) text += kHex[value >> shift & 15];
    return text;
}

// The items of a JSON array of texts, numbers and booleans: a text as it is, the others as they are written.
inline std::optional<std::vector<std::string>> parseList(std::string_view text) {
    return detail::ListReader(text).read();
}

// areTexts: whether the items stand in quotation marks; those of bool, int and number don't. Stored without blanks.
inline std::string printList(const std::vector<std::string>& items, bool areTexts) {
    std::string text = "[";
    for (const std::string& item : items) {
        if (text.size() > 1) text += ',';
        text += areTexts ? detail::printJsonText(item) : item;
    }
    return text + "]";
}

}  // namespace sd::forms
