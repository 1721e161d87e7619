#include "apps/sdconfig-keygen/literal.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <limits>

#include "apps/sdconfig-keygen/names.h"
#include "base/sdconfig_forms.h"

namespace keygen {

namespace {

using sd::KeyType;
namespace forms = sd::forms;

bool fitsInt(const std::optional<std::string>& bound) {
    const auto number = bound ? forms::parseInt(*bound) : std::nullopt;
    return number && *number >= std::numeric_limits<int>::min() && *number <= std::numeric_limits<int>::max();
}

// An int where the range says so; else there may be any number of 64 bits.
bool isShort(const sd::ValueRule& rule) {
    return fitsInt(rule.minimum) && fitsInt(rule.maximum);
}

std::string typeOf(const sd::ValueRule& rule, const std::string& enumName) {
    switch (rule.type) {
        case KeyType::Bool:
            return "bool";
        case KeyType::Int:
            return isShort(rule) ? "int" : "std::int64_t";
        case KeyType::Number:
            return "double";
        case KeyType::Enum:
            return enumName;
        case KeyType::Duration:
            return "std::chrono::milliseconds";
        case KeyType::Size:
            return "sd::Bytes";
        case KeyType::Color:
            return "sd::Color";
        default:
            return "std::string";
    }
}

std::string intLiteral(const std::string& text) {
    const std::int64_t least = std::numeric_limits<std::int64_t>::min();
    return forms::parseInt(text) == least ? "std::numeric_limits<std::int64_t>::min()" : text;
}

std::string numberLiteral(const std::string& text) {
    return text.find_first_of(".e") == std::string::npos ? text + ".0" : text;
}

std::string colorLiteral(const std::string& text) {
    char literal[32];
    std::snprintf(literal, sizeof literal, "sd::Color{0x%08xu}", forms::parseColor(text).value_or(0));
    return literal;
}

// text: in the form that is stored.
std::string valueLiteral(const sd::ValueRule& rule, const std::string& text, const std::string& enumName) {
    switch (rule.type) {
        case KeyType::Bool:
            return text;
        case KeyType::Int:
            return intLiteral(text);
        case KeyType::Number:
            return numberLiteral(text);
        case KeyType::Enum:
            return enumName + "::" + identifierOf(text);
        case KeyType::Duration:
            return "std::chrono::milliseconds(" +
                   std::to_string(forms::parseDuration(text).value_or(std::chrono::milliseconds(0)).count()) + ")";
        case KeyType::Size:
            return "sd::Bytes{" + std::to_string(forms::parseSize(text).value_or(0)) + "}";
        case KeyType::Color:
            return colorLiteral(text);
        default:
            return quotedLiteral(text);
    }
}

}  // namespace

const sd::ValueRule& ruleOf(const sd::KeyDescription& description) {
    return description.value.type == KeyType::Array ? description.items : description.value;
}

std::string typeOf(const sd::KeyDescription& description, const std::string& enumName) {
    const std::string one = typeOf(ruleOf(description), enumName);
    return description.value.type == KeyType::Array ? "std::vector<" + one + ">" : one;
}

std::string defaultOf(const sd::KeyDescription& description, const std::string& enumName) {
    if (!description.defaultValue) return "{}";
    return valueLiteral(description.value, *description.defaultValue, enumName);
}

std::string rangeOf(const sd::KeyDescription& description) {
    const sd::ValueRule& rule = ruleOf(description);
    const auto bound = [&rule](const std::optional<std::string>& text) {
        return text ? valueLiteral(rule, *text, "") : "{}";
    };
    return rule.minimum || rule.maximum ? "{" + bound(rule.minimum) + ", " + bound(rule.maximum) + "}" : "{}";
}

std::string quotedLiteral(std::string_view text) {
    std::string literal = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\' || c == '?') {  // "??" begins what an earlier standard takes for another character
            literal += '\\';
            literal += c;
        } else if (byte < ' ' || byte == 0x7f) {
            char octal[8];
            std::snprintf(octal, sizeof octal, "\\%03o", byte);
            literal += octal;
        } else {
            literal += c;
        }
    }
    return literal + '"';
}

}  // namespace keygen
