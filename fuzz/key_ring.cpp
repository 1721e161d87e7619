// Key rings: hostile texts, and sound ones with one change.
#include "platform/sdsecurity/key_ring.h"

#include <openssl/evp.h>

#include <algorithm>

#include "fuzz/support.h"

namespace {

using sd::security::KeyRing;
using sd::security::KeyState;
using sd::security::kKeySize;
using sd::security::kMaxKeys;

constexpr char kIdLabel[] = "sdsecurity key id v1";

// A ring of what the bytes hold, of either format. The key ids are computed apart from the layer.
KeyRing ringOf(const std::string& bytes) {
    KeyRing ring;
    constexpr std::size_t kEach = kKeySize + 2;
    for (std::size_t at = 0; at + kEach <= bytes.size() && ring.keys.size() < kMaxKeys; at += kEach) {
        const std::string raw = bytes.substr(at, kKeySize);
        const std::string labelled = kIdLabel + raw;
        std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
        ::EVP_Digest(labelled.data(), labelled.size(), digest.data(), nullptr, ::EVP_sha256(), nullptr);
        sd::security::Key key = sd::security::keyOf({raw.begin(), raw.end()});
        fuzz::expect(std::equal(key.id.begin(), key.id.end(), digest.begin()), "an id is a digest of its key");
        const unsigned state = static_cast<unsigned char>(bytes[at + kKeySize]) % 4U;
        if (state == 1) key.state = KeyState::Disabled;
        key.made = static_cast<unsigned char>(bytes[at + kKeySize + 1]);
        if (state == 2) key.version = "1.1.0~rc1";
        if (state == 3) ring.requiresBoundForm = true;
        if (!ring.find(key.id)) ring.keys.push_back(std::move(key));
    }
    if (!ring.keys.empty()) ring.keys[bytes.size() % ring.keys.size()].state = KeyState::Sealing;
    return ring;
}

bool same(const KeyRing& one, const KeyRing& other) {
    return one.requiresBoundForm == other.requiresBoundForm &&
           std::equal(one.keys.begin(), one.keys.end(), other.keys.begin(), other.keys.end(),
                      [](const auto& a, const auto& b) {
                          return a.id == b.id && a.bytes == b.bytes && a.state == b.state && a.made == b.made &&
                                 a.version == b.version;
                      });
}

std::string textOf(const KeyRing& ring) {
    const auto text = sd::security::formatKeyRing(ring);
    return {text.begin(), text.end()};
}

void parse(const std::string& text) {
    std::string reason;
    const auto ring = sd::security::parseKeyRing(text, reason);
    if (ring) {
        fuzz::expect(ring->current().state == KeyState::Sealing, "one key seals");
        return fuzz::expect(textOf(*ring) == text, "a ring has one text");
    }
    fuzz::expect(!reason.empty() && reason.size() < 80, "a refusal has a short reason");
}

void roundTrip(const KeyRing& ring, std::size_t at, char byte) {
    std::string text = textOf(ring);
    std::string reason;
    const auto again = sd::security::parseKeyRing(text, reason);
    fuzz::expect(again.has_value() != ring.keys.empty(), "a ring that was written can be read");
    if (!again) return;
    fuzz::expect(same(*again, ring), "a ring is read as it was written");
    for (const auto& key : ring.keys) fuzz::expect(again->find(key.id) != nullptr, "each key is found by its id");
    at %= text.size();
    if (text[at] == byte) return;
    text[at] = byte;
    fuzz::expect(!sd::security::parseKeyRing(text, reason), "a changed ring is refused");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string bytes = fuzz::text(data, size);
    parse(bytes);
    for (const char* header : {"sdsecurity-keys 1\n", "sdsecurity-keys 2\nform 1\n"}) parse(header + bytes);
    if (size >= 3) roundTrip(ringOf(bytes.substr(3)), std::size_t{data[0]} << 8U | data[1], static_cast<char>(data[2]));
    return 0;
}
