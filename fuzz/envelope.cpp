// Envelopes: hostile texts, and that what was sealed opens, whole and under its key alone.
#include "platform/sdsecurity/envelope.h"

#include <openssl/evp.h>

#include <algorithm>

#include "fuzz/support.h"

namespace {

using sd::SDSecurityRow;
using sd::security::Key;
using OpenResult = sd::SDSecurity::OpenResult;

const SDSecurityRow kRow{"sdconfig.db", "secure_v3", "key"};

bool opens(const Key& key, const sd::security::Envelope& envelope, const SDSecurityRow* row,
           const std::string& wanted) {
    std::string plain;
    return sd::security::openEnvelope(key, envelope, row, plain) == OpenResult::Done && plain == wanted;
}

bool isRefused(const Key& key, const sd::security::Envelope& envelope, const SDSecurityRow* row) {
    std::string plain;
    return sd::security::openEnvelope(key, envelope, row, plain) != OpenResult::Done && plain.empty();
}

void parseForeign(const Key& key, const std::string& text) {
    const auto envelope = sd::security::parseEnvelope(text);
    if (!envelope) return;
    std::string again((envelope->bytes.size() + 2) / 3 * 4 + 1, '\0');
    auto* const base64 = reinterpret_cast<unsigned char*>(again.data());
    again.resize(static_cast<std::size_t>(
        ::EVP_EncodeBlock(base64, envelope->bytes.data(), static_cast<int>(envelope->bytes.size()))));
    fuzz::expect((envelope->isBound ? "v2" : "v1") + again == text, "an envelope has one text");
    fuzz::expect(std::equal(envelope->keyId.begin(), envelope->keyId.end(), envelope->bytes.begin()),
                 "the key's id stands first");
    fuzz::expect(isRefused(key, *envelope, &kRow) && isRefused(key, *envelope, nullptr),
                 "a key that never sealed opens nothing");
}

void damaged(const Key& key, const SDSecurityRow* row, std::string text, std::size_t at, char byte) {
    at %= text.size();
    if (text[at] == byte) return;
    text[at] = byte;
    const auto envelope = sd::security::parseEnvelope(text);
    fuzz::expect(!envelope || isRefused(key, *envelope, row), "a changed envelope does not open");
}

// The bytes as a row: the first ones say how they are shared out.
SDSecurityRow rowOf(const std::string& bytes) {
    const std::string_view all = bytes;
    if (all.size() < 2) return {all, {}, {}};
    const std::size_t first = static_cast<unsigned char>(all[0]) % all.size();
    const std::size_t second = static_cast<unsigned char>(all[1]) % (all.size() - first);
    return {all.substr(0, first), all.substr(first, second), all.substr(first + second)};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static const auto sKey = sd::security::makeKey();
    static const auto sOther = sd::security::makeKey();
    const std::string bytes = fuzz::text(data, size);
    // A fuzzer that watches comparisons hands back what the first key sealed.
    for (const char* version : {"", "v1", "v2"}) parseForeign(sOther, version + bytes);

    const SDSecurityRow foreign = rowOf(bytes);
    const bool isSame = foreign.database == kRow.database && foreign.table == kRow.table;
    const SDSecurityRow* const rows[] = {nullptr, &kRow, &foreign};
    for (const SDSecurityRow* row : rows) {
        const auto sealed = sd::security::sealEnvelope(sKey, bytes, row);
        fuzz::expect(sealed.has_value(), "any bytes can be sealed");
        const auto envelope = sd::security::parseEnvelope(*sealed);
        fuzz::expect(envelope && envelope->keyId == sKey.id && envelope->isBound == (row != nullptr),
                     "what was sealed is an envelope of its key and form");
        for (const SDSecurityRow* other : rows) {
            if (!row || other == row)
                fuzz::expect(opens(sKey, *envelope, other, bytes), "what was sealed opens");
            else if (!other || !isSame)
                fuzz::expect(isRefused(sKey, *envelope, other), "another row does not open it");
        }
        fuzz::expect(isRefused(sOther, *envelope, row), "another key does not open it");
        if (size >= 3) damaged(sKey, row, *sealed, std::size_t{data[0]} << 8U | data[1], static_cast<char>(data[2]));
    }
    return 0;
}
