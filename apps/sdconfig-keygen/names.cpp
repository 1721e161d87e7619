#include "apps/sdconfig-keygen/names.h"

#include <algorithm>
#include <array>

#include "base/sdconfig_forms.h"

namespace keygen {

namespace {

// Keywords, and what no namespace or constant of a program may be called.
constexpr std::array<std::string_view, 97> kTaken{"alignas",      "alignof",
                                                  "and",          "and_eq",
                                                  "asm",          "auto",
                                                  "bitand",       "bitor",
                                                  "bool",         "break",
                                                  "case",         "catch",
                                                  "char",         "char16_t",
                                                  "char32_t",     "char8_t",
                                                  "class",        "co_await",
                                                  "co_return",    "co_yield",
                                                  "compl",        "concept",
                                                  "const",        "const_cast",
                                                  "consteval",    "constexpr",
                                                  "constinit",    "continue",
                                                  "decltype",     "default",
                                                  "delete",       "do",
                                                  "double",       "dynamic_cast",
                                                  "else",         "enum",
                                                  "errno",        "explicit",
                                                  "export",       "extern",
                                                  "false",        "float",
                                                  "for",          "friend",
                                                  "goto",         "if",
                                                  "inline",       "int",
                                                  "linux",        "long",
                                                  "main",         "mutable",
                                                  "namespace",    "new",
                                                  "noexcept",     "not",
                                                  "not_eq",       "nullptr",
                                                  "operator",     "or",
                                                  "or_eq",        "private",
                                                  "protected",    "public",
                                                  "register",     "reinterpret_cast",
                                                  "requires",     "return",
                                                  "sd",           "short",
                                                  "signed",       "sizeof",
                                                  "static",       "static_assert",
                                                  "static_cast",  "std",
                                                  "struct",       "switch",
                                                  "template",     "this",
                                                  "thread_local", "throw",
                                                  "true",         "try",
                                                  "typedef",      "typeid",
                                                  "typename",     "union",
                                                  "unix",         "unsigned",
                                                  "using",        "virtual",
                                                  "void",         "volatile",
                                                  "wchar_t",      "while",
                                                  "xor"};

bool isLetter(char c) {
    const char small = sd::forms::detail::lower(c);
    return small >= 'a' && small <= 'z';
}

}  // namespace

std::string identifierOf(std::string_view text) {
    std::string name;
    for (const char c : text) {
        const bool isFit = isLetter(c) || sd::forms::detail::isDigit(c);
        if (isFit)
            name += c;
        else if (name.empty() || name.back() != '_')
            name += '_';  // two of them stand for nothing that a program may use
    }
    if (!isLetter(name.front())) name.insert(0, "n");
    if (name == "xor_eq" || std::find(kTaken.begin(), kTaken.end(), name) != kTaken.end()) name += '_';
    return name;
}

std::string typeNameOf(std::string_view text) {
    std::string name;
    bool isFirst = true;
    for (const char c : identifierOf(text)) {
        if (c != '_') name += isFirst && c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
        isFirst = c == '_';
    }
    return name;
}

PlaceOfKey placeOf(const std::string& key) {
    PlaceOfKey place;
    for (std::size_t begin = 0; begin <= key.size();) {
        const std::size_t end = std::min(key.find('.', begin), key.size());
        std::string piece = key.substr(begin, end - begin);
        piece.erase(std::remove(piece.begin(), piece.end(), '*'), piece.end());
        const bool isLast = end == key.size();
        const bool isStar = piece.empty() && end > begin;
        if (isLast)
            place.name = isStar ? "any" : piece.empty() ? "n" : identifierOf(piece);
        else if (!piece.empty())
            place.namespaces.push_back(identifierOf(piece));
        begin = end + 1;
    }
    return place;
}

}  // namespace keygen
