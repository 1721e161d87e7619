#include "trail/chain.h"

#include <openssl/err.h>
#include <openssl/evp.h>

#include <array>
#include <charconv>

#include "base/shared_library.h"

namespace sd::trail {

namespace {

struct OpenSslApi {
    const SharedLibrary library{OPENSSL_SONAME};
    LOADED(library, EVP_MD_fetch);
    LOADED(library, EVP_Digest);
    LOADED(library, ERR_clear_error);
};

const OpenSslApi& openssl() {
    static const OpenSslApi sApi;
    return sApi;
}

const EVP_MD* fetchSha256() {
    const EVP_MD* const sha256 = openssl().EVP_MD_fetch(nullptr, "SHA256", nullptr);
    openssl().ERR_clear_error();  // of another digest, too, which it looks at on its way
    if (sha256) return sha256;
    throw LibraryFailure("libcrypto has no SHA-256");
}

constexpr std::string_view kHeadBeginning = "trail-1-";
constexpr std::string_view kPurpose = "trail entry";
constexpr std::string_view kMacField = R"(,"mac":")";
constexpr std::string_view kEnd = R"("})";
constexpr std::size_t kMacDigits = 32;
constexpr std::size_t kLineDigits = 64;

std::string macOf(std::string_view attested, const std::string& ring, const Digest& digest) {
    return digest ? digest(ring, {kPurpose, attested}).substr(0, kMacDigits) : "";
}

bool isHex(std::string_view text) {
    return text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

}  // namespace

std::string headText(const Head& head) {
    return std::string(kHeadBeginning) + std::to_string(head.seq) + "-" + head.digest;
}

std::optional<Head> headOf(std::string_view text) {
    if (text.substr(0, kHeadBeginning.size()) != kHeadBeginning) return std::nullopt;
    text.remove_prefix(kHeadBeginning.size());
    Head head;
    const char* const end = text.data() + text.size();
    const auto [at, failure] = std::from_chars(text.data(), end, head.seq);
    if (failure != std::errc() || at == end || *at != '-') return std::nullopt;
    const std::string_view digits(at + 1, static_cast<std::size_t>(end - at - 1));
    if (digits.size() != kLineDigits || !isHex(digits)) return std::nullopt;
    head.digest = digits;
    return head;
}

std::string lineDigest(std::string_view line) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    unsigned size = 0;
    static const EVP_MD* const sSha256 = fetchSha256();  // to look for it takes as long as a line's digest
    if (openssl().EVP_Digest(line.data(), line.size(), bytes.data(), &size, sSha256, nullptr) != 1) {
        openssl().ERR_clear_error();
        throw LibraryFailure("libcrypto makes no SHA-256");
    }
    std::string text;
    text.reserve(kLineDigits);
    for (unsigned i = 0; i < size; ++i) (text += kHex[bytes[i] >> 4]) += kHex[bytes[i] & 15];
    return text;
}

std::string sealedLine(Entry& entry, const Digest& digest) {
    std::string line = composeLine(entry);
    entry.mac = macOf(line, entry.ring, digest);
    if (entry.mac.empty()) return "";
    return line.append(kMacField).append(entry.mac).append(kEnd);
}

std::optional<bool> isAttested(std::string_view line, const Entry& entry, const Digest& digest) {
    const std::string ending = std::string(kMacField).append(entry.mac).append(kEnd);
    if (line.size() < ending.size() || line.substr(line.size() - ending.size()) != ending) return false;
    const std::string mac = macOf(line.substr(0, line.size() - ending.size()), entry.ring, digest);
    if (mac.empty()) return std::nullopt;
    return mac == entry.mac;
}

}  // namespace sd::trail
