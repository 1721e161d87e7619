#include "platform/sdsecurity/seal_counter.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>

#include "platform/sdsecurity/log.h"
#include "platform/sdsecurity/ring_file.h"

namespace sd::security {
namespace {

constexpr char kSource[] = "platform/sdsecurity/seal_counter";
constexpr char kFileName[] = "sdsecurity.count";

constexpr std::uint64_t kMaxSeals = std::uint64_t{1} << 32U;
constexpr std::uint64_t kWarnFrom = kMaxSeals / 2;
// A process that seals little shall not use up a key by being started often; one that seals much shall not write often.
constexpr std::uint64_t kFirstBlock = 256;
constexpr std::uint64_t kLargestBlock = 65536;

// Lines of "id count". Returns nothing where one is anything else.
std::optional<SealCounts> parseCounts(std::string_view text) {
    SealCounts counts;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        if (end == std::string_view::npos || end <= 2 * kKeyIdSize || text[2 * kKeyIdSize] != ' ') return std::nullopt;
        std::uint64_t count = 0;
        const char* const last = text.data() + end;
        const auto [stop, error] = std::from_chars(text.data() + 2 * kKeyIdSize + 1, last, count);
        if (error != std::errc{} || stop != last) return std::nullopt;
        counts[std::string(text.substr(0, 2 * kKeyIdSize))] = std::min(count, kMaxSeals);
        text.remove_prefix(end + 1);
    }
    return counts;
}

SecretBytes formatCounts(const SealCounts& counts) {
    SecretBytes text;
    for (const auto& [id, count] : counts) {
        const std::string line = id + ' ' + std::to_string(count) + '\n';
        text.insert(text.end(), line.begin(), line.end());
    }
    return text;
}

// The stored counts; a damaged file counts as none, with the reason.
SealCounts readCounts(const std::string& path, std::string& reason) {
    const FileRead file = readFile(path, Readers::OwnerOnly);
    reason = file.reason;
    std::optional<SealCounts> counts =
        parseCounts({reinterpret_cast<const char*>(file.bytes.data()), file.bytes.size()});
    if (!counts) reason = "it is malformed";
    return counts.value_or(SealCounts{});
}

// Adds `owed` to what the file says, or to `known` where that is more. Returns the new count, or nothing.
std::optional<std::uint64_t> addToFile(const std::string& folder, const KeyId& id, std::uint64_t known,
                                       std::uint64_t owed, std::string& reason) {
    const std::optional<LockedFolder> locked = LockedFolder::lock(folder, kSealWait, reason);
    if (!locked) return std::nullopt;
    std::string damage;
    SealCounts counts = readCounts(folder + '/' + kFileName, damage);
    if (!damage.empty()) LOG(6, AT "%s/%s: %s; counting from here", HERE, folder.c_str(), kFileName, damage.c_str());
    std::uint64_t& count = counts[toHex(id)];
    count = std::max(count, known);
    if (count < kMaxSeals) count += owed;
    const std::uint64_t total = count;
    if (!locked->replace(kFileName, formatCounts(counts), reason)) return std::nullopt;
    return total;
}

}  // namespace

void SealCounter::reset(const std::string& folder) {
    *this = SealCounter();
    mFolder = folder;
}

bool SealCounter::reserve(const KeyId& id) {
    if (mId != id) mBlock = mStored = mOwed = 0;
    mId = id;
    mLeft = 0;
    if (mStored + mOwed < kMaxSeals) {
        mBlock = std::clamp(mBlock * 2, kFirstBlock, kLargestBlock);
        mOwed += mBlock;
        store(id);
    }
    const std::uint64_t total = mStored + mOwed;
    const std::string key = toHex(id);
    if (total >= kMaxSeals) {
        LOG(7, AT "key %s is used up, sealing more would endanger every value: rotate the ring", HERE, key.c_str());
        return false;
    }
    if (total >= kWarnFrom)
        LOG(6, AT "key %s has sealed half of what is safe or more (%llu): rotate the ring", HERE, key.c_str(),
            static_cast<unsigned long long>(total));
    mLeft = mBlock;
    return true;
}

void SealCounter::store(const KeyId& id) {
    if (mFolder.empty()) return;
    std::string reason;
    const std::optional<std::uint64_t> total = addToFile(mFolder, id, mStored, mOwed, reason);
    if (!total && !mStoreFailed)
        LOG(6, AT "%s/%s: %s; counting in memory", HERE, mFolder.c_str(), kFileName, reason.c_str());
    mStoreFailed = !total;
    if (!total) return;
    mStored = *total;
    mOwed = 0;
}

SealCounts storedCounts(const std::string& folder) {
    std::string damage;
    return readCounts(folder + '/' + kFileName, damage);
}

SDSecurity::KeyUse storedUse(const std::string& folder, const KeyId& id) {
    const std::uint64_t count = storedCounts(folder)[toHex(id)];
    if (count >= kMaxSeals) return SDSecurity::KeyUse::UsedUp;
    return count >= kWarnFrom ? SDSecurity::KeyUse::HalfUsed : SDSecurity::KeyUse::Fine;
}

}  // namespace sd::security
