#include "platform/sdsecurity/key_ring.h"

#include <algorithm>

#include "platform/sdsecurity/crypto.h"

namespace sd::security {
namespace {

constexpr std::string_view kHeader = "sdsecurity-keys 1\n";
constexpr std::string_view kIdLabel = "sdsecurity key id v1";
constexpr std::string_view kDigits = "0123456789abcdef";
constexpr std::size_t kKeyAt = 2 * kKeyIdSize + 1;
constexpr std::size_t kLineSize = kKeyAt + 2 * kKeySize;

template <class Bytes, class Text>
void appendHex(const Bytes& bytes, Text& text) {
    for (const unsigned char byte : bytes) {
        text.push_back(static_cast<typename Text::value_type>(kDigits[byte >> 4U]));
        text.push_back(static_cast<typename Text::value_type>(kDigits[byte & 0xfU]));
    }
}

// `text` holds two digits a byte of `bytes`; lower case only, so that a ring has one text.
template <class Bytes>
bool readHex(std::string_view text, Bytes& bytes) {
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const std::size_t high = kDigits.find(text[2 * i]);
        const std::size_t low = kDigits.find(text[2 * i + 1]);
        if (high == std::string_view::npos || low == std::string_view::npos) return false;
        bytes[i] = static_cast<unsigned char>(high << 4U | low);
    }
    return true;
}

KeyId idOf(const SecretBytes& key) {
    demandCrypto();
    SecretBytes labelled(kIdLabel.begin(), kIdLabel.end());
    labelled.insert(labelled.end(), key.begin(), key.end());
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    demand(openssl().EVP_Digest(labelled.data(), labelled.size(), digest.data(), nullptr, openssl().EVP_sha256(),
                                nullptr) == 1);
    KeyId id{};
    std::copy_n(digest.begin(), id.size(), id.begin());
    return id;
}

// Returns why the line can't be used, or null.
const char* parseKey(std::string_view line, Key& key) {
    if (line.size() != kLineSize || line[2 * kKeyIdSize] != ' ') return "is no key line";
    if (!readHex(line, key.id) || !readHex(line.substr(kKeyAt), key.bytes)) return "is not hexadecimal";
    return idOf(key.bytes) == key.id ? nullptr : "holds a key that does not match its id";
}

}  // namespace

std::string toHex(const KeyId& id) {
    std::string text;
    appendHex(id, text);
    return text;
}

Key makeKey() {
    Key key{{}, SecretBytes(kKeySize)};
    fillRandomly(key.bytes.data(), key.bytes.size());
    key.id = idOf(key.bytes);
    return key;
}

const Key* KeyRing::find(const KeyId& id) const {
    const auto found = std::find_if(keys.begin(), keys.end(), [&id](const Key& key) { return key.id == id; });
    return found == keys.end() ? nullptr : &*found;
}

std::optional<KeyRing> parseKeyRing(std::string_view text, std::string& reason) {
    const auto fail = [&reason](const std::string& why) {
        reason = why;
        return std::nullopt;
    };
    if (text.size() > kMaxRingText) return fail("it is larger than " + std::to_string(kMaxRingText) + " bytes");
    if (text.substr(0, kHeader.size()) != kHeader) return fail("its first line is not that of a key ring");
    KeyRing ring;
    for (text.remove_prefix(kHeader.size()); !text.empty();) {
        const std::string line = "line " + std::to_string(ring.keys.size() + 2);
        const std::size_t end = text.find('\n');
        if (end == std::string_view::npos) return fail(line + " is cut short");
        Key key{{}, SecretBytes(kKeySize)};
        if (const char* why = parseKey(text.substr(0, end), key)) return fail(line + ' ' + why);
        if (ring.find(key.id)) return fail(line + " repeats a key");
        ring.keys.push_back(std::move(key));
        text.remove_prefix(end + 1);
    }
    if (ring.keys.empty()) return fail("it holds no key");
    return ring;
}

SecretBytes formatKeyRing(const KeyRing& ring) {
    SecretBytes text(kHeader.begin(), kHeader.end());
    text.reserve(kHeader.size() + ring.keys.size() * (kLineSize + 1));
    for (const Key& key : ring.keys) {
        appendHex(key.id, text);
        text.push_back(' ');
        appendHex(key.bytes, text);
        text.push_back('\n');
    }
    return text;
}

}  // namespace sd::security
