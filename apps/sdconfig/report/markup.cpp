#include "apps/sdconfig/report/markup.h"

#include <algorithm>
#include <cctype>

#include "base/escaped.h"
#include "base/sip_hash.h"

namespace cli {

namespace {

constexpr std::size_t kMostOfName = 120;

bool isPlain(unsigned char c) {
    return c >= ' ' && c < 0x7f && c != '&' && c != '<' && c != '>' && c != '"' && c != '\'';
}

// A character of UTF-8 is not torn.
std::size_t endOf(const std::string& bytes, std::size_t most) {
    if (bytes.size() <= most) return bytes.size();
    std::size_t end = most;
    while (end > most - 4 && (static_cast<unsigned char>(bytes[end]) & 0xc0u) == 0x80u) --end;
    return end;
}

}  // namespace

Markup& Markup::operator<<(BuiltIn piece) {
    mText.append(piece.text);
    return *this;
}

Markup& Markup::whole(const std::string& bytes) {
    if (std::all_of(bytes.begin(), bytes.end(), isPlain)) {
        mText += bytes;
        return *this;
    }
    for (const char c : sd::escaped(bytes)) {
        switch (c) {
            case '&':
                mText += "&amp;";
                break;
            case '<':
                mText += "&lt;";
                break;
            case '>':
                mText += "&gt;";
                break;
            case '"':
                mText += "&quot;";
                break;
            case '\'':
                mText += "&#39;";
                break;
            default:
                mText += c;
        }
    }
    return *this;
}

Markup& Markup::text(const std::string& bytes) {
    const std::size_t end = endOf(bytes, kMostOfText);
    if (end == bytes.size()) return whole(bytes);
    return whole(bytes.substr(0, end) + " [... and " + std::to_string(bytes.size() - end) + " bytes more]");
}

Markup& Markup::number(std::size_t number) {
    const std::string digits = std::to_string(number);
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) mText += ',';
        mText += digits[i];
    }
    return *this;
}

Markup& Markup::name(const std::string& bytes) {
    const auto isFit = [](unsigned char c) { return std::isalnum(c) || c == '.' || c == '_' || c == '-' || c == ':'; };
    if (bytes.size() <= kMostOfName && std::all_of(bytes.begin(), bytes.end(), isFit)) {
        mText += bytes;
        return *this;
    }
    mText += "~" + std::to_string(sd::sipHash({0, 0}, bytes));
    return *this;
}

}  // namespace cli
