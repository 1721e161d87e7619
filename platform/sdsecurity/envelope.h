// One sealed value as text: "v1" and the base64 of key id (8 bytes), nonce (12), cipher text and tag (16).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/sdsecurity/key_ring.h"

namespace sd::security {

// OpenSSL counts bytes in int; a third more than this, as base64 takes, still fits. Longer values are not sealed.
constexpr std::size_t kMaxPlain = 1UL << 30U;

struct Envelope {
    KeyId keyId;
    std::vector<unsigned char> bytes;  // everything that the base64 holds
};

// All throw CryptoFailure.

// Returns nothing where `plain` is too long.
std::optional<std::string> sealEnvelope(const Key& key, const std::string& plain);

// Takes the text apart. Any bytes are safe; nothing comes back for a text that sealEnvelope would not have written.
std::optional<Envelope> parseEnvelope(const std::string& text);

// Returns nothing where a bit of the envelope was changed or `key` did not seal it.
std::optional<std::string> openEnvelope(const Key& key, const Envelope& envelope);

}  // namespace sd::security
