// What a backup needs of cryptography: a key ring sealed under a passphrase, and digests.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

struct evp_md_ctx_st;

namespace cli {

// A secret that is wiped at its end.
class SecretText {
public:
    SecretText() = default;
    explicit SecretText(std::string&& text);  // wipes what it leaves behind there
    SecretText(SecretText&& other) noexcept : SecretText(std::move(other.mText)) {}
    SecretText& operator=(SecretText&&) = delete;
    ~SecretText();

    const std::string& get() const { return mText; }

private:
    std::string mText;
};

// The passphrase is stretched by scrypt, the ring sealed by AES-256-GCM.
struct SealedRing {
    static constexpr unsigned kCost = 17;  // of a new one, as a power of two: 128 MiB of memory and half a second
    static constexpr unsigned kLeastCost = 15;
    static constexpr unsigned kMostCost = 18;  // what a hostile file may make its reader spend
    static constexpr unsigned kBlockSize = 8;
    static constexpr unsigned kParallel = 1;
    static constexpr std::size_t kSaltBytes = 16;
    static constexpr std::size_t kNonceBytes = 12;
    static constexpr std::size_t kTagBytes = 16;

    unsigned cost = kCost;
    std::string salt;
    std::string nonce;
    std::string bytes;  // as long as the ring, and the tag
};

// context: what the ring goes with; it opens beside the very same alone.
// Nothing where the system has no random bytes or too little memory.
std::optional<SealedRing> sealRing(const SecretText& ring, const SecretText& passphrase, std::string_view context);

// Nothing with another passphrase or context. sealed: its sizes and cost as above.
std::optional<SecretText> openRing(const SealedRing& sealed, const SecretText& passphrase, std::string_view context);

// SHA-256.
class Digest {
public:
    Digest();
    void add(std::string_view bytes);
    std::string hex();  // of all that was added; ends it

private:
    std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st*)> mContext;
};

std::string digestOf(std::string_view bytes);

}  // namespace cli
