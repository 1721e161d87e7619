// One sealed value as text: "v1" and the base64 of key id (8 bytes), nonce (12), cipher text and tag (16); or, bound to
// the row that it stands in, "v2" and the same with the mark of that row (8) behind the key id.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/sdsecurity/key_ring.h"

namespace sd::security {

// OpenSSL counts bytes in int; a third more than this, as base64 takes, still fits. Longer values are not sealed.
constexpr std::size_t kMaxPlain = 1UL << 30U;

struct Envelope {
    bool isBound;  // to a row
    KeyId keyId;
    std::vector<unsigned char> bytes;  // everything that the base64 holds
};

// All throw CryptoFailure.

// row: which it is to be bound to, or null. Returns nothing where `plain` or the row's names are too long.
std::optional<std::string> sealEnvelope(const Key& key, const std::string& plain, const SDSecurityRow* row = nullptr);

// Takes the text apart. Any bytes are safe; nothing comes back for a text that sealEnvelope would not have written.
std::optional<Envelope> parseEnvelope(const std::string& text);

// Done, with `plain` filled; Changed; or OtherRow: it is bound, and not to `row`. row: null for none; it doesn't matter
// for an envelope that is bound to none.
SDSecurity::OpenResult openEnvelope(const Key& key, const Envelope& envelope, const SDSecurityRow* row,
                                    std::string& plain);

}  // namespace sd::security
