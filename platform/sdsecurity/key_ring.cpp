#include "platform/sdsecurity/key_ring.h"

#include <algorithm>
#include <ctime>
#include <iterator>
#include <memory>

#include "platform/sdsecurity/crypto.h"
#include "platform/sdsecurity/hex.h"
#include "platform/sdsecurity/ring_text.h"

namespace sd::security {
namespace {

constexpr std::string_view kName = "sdsecurity-keys ";
constexpr std::string_view kHeader1 = "sdsecurity-keys 1\n";
constexpr std::string_view kHeader2 = "sdsecurity-keys 2\n";
constexpr std::string_view kAnyForm = "form 1\n";
constexpr std::string_view kBoundForm = "form 2\n";
constexpr std::string_view kSum = "sum ";
constexpr std::string_view kUnknown = "-";

constexpr std::string_view kIdLabel = "sdsecurity key id v1";
constexpr std::string_view kRowMarkLabel = "sdsecurity row mark v2";
constexpr std::string_view kSumLabel = "sdsecurity ring sum v2";
constexpr std::string_view kDigestLabel = "sdsecurity digest v1";

constexpr std::size_t kIdDigits = 2 * kKeyIdSize;
constexpr std::size_t kKeyDigits = 2 * kKeySize;
constexpr std::size_t kSumLine = kSum.size() + 2 * kDigestSize + 1;
constexpr std::size_t kMaxVersion = 32;
constexpr std::size_t kMaxLine = 160;  // of a key, with all its fields at their longest

using Digest = std::array<unsigned char, kDigestSize>;

struct StateName {
    KeyState state;
    std::string_view name;
};
constexpr StateName kStates[] = {
    {KeyState::Sealing, "sealing"}, {KeyState::Opening, "opening"}, {KeyState::Disabled, "disabled"}};

void append(SecretBytes& text, std::string_view more) {
    text.insert(text.end(), more.begin(), more.end());
}

// What is derived from key material, each purpose under a label of its own.
Digest derived(std::string_view label, const SecretBytes& secret) {
    demandCrypto();
    SecretBytes labelled(label.begin(), label.end());
    labelled.insert(labelled.end(), secret.begin(), secret.end());
    Digest digest{};
    demand(openssl().EVP_Digest(labelled.data(), labelled.size(), digest.data(), nullptr, openssl().EVP_sha256(),
                                nullptr) == 1);
    return digest;
}

// The same as a key.
SecretBytes derivedKey(std::string_view label, const SecretBytes& secret, std::size_t size) {
    Digest digest = derived(label, secret);
    SecretBytes key(digest.begin(), digest.begin() + size);
    openssl().OPENSSL_cleanse(digest.data(), digest.size());
    return key;
}

const EVP_MD* fetchSha256() {
    const EVP_MD* const sha256 = openssl().EVP_MD_fetch(nullptr, "SHA256", nullptr);
    demand(sha256 != nullptr);
    openssl().ERR_clear_error();  // of another digest, which it looks at on its way
    return sha256;
}

// HMAC-SHA256 of a text that comes in pieces, none of which is kept. OpenSSL's own looks for both algorithms by their
// names each time, which takes longer than the digest of a line.
class Hmac {
public:
    // secret: of kDigestSize bytes; it has to outlive this.
    explicit Hmac(const unsigned char* secret) : mSecret(secret) {
        mContext.reset(openssl().EVP_MD_CTX_new());
        demand(mContext != nullptr);
        begin(0x36);
    }

    void add(std::string_view text) { add(text.data(), text.size()); }

    Digest take() {
        const Digest inner = end();
        begin(0x5c);
        add(inner.data(), inner.size());
        return end();
    }

private:
    // With a block of SHA-256: the secret, and zeros behind it, with each byte changed.
    void begin(unsigned char pad) {
        static const EVP_MD* const sSha256 = fetchSha256();
        std::array<unsigned char, 64> block{};
        std::copy_n(mSecret, kDigestSize, block.begin());
        for (unsigned char& byte : block) byte ^= pad;
        const bool isBegun = openssl().EVP_DigestInit_ex2(mContext.get(), sSha256, nullptr) == 1 &&
                             openssl().EVP_DigestUpdate(mContext.get(), block.data(), block.size()) == 1;
        openssl().OPENSSL_cleanse(block.data(), block.size());
        demand(isBegun);
    }
    void add(const void* bytes, std::size_t size) {
        demand(openssl().EVP_DigestUpdate(mContext.get(), bytes, size) == 1);
    }
    Digest end() {
        Digest digest{};
        demand(openssl().EVP_DigestFinal_ex(mContext.get(), digest.data(), nullptr) == 1);
        return digest;
    }

    struct Free {
        void operator()(EVP_MD_CTX* context) const { openssl().EVP_MD_CTX_free(context); }
    };
    const unsigned char* const mSecret;
    std::unique_ptr<EVP_MD_CTX, Free> mContext;
};

// Over a ring's text up to here, under all its keys: what was damaged or edited by hand shows.
Digest sumOf(const KeyRing& ring, std::string_view text) {
    SecretBytes all;
    for (const Key& key : ring.keys) all.insert(all.end(), key.bytes.begin(), key.bytes.end());
    const SecretBytes secret = derivedKey(kSumLabel, all, kDigestSize);
    Hmac sum(secret.data());
    sum.add(text);
    return sum.take();
}

bool isPlainFirst(const KeyRing& ring) {
    const auto isPlain = [](const Key& key) {
        return key.state == KeyState::Opening && key.made == 0 && key.version.empty();
    };
    const Key& last = ring.keys.back();
    return !ring.requiresBoundForm && std::all_of(ring.keys.begin(), ring.keys.end() - 1, isPlain) &&
           last.state == KeyState::Sealing && last.made == 0 && last.version.empty();
}

void appendFields(const Key& key, SecretBytes& text) {
    const auto* const state = std::find_if(std::begin(kStates), std::end(kStates),
                                           [&](const StateName& one) { return one.state == key.state; });
    append(text, state->name);
    append(text, " ");
    append(text, key.made == 0 ? std::string(kUnknown) : std::to_string(key.made));
    append(text, " ");
    append(text, key.version.empty() ? kUnknown : std::string_view(key.version));
    append(text, " ");
}

bool readState(std::string_view field, KeyState& state) {
    const auto* const found =
        std::find_if(std::begin(kStates), std::end(kStates), [&](const StateName& one) { return one.name == field; });
    if (found == std::end(kStates)) return false;
    state = found->state;
    return true;
}

bool readTime(std::string_view field, std::int64_t& seconds) {
    return field == kUnknown || readNumber(field, seconds);
}

bool readVersion(std::string_view field, std::string& version) {
    if (field == kUnknown) return true;
    version = field;
    constexpr std::string_view kCharacters = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ.+~";
    return !field.empty() && field.size() <= kMaxVersion &&
           field.find_first_not_of(kCharacters) == std::string_view::npos;
}

// Read a line of a key. Return why it can't be used, or null.
using ParseKey = const char* (*)(std::string_view line, Key& key);

const char* parseIdAndBytes(std::string_view id, std::string_view bytes, Key& key) {
    KeyId told{};
    SecretBytes secret(kKeySize);
    if (id.size() != kIdDigits || bytes.size() != kKeyDigits) return "is no key line";
    if (!readHex(id, told) || !readHex(bytes, secret)) return "is not hexadecimal";
    key = keyOf(std::move(secret));
    return key.id == told ? nullptr : "holds a key that does not match its id";
}

const char* parseKey1(std::string_view line, Key& key) {
    const std::string_view id = takeField(line);
    return parseIdAndBytes(id, line, key);
}

const char* parseKey2(std::string_view line, Key& key) {
    const std::string_view id = takeField(line);
    const std::string_view state = takeField(line);
    const std::string_view made = takeField(line);
    const std::string_view version = takeField(line);
    if (const char* why = parseIdAndBytes(id, line, key)) return why;
    if (!readState(state, key.state)) return "holds an unknown state";
    if (!readTime(made, key.made)) return "holds no time";
    return readVersion(version, key.version) ? nullptr : "holds no version";
}

// Puts the keys of the lines into the ring. first: the number of the first line. Returns why that can't be done, or "".
std::string parseKeys(std::string_view text, std::size_t first, ParseKey parse, KeyRing& ring) {
    while (!text.empty()) {
        const std::string line = "line " + std::to_string(first + ring.keys.size());
        const std::size_t end = text.find('\n');
        if (end == std::string_view::npos) return line + " is cut short";
        if (ring.keys.size() == kMaxKeys) return "it holds more than " + std::to_string(kMaxKeys) + " keys";
        Key key;
        if (const char* why = parse(text.substr(0, end), key)) return line + ' ' + why;
        if (ring.find(key.id)) return line + " repeats a key";
        ring.keys.push_back(std::move(key));
        text.remove_prefix(end + 1);
    }
    return ring.keys.empty() ? "it holds no key" : "";
}

std::string parseFormat1(std::string_view text, KeyRing& ring) {
    std::string why = parseKeys(text.substr(kHeader1.size()), 2, parseKey1, ring);
    if (why.empty()) ring.keys.back().state = KeyState::Sealing;
    return why;
}

std::string parseFormat2(std::string_view text, KeyRing& ring) {
    if (text.size() < kHeader2.size() + kAnyForm.size() + kSumLine) return "it is cut short";
    const std::string_view form = text.substr(kHeader2.size(), kAnyForm.size());
    ring.requiresBoundForm = form == kBoundForm;
    if (!ring.requiresBoundForm && form != kAnyForm) return "line 2 holds no form";
    const std::string_view summed = text.substr(0, text.size() - kSumLine);
    const std::string_view last = text.substr(summed.size());
    if (last.substr(0, kSum.size()) != kSum || last.back() != '\n' || summed.back() != '\n')
        return "its last line holds no sum";
    std::string why = parseKeys(summed.substr(kHeader2.size() + kAnyForm.size()), 3, parseKey2, ring);
    if (!why.empty()) return why;
    const auto sealing = std::count_if(ring.keys.begin(), ring.keys.end(),
                                       [](const Key& key) { return key.state == KeyState::Sealing; });
    if (sealing != 1) return sealing == 0 ? "no key of it seals" : "more than one key of it seals";
    Digest told{};
    const Digest sum = sumOf(ring, summed);
    if (!readHex(last.substr(kSum.size(), 2 * kDigestSize), told) ||
        openssl().CRYPTO_memcmp(told.data(), sum.data(), sum.size()) != 0)
        return "its sum does not fit: it was damaged or edited";
    return isPlainFirst(ring) ? "it holds nothing that takes this format" : "";
}

}  // namespace

std::string toHex(const KeyId& id) {
    std::string text;
    appendHex(id, text);
    return text;
}

std::optional<KeyId> keyIdOf(std::string_view digits) {
    KeyId id{};
    return readHex(digits, id) ? std::optional<KeyId>(id) : std::nullopt;
}

Key keyOf(SecretBytes bytes) {
    Key key;
    const Digest id = derived(kIdLabel, bytes);
    std::copy_n(id.begin(), key.id.size(), key.id.begin());
    key.rowMarkKey = derivedKey(kRowMarkLabel, bytes, kRowMarkKeySize);
    key.digestKey = derivedKey(kDigestLabel, bytes, kDigestSize);
    key.bytes = std::move(bytes);
    return key;
}

Key makeKey() {
    SecretBytes bytes(kKeySize);
    fillRandomly(bytes.data(), bytes.size());
    Key key = keyOf(std::move(bytes));
    key.state = KeyState::Sealing;
    key.made = std::time(nullptr);
    key.version = SDCONFIG_VERSION;
    return key;
}

std::string digestUnder(const Key& key, const std::vector<std::string_view>& texts) {
    Hmac digest(key.digestKey.data());
    for (const std::string_view text : texts) {
        digest.add(std::to_string(text.size()) + " ");
        digest.add(text);
    }
    std::string digits;
    appendHex(digest.take(), digits);
    return digits;
}

const Key& KeyRing::current() const {
    // From the end, where the newest stands.
    return *std::find_if(keys.rbegin(), keys.rend(), [](const Key& key) { return key.state == KeyState::Sealing; });
}

const Key* KeyRing::find(const KeyId& id) const {
    const auto found = std::find_if(keys.begin(), keys.end(), [&id](const Key& key) { return key.id == id; });
    return found == keys.end() ? nullptr : &*found;
}

void KeyRing::add(Key key) {
    for (Key& earlier : keys)
        if (earlier.state == KeyState::Sealing) earlier.state = KeyState::Opening;
    keys.push_back(std::move(key));
}

std::optional<KeyRing> parseKeyRing(std::string_view text, std::string& reason) {
    KeyRing ring;
    if (text.size() > kMaxRingText)
        reason = "it is larger than " + std::to_string(kMaxRingText) + " bytes";
    else if (text.substr(0, kHeader1.size()) == kHeader1)
        reason = parseFormat1(text, ring);
    else if (text.substr(0, kHeader2.size()) == kHeader2)
        reason = parseFormat2(text, ring);
    else if (text.substr(0, kName.size()) == kName)
        reason = "it is in a format of a later version";
    else
        reason = "its first line is not that of a key ring";
    return reason.empty() ? std::optional<KeyRing>(std::move(ring)) : std::nullopt;
}

SecretBytes formatKeyRing(const KeyRing& ring) {
    const bool first = ring.keys.empty() || isPlainFirst(ring);
    SecretBytes text;
    text.reserve(kHeader2.size() + kAnyForm.size() + ring.keys.size() * kMaxLine + kSumLine);
    append(text, first ? kHeader1 : kHeader2);
    if (!first) append(text, ring.requiresBoundForm ? kBoundForm : kAnyForm);
    for (const Key& key : ring.keys) {
        appendHex(key.id, text);
        append(text, " ");
        if (!first) appendFields(key, text);
        appendHex(key.bytes, text);
        append(text, "\n");
    }
    if (first) return text;
    const Digest sum = sumOf(ring, viewOf(text));
    append(text, kSum);
    appendHex(sum, text);
    append(text, "\n");
    return text;
}

}  // namespace sd::security
