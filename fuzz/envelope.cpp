// Envelopes: hostile texts, and that what was sealed opens, whole and under its key alone.
#include "platform/sdsecurity/envelope.h"

#include <openssl/evp.h>

#include <algorithm>

#include "fuzz/support.h"

namespace {

using sd::security::Key;

void parseForeign(const Key& key, const std::string& text) {
    const auto envelope = sd::security::parseEnvelope(text);
    if (!envelope) return;
    std::string again(2 + (envelope->bytes.size() + 2) / 3 * 4 + 1, '\0');
    auto* const base64 = reinterpret_cast<unsigned char*>(again.data() + 2);
    again.resize(2 + static_cast<std::size_t>(
                         ::EVP_EncodeBlock(base64, envelope->bytes.data(), static_cast<int>(envelope->bytes.size()))));
    fuzz::expect("v1" + again.substr(2) == text, "an envelope has one text");
    fuzz::expect(std::equal(envelope->keyId.begin(), envelope->keyId.end(), envelope->bytes.begin()),
                 "the key's id stands first");
    fuzz::expect(!sd::security::openEnvelope(key, *envelope), "a key that never sealed opens nothing");
}

void damaged(const Key& key, std::string text, std::size_t at, char byte) {
    if (text[at] == byte) return;
    text[at] = byte;
    const auto envelope = sd::security::parseEnvelope(text);
    fuzz::expect(!envelope || !sd::security::openEnvelope(key, *envelope), "a changed envelope does not open");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static const auto sKey = sd::security::makeKey();
    static const auto sOther = sd::security::makeKey();
    const std::string bytes = fuzz::text(data, size);
    // A fuzzer that watches comparisons hands back what the first key sealed.
    parseForeign(sOther, bytes);
    parseForeign(sOther, "v1" + bytes);

    const auto sealed = sd::security::sealEnvelope(sKey, bytes);
    fuzz::expect(sealed.has_value(), "any bytes can be sealed");
    const auto envelope = sd::security::parseEnvelope(*sealed);
    fuzz::expect(envelope && envelope->keyId == sKey.id, "what was sealed is an envelope of its key");
    fuzz::expect(sd::security::openEnvelope(sKey, *envelope) == bytes, "what was sealed opens");
    fuzz::expect(!sd::security::openEnvelope(sOther, *envelope), "another key does not open it");
    if (size >= 3)
        damaged(sKey, *sealed, (std::size_t{data[0]} << 8U | data[1]) % sealed->size(), static_cast<char>(data[2]));
    return 0;
}
