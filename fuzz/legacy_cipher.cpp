// The legacy cipher on stored texts that nobody vouches for, and its round trip.

#include <algorithm>
#include <memory>
#include <vector>

#include "fuzz/support.h"
#include "sdtks/sdtks.h"

namespace {

constexpr std::size_t kPieceSize = 32;
constexpr int kBeyond = 128;
constexpr char kFill = '\x5a';

// Buffers of exactly the size that is said, so that one byte too many is noticed.
void decipherText(const std::string& text, int size) {
    const std::unique_ptr<char[]> stored(new char[text.size() + 1]);
    std::copy_n(text.c_str(), text.size() + 1, stored.get());
    std::vector<char> out(static_cast<std::size_t>(size), kFill);
    const int result = sd::SDTks::Decrypt(stored.get(), size == 0 ? stored.get() : out.data(), size);
    fuzz::expect(result == 1 || result == -1, "text is deciphered or refused");
    if (result == -1)
        fuzz::expect(std::all_of(out.begin(), out.end(), [](char c) { return c == kFill; }),
                     "a refusal leaves the buffer alone");
}

void decipherBytes(const std::string& bytes) {
    std::vector<char> in(bytes.begin(), bytes.end());
    std::vector<char> out(bytes.size());
    int length = -1;
    const bool done = sd::aes_decrypt_strong(in.data(), in.size(), out.data(), &length);
    if (!done) return fuzz::expect(length == -1, "a refusal leaves the length alone");
    fuzz::expect(length >= 0 || bytes.size() < 16, "no whole block has a negative length");
    fuzz::expect(length <= static_cast<int>(bytes.size()) + kBeyond, "the length is bounded");
}

void roundTrip(const std::string& plain) {
    const std::string piece = plain.substr(0, kPieceSize);
    std::string stored = sd::SDTks::Encrypt(piece);
    fuzz::expect(stored.empty() == piece.empty(), "any piece but an empty one is enciphered");
    fuzz::expect(plain.size() <= kPieceSize || sd::SDTks::Encrypt(plain).empty(), "more than a piece is refused");
    if (piece.empty()) return;
    std::vector<char> out(kPieceSize + 1, kFill);
    fuzz::expect(sd::SDTks::Decrypt(stored.data(), out.data(), static_cast<int>(out.size())) == 1,
                 "what was enciphered is deciphered");
    fuzz::expect(std::string(out.data(), piece.size()) == piece && out[piece.size()] == '\0',
                 "what was enciphered comes back");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::hideLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::string rest = fuzz::text(data + 1, size - 1);
    decipherText(rest, data[0]);
    decipherBytes(rest);
    roundTrip(rest);
    return 0;
}
