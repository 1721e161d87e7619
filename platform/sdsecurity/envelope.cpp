#include "platform/sdsecurity/envelope.h"

#include <endian.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <string_view>

#include "base/sip_hash.h"
#include "platform/sdsecurity/crypto.h"

namespace sd::security {
namespace {

using OpenResult = SDSecurity::OpenResult;

constexpr std::string_view kUnbound = "v1";
constexpr std::string_view kBound = "v2";
constexpr std::size_t kVersionSize = kBound.size();
constexpr std::size_t kMarkSize = sizeof(std::uint64_t);

// Where the parts of an envelope stand.
struct Frame {
    explicit Frame(bool isBound) : nonceAt(kKeyIdSize + (isBound ? kMarkSize : 0)) {}

    const std::size_t nonceAt;
    const std::size_t textAt = nonceAt + kNonceSize;
    const std::size_t size = textAt + kTagSize;  // with a text of no bytes
};

constexpr std::size_t base64Size(std::size_t size) {
    return (size + 2) / 3 * 4;
}

using RowMark = std::array<unsigned char, kMarkSize>;

// What the tag covers besides the cipher text, so that an envelope can't pass for one of another version, key or row:
// the version, the key's id, and for a row its mark and its names, each with its length before it, so that no two rows
// have the same. On the stack, as long as the names are of the usual length: a value costs little more time to seal.
class AssociatedData {
public:
    AssociatedData(const KeyId& id, const SDSecurityRow* row) {
        if (row) mSize = kNamesAt + 3 * kLengthSize + row->database.size() + row->table.size() + row->key.size();
        if (mSize > mShort.size()) mLong.resize(mSize);
        mData = mLong.empty() ? mShort.data() : mLong.data();
        (row ? kBound : kUnbound).copy(mData, kVersionSize);
        std::copy(id.begin(), id.end(), mData + kVersionSize);
        if (!row) return;
        char* at = mData + kNamesAt;
        for (const std::string_view name : {row->database, row->table, row->key}) {
            const std::uint64_t length = ::htobe64(name.size());
            std::memcpy(at, &length, kLengthSize);
            name.copy(at + kLengthSize, name.size());
            at += kLengthSize + name.size();
        }
        // As the key's column compares, so that a row has one name in whatever letter case it is asked for.
        for (char* c = at - row->key.size(); c != at; ++c)
            if (*c >= 'A' && *c <= 'Z') *c = static_cast<char>(*c - 'A' + 'a');
    }
    AssociatedData(const AssociatedData&) = delete;
    AssociatedData& operator=(const AssociatedData&) = delete;

    const unsigned char* data() const { return reinterpret_cast<const unsigned char*>(mData); }
    std::size_t size() const { return mSize; }
    std::string_view names() const { return {mData + kNamesAt, mSize - kNamesAt}; }
    void setMark(const unsigned char* mark) { std::copy_n(mark, kMarkSize, mData + kMarkAt); }

private:
    static constexpr std::size_t kMarkAt = kVersionSize + kKeyIdSize;
    static constexpr std::size_t kNamesAt = kMarkAt + kMarkSize;
    static constexpr std::size_t kLengthSize = sizeof(std::uint64_t);

    std::array<char, 256> mShort;
    std::string mLong;
    char* mData;
    std::size_t mSize = kMarkAt;
};

// Tells an envelope of another row from a changed one, which the tag alone can't; it protects nothing.
RowMark rowMark(const Key& key, const AssociatedData& data) {
    const std::string_view words(reinterpret_cast<const char*>(key.rowMarkKey.data()), key.rowMarkKey.size());
    const std::uint64_t hash =
        ::htole64(sipHash({sipWord(words.substr(0, 8)), sipWord(words.substr(8))}, data.names()));
    RowMark mark{};
    std::memcpy(mark.data(), &hash, mark.size());
    return mark;
}

std::string toText(std::string_view version, const std::vector<unsigned char>& bytes) {
    std::string text(kVersionSize + base64Size(bytes.size()), '\0');
    version.copy(text.data(), kVersionSize);
    openssl().EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data() + kVersionSize), bytes.data(),
                              static_cast<int>(bytes.size()));
    return text;
}

// Fills `bytes`, three for each four characters behind the version, and drops what is padding.
// OpenSSL's decoder trims blanks, which tells by its length, and takes padding anywhere and stray bits in the last
// group of characters; one value shall have one text.
bool fromBase64(const std::string& text, std::vector<unsigned char>& bytes) {
    const auto* const base64 = reinterpret_cast<const unsigned char*>(text.data() + kVersionSize);
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

// False where the tag does not fit.
bool open(const Key& key, const Envelope& envelope, const AssociatedData& data, std::string& plain) {
    const Frame frame(envelope.isBound);
    const unsigned char* const bytes = envelope.bytes.data();
    std::string opened(envelope.bytes.size() - frame.size, '\0');
    if (!decrypt(key.bytes.data(), bytes + frame.nonceAt, {data.data(), data.size()},
                 {bytes + frame.textAt, opened.size() + kTagSize}, reinterpret_cast<unsigned char*>(opened.data())))
        return false;
    plain = std::move(opened);
    return true;
}

}  // namespace

std::optional<std::string> sealEnvelope(const Key& key, const std::string& plain, const SDSecurityRow* row) {
    if (plain.size() > kMaxPlain) return std::nullopt;
    AssociatedData data(key.id, row);
    if (data.size() > kMaxPlain) return std::nullopt;
    demandCrypto();
    const Frame frame(row != nullptr);
    std::vector<unsigned char> bytes(frame.size + plain.size());
    const auto markAt = std::copy(key.id.begin(), key.id.end(), bytes.begin());
    if (row) {
        const RowMark mark = rowMark(key, data);
        data.setMark(mark.data());
        std::copy(mark.begin(), mark.end(), markAt);
    }
    unsigned char* const nonce = bytes.data() + frame.nonceAt;
    fillRandomly(nonce, kNonceSize);
    encrypt(key.bytes.data(), nonce, {data.data(), data.size()},
            {reinterpret_cast<const unsigned char*>(plain.data()), plain.size()}, bytes.data() + frame.textAt);
    return toText(row ? kBound : kUnbound, bytes);
}

std::optional<Envelope> parseEnvelope(const std::string& text) {
    const bool isBound = text.compare(0, kVersionSize, kBound) == 0;
    if (!isBound && text.compare(0, kVersionSize, kUnbound) != 0) return std::nullopt;
    const Frame frame(isBound);
    const std::size_t size = text.size() - kVersionSize;
    if (size % 4 != 0 || size < base64Size(frame.size) || size > base64Size(frame.size + kMaxPlain))
        return std::nullopt;
    Envelope envelope{isBound, {}, std::vector<unsigned char>(size / 4 * 3)};
    if (!fromBase64(text, envelope.bytes) || envelope.bytes.size() < frame.size) return std::nullopt;
    std::copy_n(envelope.bytes.begin(), kKeyIdSize, envelope.keyId.begin());
    return envelope;
}

OpenResult openEnvelope(const Key& key, const Envelope& envelope, const SDSecurityRow* row, std::string& plain) {
    if (envelope.isBound && !row) return OpenResult::OtherRow;
    AssociatedData data(envelope.keyId, envelope.isBound ? row : nullptr);
    if (data.size() > kMaxPlain) return OpenResult::OtherRow;  // nothing was sealed for it
    demandCrypto();
    const unsigned char* const told = envelope.bytes.data() + kKeyIdSize;
    if (envelope.isBound) data.setMark(told);
    if (open(key, envelope, data, plain)) return OpenResult::Done;
    if (!envelope.isBound) return OpenResult::Changed;
    const RowMark mark = rowMark(key, data);
    if (std::equal(mark.begin(), mark.end(), told)) return OpenResult::Changed;
    // Or the mark is what was changed.
    data.setMark(mark.data());
    std::string ignored;
    return open(key, envelope, data, ignored) ? OpenResult::Changed : OpenResult::OtherRow;
}

}  // namespace sd::security
