// Keys with a type: what sdconfig-keygen writes, and how their values stand in a text. Standard library alone.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/sdconfig_forms.h"

namespace sd {

// ---- Types of values, besides bool, int, std::int64_t, double, std::string, std::chrono::milliseconds, enums of a
// program, and std::vector of each. A URL, a path and JSON are std::string. ----

// A number of bytes, not negative.
struct Bytes {
    std::int64_t count = 0;
};

// 0xRRGGBBAA.
struct Color {
    std::uint32_t rgba = 0xff;
};

constexpr bool operator==(Bytes one, Bytes other) {
    return one.count == other.count;
}
constexpr bool operator!=(Bytes one, Bytes other) {
    return one.count != other.count;
}
constexpr bool operator<(Bytes one, Bytes other) {
    return one.count < other.count;
}
constexpr bool operator==(Color one, Color other) {
    return one.rgba == other.rgba;
}
constexpr bool operator!=(Color one, Color other) {
    return one.rgba != other.rgba;
}

// The words of an enum: a program, or sdconfig-keygen for it, specialises this with
//     static constexpr std::pair<std::string_view, E> kAll[] = {{"dark", Theme::Dark}, ...};
template <typename E>
struct Words;

// ---- How a type is written ----

// parse: nothing where the text is no value of the type, or print could not give it back. Literal: what a constant
// default is. kHasRange: whether a key can bound it. kStandsBare: as an item of a list, without quotation marks. What
// can't be printed, as a negative duration, prints as "".
template <typename T, typename = void>
struct Form;

template <>
struct Form<bool> {
    using Literal = bool;
    static constexpr bool kHasRange = false;
    static constexpr bool kStandsBare = true;
    static std::optional<bool> parse(std::string_view text) { return forms::parseBool(text); }
    static std::string print(bool value) { return forms::printBool(value); }
};

template <typename T>
struct Form<T, std::enable_if_t<std::is_integral_v<T> && std::is_signed_v<T> && !std::is_same_v<T, char>>> {
    using Literal = T;
    static constexpr bool kHasRange = true;
    static constexpr bool kStandsBare = true;
    static std::optional<T> parse(std::string_view text) {
        const auto value = forms::parseInt(text);
        if (!value || *value < std::numeric_limits<T>::min() || *value > std::numeric_limits<T>::max())
            return std::nullopt;
        return static_cast<T>(*value);
    }
    static std::string print(T value) { return forms::printInt(value); }
};

template <>
struct Form<double> {
    using Literal = double;
    static constexpr bool kHasRange = true;
    static constexpr bool kStandsBare = true;
    static std::optional<double> parse(std::string_view text) { return forms::parseNumber(text); }
    static std::string print(double value) { return std::isfinite(value) ? forms::printNumber(value) : ""; }
};

template <>
struct Form<std::string> {
    using Literal = std::string_view;
    static constexpr bool kHasRange = false;
    static constexpr bool kStandsBare = false;
    static std::optional<std::string> parse(std::string_view text) { return std::string(text); }
    static std::string print(const std::string& value) { return value; }
};

template <>
struct Form<std::chrono::milliseconds> {
    using Literal = std::chrono::milliseconds;
    static constexpr bool kHasRange = true;
    static constexpr bool kStandsBare = false;
    static std::optional<Literal> parse(std::string_view text) { return forms::parseDuration(text); }
    static std::string print(Literal value) { return value.count() < 0 ? "" : forms::printDuration(value); }
};

template <>
struct Form<Bytes> {
    using Literal = Bytes;
    static constexpr bool kHasRange = true;
    static constexpr bool kStandsBare = false;
    static std::optional<Bytes> parse(std::string_view text) {
        const auto count = forms::parseSize(text);
        return count ? std::optional(Bytes{*count}) : std::nullopt;
    }
    static std::string print(Bytes value) { return value.count < 0 ? "" : forms::printSize(value.count); }
};

template <>
struct Form<Color> {
    using Literal = Color;
    static constexpr bool kHasRange = false;
    static constexpr bool kStandsBare = false;
    static std::optional<Color> parse(std::string_view text) {
        const auto rgba = forms::parseColor(text);
        return rgba ? std::optional(Color{*rgba}) : std::nullopt;
    }
    static std::string print(Color value) { return forms::printColor(value.rgba); }
};

template <typename E>
struct Form<E, std::enable_if_t<std::is_enum_v<E>>> {
    using Literal = E;
    static constexpr bool kHasRange = false;
    static constexpr bool kStandsBare = false;

    // As the word is written, or, where one alone is, without regard to letter case.
    static std::optional<E> parse(std::string_view text) {
        text = forms::detail::trimmed(text);
        std::optional<E> found;
        bool isOne = true;
        for (const auto& [word, value] : Words<E>::kAll) {
            if (word == text) return value;
            if (!forms::detail::isSameWord(word, text)) continue;
            isOne = !found;
            found = value;
        }
        return isOne ? found : std::nullopt;
    }
    static std::string print(E value) {
        for (const auto& [word, one] : Words<E>::kAll)
            if (one == value) return std::string(word);
        return "";
    }
};

// A constant's default stands as the text of the list.
template <typename T>
struct Form<std::vector<T>> {
    using Literal = std::string_view;
    static constexpr bool kHasRange = Form<T>::kHasRange;
    static constexpr bool kStandsBare = false;

    static std::optional<std::vector<T>> parse(std::string_view text) {
        const auto items = forms::parseList(text);
        if (!items) return std::nullopt;
        std::vector<T> values;
        values.reserve(items->size());
        for (const std::string& item : *items) {
            auto value = Form<T>::parse(item);
            if (!value) return std::nullopt;
            values.push_back(std::move(*value));
        }
        return values;
    }
    static std::string print(const std::vector<T>& values) {
        std::vector<std::string> items;
        items.reserve(values.size());
        for (const T& value : values) {
            items.push_back(Form<T>::print(value));
            if (items.back().empty() && !std::is_same_v<T, std::string>) return "";
        }
        return forms::printList(items, !Form<T>::kStandsBare);
    }
};

// ---- Keys ----

// Where a key's value is kept: as long as the service runs, above what the build.prop files define; or sealed, until it
// is deleted, where a policy may override it.
enum class Store { Property, Secure };

// What bounds a value; of a list, each item.
template <typename T, bool = Form<T>::kHasRange>
struct Range {
    T clamped(const T& value) const { return value; }
};

template <typename T>
struct Range<T, true> {
    std::optional<T> least{};
    std::optional<T> most{};

    T clamped(const T& value) const { return least && value < *least ? *least : most && *most < value ? *most : value; }
};

template <typename T>
struct Range<std::vector<T>, true> {
    std::optional<T> least{};
    std::optional<T> most{};

    std::vector<T> clamped(std::vector<T> values) const {
        for (T& value : values) value = Range<T, true>{least, most}.clamped(value);
        return values;
    }
};

// A key: a constant of a program.
//     inline constexpr sd::Key<int> port{"velmar.proxy.port", sd::Store::Property, 8080, {1, 65535}};
template <typename T>
struct Key {
    using Value = T;

    std::string_view name;
    Store store = Store::Property;
    typename Form<T>::Literal standard{};  // what an unset key reads as
    Range<T> range{};

    T defaultValue() const {
        if constexpr (std::is_same_v<typename Form<T>::Literal, T>)
            return standard;
        else
            return Form<T>::parse(standard).value_or(T{});
    }
};

// Keys that a glob stands for: "velmar.printer.*.name". name("office") is "velmar.printer.office.name".
template <typename T>
struct KeyFamily {
    std::string_view glob;
    Store store = Store::Property;
    typename Form<T>::Literal standard{};
    Range<T> range{};

    // A key that holds its name: for a call, or a constant within a function.
    class Member : public Key<T> {
    public:
        Member(const KeyFamily& family, std::initializer_list<std::string_view> parts)
            : Key<T>{{}, family.store, family.standard, family.range} {
            auto part = parts.begin();
            for (const char c : family.glob)
                if (c == '*' && part != parts.end())
                    mName += *part++;
                else
                    mName += c;
            this->name = mName;
        }
        Member(const Member&) = delete;
        Member& operator=(const Member&) = delete;

    private:
        std::string mName;
    };

    // parts: what stands for each "*", in their order.
    template <typename... Parts>
    Member operator()(const Parts&... parts) const {
        return Member(*this, {std::string_view(parts)...});
    }
};

}  // namespace sd
