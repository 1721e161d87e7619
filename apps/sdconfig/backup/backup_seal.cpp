#include "apps/sdconfig/backup/backup_seal.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <array>
#include <cstdint>

#include "apps/sdconfig/backup/hex.h"

namespace cli {

namespace {

constexpr std::size_t kKeyBytes = 32;

using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, decltype(&::EVP_CIPHER_CTX_free)>;

unsigned char* bytesOf(std::string& text) {
    return reinterpret_cast<unsigned char*>(text.data());
}

const unsigned char* bytesOf(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

void wipe(std::string& text) {
    text.resize(text.capacity());
    ::OPENSSL_cleanse(text.data(), text.size());
    text.clear();
}

std::optional<std::string> randomBytes(std::size_t count) {
    std::string bytes(count, '\0');
    if (::RAND_bytes(bytesOf(bytes), static_cast<int>(count)) != 1) return std::nullopt;
    return bytes;
}

std::optional<SecretText> stretch(const SecretText& passphrase, const SealedRing& sealed) {
    const std::uint64_t n = std::uint64_t{1} << sealed.cost;
    const std::uint64_t memory = std::uint64_t{256} * n * SealedRing::kBlockSize;  // twice what it takes
    std::string key(kKeyBytes, '\0');
    const int done =
        ::EVP_PBE_scrypt(passphrase.get().data(), passphrase.get().size(), bytesOf(sealed.salt), sealed.salt.size(), n,
                         SealedRing::kBlockSize, SealedRing::kParallel, memory, bytesOf(key), key.size());
    SecretText secret(std::move(key));
    if (done != 1) return std::nullopt;
    return secret;
}

// Enciphers, or deciphers, under the context. One direction's calls are the other's but for the last.
class Gcm {
public:
    enum class Direction { Open, Seal };

    Gcm(Direction direction, const SecretText& key, const std::string& nonce, std::string_view context) {
        int ignored = 0;
        mSound = mCipher &&
                 ::EVP_CipherInit_ex(mCipher.get(), ::EVP_aes_256_gcm(), nullptr, bytesOf(key.get()), bytesOf(nonce),
                                     direction == Direction::Seal ? 1 : 0) == 1 &&
                 ::EVP_CipherUpdate(mCipher.get(), nullptr, &ignored, bytesOf(context),
                                    static_cast<int>(context.size())) == 1;
    }

    std::string pass(std::string_view input) {
        std::string output(input.size(), '\0');
        int length = 0;
        mSound = mSound && ::EVP_CipherUpdate(mCipher.get(), bytesOf(output), &length, bytesOf(input),
                                              static_cast<int>(input.size())) == 1;
        return output;
    }

    // After all input. False where the tag doesn't fit.
    bool finish() {
        std::array<unsigned char, 16> nothing{};
        int length = 0;
        return mSound && ::EVP_CipherFinal_ex(mCipher.get(), nothing.data(), &length) == 1;
    }

    std::string tag() {
        std::string tag(SealedRing::kTagBytes, '\0');
        (void)::EVP_CIPHER_CTX_ctrl(mCipher.get(), EVP_CTRL_GCM_GET_TAG, static_cast<int>(tag.size()), tag.data());
        return tag;
    }

    void expectTag(std::string tag) {
        mSound = mSound && ::EVP_CIPHER_CTX_ctrl(mCipher.get(), EVP_CTRL_GCM_SET_TAG, static_cast<int>(tag.size()),
                                                 tag.data()) == 1;
    }

private:
    CipherContext mCipher{::EVP_CIPHER_CTX_new(), &::EVP_CIPHER_CTX_free};
    bool mSound = false;
};

}  // namespace

SecretText::SecretText(std::string&& text) {
    mText.swap(text);
    wipe(text);
}

SecretText::~SecretText() {
    wipe(mText);
}

std::optional<SealedRing> sealRing(const SecretText& ring, const SecretText& passphrase, std::string_view context) {
    const auto salt = randomBytes(SealedRing::kSaltBytes);
    const auto nonce = randomBytes(SealedRing::kNonceBytes);
    if (!salt || !nonce) return std::nullopt;
    SealedRing sealed{SealedRing::kCost, *salt, *nonce, ""};
    const auto key = stretch(passphrase, sealed);
    if (!key) return std::nullopt;
    Gcm gcm(Gcm::Direction::Seal, *key, sealed.nonce, context);
    sealed.bytes = gcm.pass(ring.get());
    if (!gcm.finish()) return std::nullopt;
    sealed.bytes += gcm.tag();
    return sealed;
}

std::optional<SecretText> openRing(const SealedRing& sealed, const SecretText& passphrase, std::string_view context) {
    const auto key = stretch(passphrase, sealed);
    if (!key) return std::nullopt;
    const std::size_t length = sealed.bytes.size() - SealedRing::kTagBytes;
    Gcm gcm(Gcm::Direction::Open, *key, sealed.nonce, context);
    gcm.expectTag(sealed.bytes.substr(length));
    SecretText ring(gcm.pass(std::string_view(sealed.bytes).substr(0, length)));
    if (!gcm.finish()) return std::nullopt;
    return ring;
}

Digest::Digest() : mContext(::EVP_MD_CTX_new(), &::EVP_MD_CTX_free) {
    (void)::EVP_DigestInit_ex(mContext.get(), ::EVP_sha256(), nullptr);
}

void Digest::add(std::string_view bytes) {
    (void)::EVP_DigestUpdate(mContext.get(), bytes.data(), bytes.size());
}

std::string Digest::hex() {
    std::string digest(EVP_MAX_MD_SIZE, '\0');
    unsigned length = 0;
    (void)::EVP_DigestFinal_ex(mContext.get(), bytesOf(digest), &length);
    digest.resize(length);
    return toHex(digest);
}

std::string digestOf(std::string_view bytes) {
    Digest digest;
    digest.add(bytes);
    return digest.hex();
}

}  // namespace cli
