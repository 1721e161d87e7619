#include "platform/sdsecurity/recovery_code.h"

#include <algorithm>
#include <cstddef>

#include "platform/sdsecurity/crypto.h"

namespace sd::security {
namespace {

// Crockford's, a letter for 5 bits.
constexpr std::string_view kLetters = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";
constexpr unsigned kBits = 5;
constexpr std::size_t kValueLetters = 26;
constexpr std::size_t kCheckLetters = 2;
constexpr std::size_t kCodeLetters = kValueLetters + kCheckLetters;
constexpr std::size_t kGroup = 4;
// The largest prime below 2^10. It divides neither a letter's difference nor that of two that were swapped, wherever
// they stand.
constexpr unsigned kModulus = 1021;

// The letter's value; beyond all for what is none.
std::size_t valueOf(char c) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    if (c == 'O') c = '0';
    if (c == 'I' || c == 'L') c = '1';
    return kLetters.find(c);
}

// What the check letters say, of the value's letters.
unsigned checkOf(const SecretBytes& letters) {
    unsigned rest = 0;
    for (std::size_t i = 0; i < kValueLetters; ++i)
        rest = (rest << kBits | static_cast<unsigned>(valueOf(static_cast<char>(letters[i])))) % kModulus;
    return rest;
}

void appendCheck(SecretBytes& letters) {
    const unsigned check = checkOf(letters);
    letters.push_back(static_cast<unsigned char>(kLetters[check >> kBits]));
    letters.push_back(static_cast<unsigned char>(kLetters[check % kLetters.size()]));
}

}  // namespace

SecretBytes makeRecoveryCode() {
    SecretBytes letters(kValueLetters);
    fillRandomly(letters.data(), letters.size());
    for (unsigned char& letter : letters) letter = static_cast<unsigned char>(kLetters[letter % kLetters.size()]);
    appendCheck(letters);
    SecretBytes shown;
    for (std::size_t i = 0; i < letters.size(); ++i) {
        if (i > 0 && i % kGroup == 0) shown.push_back('-');
        shown.push_back(letters[i]);
    }
    return shown;
}

std::optional<SecretBytes> recoveryCodeOf(std::string_view typed, std::string& reason) {
    SecretBytes letters;
    for (const char c : typed) {
        if (c == ' ' || c == '-' || c == '\t') continue;
        const std::size_t value = valueOf(c);
        if (value == std::string_view::npos) {
            reason = "it holds a character that is in no code";
            return std::nullopt;
        }
        letters.push_back(static_cast<unsigned char>(kLetters[value]));
    }
    if (letters.size() != kCodeLetters) {
        reason = "it has " + std::to_string(letters.size()) + " letters and digits where a code has " +
                 std::to_string(kCodeLetters);
        return std::nullopt;
    }
    SecretBytes again(letters.begin(), letters.begin() + kValueLetters);
    appendCheck(again);
    if (again == letters) return letters;
    reason = "a letter or digit of it is wrong, or two were swapped";
    return std::nullopt;
}

}  // namespace sd::security
