// What the texts of key rings, plain and wrapped, are made of.
#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace sd::security {

// The text up to the blank, without which there is none; both go.
inline std::string_view takeField(std::string_view& line) {
    const std::size_t end = line.find(' ');
    if (end == std::string_view::npos) return {};
    const std::string_view field = line.substr(0, end);
    line.remove_prefix(end + 1);
    return field;
}

// A positive number as it is written in one way alone.
template <class Number>
bool readNumber(std::string_view field, Number& number) {
    const char* const end = field.data() + field.size();
    const auto [stop, failure] = std::from_chars(field.data(), end, number);
    return failure == std::errc() && stop == end && number > 0 && field.front() != '0';
}

template <class Bytes>
std::string_view viewOf(const Bytes& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace sd::security
