#include "base/text.h"

#include <langinfo.h>
#include <locale.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <cwchar>

namespace sd {

namespace {

static_assert(sizeof(wchar_t) == sizeof(char32_t), "a wide character is a character of Unicode");

constexpr char32_t kReplacement = 0xfffd;
constexpr char32_t kLastCharacter = 0x10ffff;
constexpr char kNameOfAscii[] = "ANSI_X3.4-1968";

bool isAscii(char c) {
    return static_cast<unsigned char>(c) < 0x80;
}

void append(std::string& utf8, char32_t character) {
    const auto lead = [&](unsigned mark, unsigned shift) { utf8 += static_cast<char>(mark | character >> shift); };
    const auto next = [&](unsigned shift) { utf8 += static_cast<char>(0x80u | (character >> shift & 0x3fu)); };
    if (character < 0x80) {
        lead(0, 0);
    } else if (character < 0x800) {
        lead(0xc0, 6);
        next(0);
    } else if (character < 0x10000) {
        lead(0xe0, 12);
        next(6);
        next(0);
    } else {
        lead(0xf0, 18);
        next(12);
        next(6);
        next(0);
    }
}

// In a locale that knows ASCII alone, the thread's locale is one of UTF-8 while this lives.
class Utf8WhereAscii {
public:
    Utf8WhereAscii() {
        static const locale_t sUtf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
        if (sUtf8 && std::strcmp(::nl_langinfo(CODESET), kNameOfAscii) == 0) mBefore = ::uselocale(sUtf8);
    }
    ~Utf8WhereAscii() {
        if (mBefore) ::uselocale(mBefore);
    }
    Utf8WhereAscii(const Utf8WhereAscii&) = delete;
    Utf8WhereAscii& operator=(const Utf8WhereAscii&) = delete;

private:
    locale_t mBefore = nullptr;
};

}  // namespace

std::string latin1ToUtf8(const std::string& bytes) {
    std::string utf8;
    utf8.reserve(bytes.size());
    for (const char* at = bytes.c_str(); *at; ++at) append(utf8, static_cast<unsigned char>(*at));
    return utf8;
}

std::string localToUtf8(const std::string& bytes) {
    const std::size_t size = std::strlen(bytes.c_str());
    if (std::all_of(bytes.data(), bytes.data() + size, isAscii)) return bytes.substr(0, size);

    const Utf8WhereAscii locale;
    std::string utf8;
    utf8.reserve(size);
    std::mbstate_t state{};
    for (std::size_t at = 0; at < size;) {
        wchar_t wide = 0;
        std::size_t length = std::mbrtowc(&wide, bytes.data() + at, size - at, &state);
        auto character = static_cast<char32_t>(wide);
        // No character, or one that is cut off by the end: both lengths are beyond any.
        if (length > size - at || character > kLastCharacter) {
            character = kReplacement;
            length = 1;
            state = {};
        }
        append(utf8, character);
        at += length;
    }
    return utf8;
}

}  // namespace sd
