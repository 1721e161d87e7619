#include "base/escaped.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace sd {

namespace {

// A key or a path is told whole in all sane cases.
constexpr std::size_t kMaxQuoted = 200;

// What stands at one place of a text: a character of UTF-8, or a byte that is part of none.
struct Piece {
    std::size_t size = 1;
    bool valid = false;
    char32_t code = 0;
};

Piece pieceAt(const std::string& text, std::size_t at) {
    static constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    const auto first = static_cast<unsigned char>(text[at]);
    if (first < 0x80) return {1, true, first};
    const std::size_t size = first < 0xc0 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : first < 0xf8 ? 4 : 0;
    if (size == 0 || size > text.size() - at) return {};
    char32_t code = first & (0xffu >> (size + 1));
    for (std::size_t i = 1; i < size; ++i) {
        const auto next = static_cast<unsigned char>(text[at + i]);
        if ((next & 0xc0u) != 0x80u) return {};
        code = code << 6 | (next & 0x3fu);
    }
    const bool isSurrogate = code >= 0xd800 && code <= 0xdfff;
    if (code < kLeast[size] || code > 0x10ffff || isSurrogate) return {};
    return {size, true, code};
}

// C0, DEL and C1 act on the terminal; the others turn the direction in which what follows is shown.
bool isControl(char32_t c) {
    return c < 0x20 || (c >= 0x7f && c < 0xa0) || c == 0x61c || c == 0x200e || c == 0x200f ||
           (c >= 0x202a && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069);
}

void addHex(std::string& out, char32_t number, int digits) {
    static constexpr char kHex[] = "0123456789abcdef";
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) out += kHex[number >> shift & 15u];
}

void addBytesInHex(std::string& out, const std::string& bytes) {
    for (const char byte : bytes) {
        out += "\\x";
        addHex(out, static_cast<unsigned char>(byte), 2);
    }
}

}  // namespace

std::string escaped(const std::string& text) {
    std::string out;
    for (std::size_t at = 0; at < text.size();) {
        const Piece piece = pieceAt(text, at);
        const std::string bytes = text.substr(at, piece.size);
        piece.valid && !isControl(piece.code) ? void(out += bytes) : addBytesInHex(out, bytes);
        at += piece.size;
    }
    return out;
}

std::string cutAt(std::string_view text, std::size_t most) {
    if (text.size() <= most) return std::string(text);
    while (most > 0 && (static_cast<unsigned char>(text[most]) & 0xc0u) == 0x80u) --most;
    return std::string(text.substr(0, most)) + "...";
}

std::string quoted(const std::string& text) {
    return '"' + cutAt(escaped(text), kMaxQuoted) + '"';
}

bool isUtf8(const std::string& bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
        const Piece piece = pieceAt(bytes, at);
        if (!piece.valid) return false;
        at += piece.size;
    }
    return true;
}

std::string escapedInJson(const std::string& json) {
    std::string out;
    for (std::size_t at = 0; at < json.size();) {
        const Piece piece = pieceAt(json, at);
        if (piece.code < 0x7f || !isControl(piece.code)) {
            out.append(json, at, piece.size);
        } else {
            out += "\\u";
            addHex(out, piece.code, 4);
        }
        at += piece.size;
    }
    return out;
}

std::string shellWord(const std::string& text) {
    const auto plain = [](unsigned char c) { return std::isalnum(c) || c >= 0x80 || std::strchr("/._-+:,@%=", c); };
    const bool visible = escaped(text) == text;
    if (!text.empty() && visible && std::all_of(text.begin(), text.end(), plain)) return text;
    std::string word = visible ? "'" : "$'";  // in the latter "\x0a" is a newline
    for (const char c : text) {
        if (c == '\'')
            word += visible ? "'\\''" : "\\'";
        else if (c == '\\' && !visible)
            word += "\\\\";
        else
            word += c;
    }
    return escaped(word) + "'";
}

}  // namespace sd
