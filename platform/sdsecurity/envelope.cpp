#include "platform/sdsecurity/envelope.h"

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>

#include "platform/sdsecurity/crypto.h"

namespace sd::security {
namespace {

constexpr std::string_view kVersion = "v1";
constexpr std::size_t kNonceSize = 12;
constexpr std::size_t kTagSize = 16;
constexpr std::size_t kTextAt = kKeyIdSize + kNonceSize;
constexpr std::size_t kFrameSize = kTextAt + kTagSize;

constexpr std::size_t base64Size(std::size_t size) {
    return (size + 2) / 3 * 4;
}

struct FreeContext {
    void operator()(EVP_CIPHER_CTX* context) const { openssl().EVP_CIPHER_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_CIPHER_CTX, FreeContext>;

// What the tag covers besides the cipher text: an envelope can't pass for one of another version or key.
std::array<unsigned char, kVersion.size() + kKeyIdSize> associatedData(const KeyId& id) {
    std::array<unsigned char, kVersion.size() + kKeyIdSize> data{};
    std::copy(id.begin(), id.end(), std::copy(kVersion.begin(), kVersion.end(), data.begin()));
    return data;
}

std::string toText(const std::vector<unsigned char>& bytes) {
    std::string text(kVersion.size() + base64Size(bytes.size()), '\0');
    kVersion.copy(text.data(), kVersion.size());
    openssl().EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data() + kVersion.size()), bytes.data(),
                              static_cast<int>(bytes.size()));
    return text;
}

// Fills `bytes`, three for each four characters behind the version, and drops what is padding.
// OpenSSL's decoder trims blanks, which tells by its length, and takes padding anywhere and stray bits in the last
// group of characters; one value shall have one text.
bool fromBase64(const std::string& text, std::vector<unsigned char>& bytes) {
    const auto* const base64 = reinterpret_cast<const unsigned char*>(text.data() + kVersion.size());
    const auto size = static_cast<int>(bytes.size());
    if (openssl().EVP_DecodeBlock(bytes.data(), base64, size / 3 * 4) != size) return false;
    const std::size_t padding = text.size() - std::min(text.find('='), text.size());
    if (padding > 2) return false;
    bytes.resize(bytes.size() - padding);
    const std::size_t last = 3 - padding;
    std::array<unsigned char, 5> group{};
    openssl().EVP_EncodeBlock(group.data(), bytes.data() + bytes.size() - last, static_cast<int>(last));
    return std::equal(group.begin(), group.end() - 1, text.end() - 4, text.end(),
                      [](unsigned char one, char other) { return one == static_cast<unsigned char>(other); });
}

}  // namespace

std::optional<std::string> sealEnvelope(const Key& key, const std::string& plain) {
    if (plain.size() > kMaxPlain) return std::nullopt;
    demandCrypto();
    std::vector<unsigned char> bytes(kFrameSize + plain.size());
    std::copy(key.id.begin(), key.id.end(), bytes.begin());
    unsigned char* const nonce = bytes.data() + kKeyIdSize;
    unsigned char* const text = bytes.data() + kTextAt;
    fillRandomly(nonce, kNonceSize);
    const auto data = associatedData(key.id);
    const Context context(openssl().EVP_CIPHER_CTX_new());
    int length = 0;
    demand(context != nullptr);
    demand(openssl().EVP_EncryptInit_ex2(context.get(), sealingCipher(), key.bytes.data(), nonce, nullptr) == 1);
    demand(openssl().EVP_EncryptUpdate(context.get(), nullptr, &length, data.data(), static_cast<int>(data.size())) ==
           1);
    demand(openssl().EVP_EncryptUpdate(context.get(), text, &length,
                                       reinterpret_cast<const unsigned char*>(plain.data()),
                                       static_cast<int>(plain.size())) == 1);
    demand(openssl().EVP_EncryptFinal_ex(context.get(), text + plain.size(), &length) == 1);
    demand(openssl().EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, static_cast<int>(kTagSize),
                                         text + plain.size()) == 1);
    return toText(bytes);
}

std::optional<Envelope> parseEnvelope(const std::string& text) {
    if (text.compare(0, kVersion.size(), kVersion) != 0) return std::nullopt;
    const std::size_t size = text.size() - kVersion.size();
    if (size % 4 != 0 || size < base64Size(kFrameSize) || size > base64Size(kFrameSize + kMaxPlain))
        return std::nullopt;
    Envelope envelope{{}, std::vector<unsigned char>(size / 4 * 3)};
    if (!fromBase64(text, envelope.bytes) || envelope.bytes.size() < kFrameSize) return std::nullopt;
    std::copy_n(envelope.bytes.begin(), kKeyIdSize, envelope.keyId.begin());
    return envelope;
}

std::optional<std::string> openEnvelope(const Key& key, const Envelope& envelope) {
    demandCrypto();
    const unsigned char* const nonce = envelope.bytes.data() + kKeyIdSize;
    const unsigned char* const text = envelope.bytes.data() + kTextAt;
    std::string plain(envelope.bytes.size() - kFrameSize, '\0');
    auto* const out = reinterpret_cast<unsigned char*>(plain.data());
    std::array<unsigned char, kTagSize> tag{};
    std::copy_n(text + plain.size(), tag.size(), tag.begin());
    const auto data = associatedData(envelope.keyId);
    const Context context(openssl().EVP_CIPHER_CTX_new());
    int length = 0;
    demand(context != nullptr);
    demand(openssl().EVP_DecryptInit_ex2(context.get(), sealingCipher(), key.bytes.data(), nonce, nullptr) == 1);
    demand(openssl().EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(tag.size()),
                                         tag.data()) == 1);
    demand(openssl().EVP_DecryptUpdate(context.get(), nullptr, &length, data.data(), static_cast<int>(data.size())) ==
           1);
    demand(openssl().EVP_DecryptUpdate(context.get(), out, &length, text, static_cast<int>(plain.size())) == 1);
    if (openssl().EVP_DecryptFinal_ex(context.get(), out + plain.size(), &length) == 1) return plain;
    // The tag does not fit: what stands there was decrypted but is not what was sealed.
    openssl().OPENSSL_cleanse(plain.data(), plain.size());
    return std::nullopt;
}

}  // namespace sd::security
