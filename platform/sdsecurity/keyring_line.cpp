#include "platform/sdsecurity/keyring_line.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/sdsecurity/hex.h"

namespace sd::security::keyring {

namespace {

constexpr std::size_t kMostDigits = 18;  // of a number

bool isPrintable(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char letter) { return letter >= ' ' && letter <= '~'; });
}

}  // namespace

bool isItemId(std::string_view text) {
    std::array<unsigned char, kItemIdSize> bytes{};
    return readHex(text, bytes);
}

std::optional<SecretBytes> keyOfDigits(std::string_view digits) {
    SecretBytes key(kKeySize);
    if (!readHex(digits, key)) return std::nullopt;
    return key;
}

std::optional<Line> parseLine(std::string_view text) {
    const std::size_t digits = text.find_first_not_of("0123456789");
    if (digits == 0 || digits > kMostDigits || text[digits] != ' ' || !isPrintable(text)) return std::nullopt;
    Line line{};
    for (const char digit : text.substr(0, digits)) line.number = line.number * 10 + static_cast<unsigned>(digit - '0');
    text.remove_prefix(digits + 1);
    line.word = text.substr(0, text.find(' '));
    line.rest = text.substr(std::min(text.size(), line.word.size() + 1));
    return line;
}

SecretBytes formatLine(std::uint64_t number, std::string_view word, std::string_view rest) {
    const std::string digits = std::to_string(number);
    SecretBytes line;
    line.reserve(kMaxLine);  // in one piece
    line.insert(line.end(), digits.begin(), digits.end());
    line.push_back(' ');
    line.insert(line.end(), word.begin(), word.end());
    if (!rest.empty()) line.push_back(' ');
    line.insert(line.end(), rest.begin(), rest.end());
    line.push_back('\n');
    return line;
}

bool LineReader::read(int descriptor) {
    std::copy(mBytes.begin() + static_cast<std::ptrdiff_t>(mBegin), mBytes.begin() + static_cast<std::ptrdiff_t>(mEnd),
              mBytes.begin());
    mEnd -= std::exchange(mBegin, 0);
    ::explicit_bzero(mBytes.data() + mEnd, mBytes.size() - mEnd);
    if (isOverlong()) return false;
    ssize_t count = 0;
    do count = ::read(descriptor, mBytes.data() + mEnd, mBytes.size() - mEnd);
    while (count < 0 && errno == EINTR);
    if (count <= 0) return false;
    mEnd += static_cast<std::size_t>(count);
    return true;
}

std::optional<std::string_view> LineReader::next() {
    const std::string_view left(reinterpret_cast<const char*>(mBytes.data()) + mBegin, mEnd - mBegin);
    const std::size_t end = left.find('\n');
    if (end == std::string_view::npos) return std::nullopt;
    mBegin += end + 1;
    return left.substr(0, end);
}

}  // namespace sd::security::keyring
