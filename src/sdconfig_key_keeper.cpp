#include "src/sdconfig_key_keeper.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "platform/sdsecurity/sdsecurity.h"
#include "platform/velmarlog/log_line.h"
#include "sql/SQLiteBulkWork.h"
#include "src/sdconfig_impl.h"
#include "src/sdconfig_impl_policy.h"
#include "src/sdconfig_sealed_row.h"

namespace sd {

namespace {

using protocol::KeyOutcome;
using Clock = std::chrono::steady_clock;

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "src/sdconfig_key_keeper";

// Of reading, opening and sealing; to write that takes about twice as long.
constexpr std::chrono::milliseconds kStep{3};
constexpr std::size_t kNamed = 10;
constexpr std::size_t kLeastOfId = 4;

// One operation stands for all that a host's own layer may lack.
bool hasLayerKeys() {
    return &SDSecurity::SealOf != nullptr;
}

SDSecurity& layer() {
    return *SDSecurity::GetInstance();
}

// Makes what another process did to the ring known here, too.
KeyOutcome refreshRing() {
    if (!hasLayerKeys()) return KeyOutcome::LayerWithout;
    const SDSecurity::KeyRingStatus ring = layer().CheckKeyRing();
    if (ring.state == SDSecurity::KeyRingState::Absent) return KeyOutcome::NoRing;
    if (ring.state == SDSecurity::KeyRingState::Locked) return KeyOutcome::RingLocked;
    if (ring.state == SDSecurity::KeyRingState::Usable) return KeyOutcome::Done;
    LOG(7, AT "%s", HERE, ring.detail.c_str());
    return KeyOutcome::RingUnusable;
}

KeyOutcome findKey(const std::string& beginning, SDSecurity::KeyInfo& found) {
    if (beginning.size() < kLeastOfId) return KeyOutcome::UnknownKey;
    const std::vector<SDSecurity::KeyInfo> keys = layer().Keys();
    const auto fits = [&](const SDSecurity::KeyInfo& key) {
        return key.id.compare(0, beginning.size(), beginning) == 0;
    };
    const auto count = std::count_if(keys.begin(), keys.end(), fits);
    if (count == 0) return KeyOutcome::UnknownKey;
    if (count > 1) return KeyOutcome::AmbiguousKey;
    found = *std::find_if(keys.begin(), keys.end(), fits);
    return KeyOutcome::Done;
}

bool isInRing(const std::string& keyId) {
    const std::vector<SDSecurity::KeyInfo> keys = layer().Keys();
    return std::any_of(keys.begin(), keys.end(), [&](const SDSecurity::KeyInfo& key) { return key.id == keyId; });
}

// Whether a row's value is what sealing it now would make of it, but for the nonce.
bool isSealedAnew(const std::optional<SDSecurity::Seal>& seal, const std::string& keyId) {
    return seal && seal->keyId == keyId && seal->isBound == isLayerBinding();
}

}  // namespace

void SealedRows::add(SealedRow row) {
    if (++count <= static_cast<std::int64_t>(kNamed)) first.push_back(std::move(row));
}

KeyKeeper::KeyKeeper(SDConfigImpl& config, SDConfigDmHelper& policies) : mConfig(config), mPolicies(policies) {}

// ---- The walk ----

KeyKeeper::Place KeyKeeper::beginning() {
    Place place;
    place.lastIds = {key_value::lastId(mConfig.sealedTable()), key_value::lastId(mPolicies.sealedTable())};
    return place;
}

data::SQLiteTable& KeyKeeper::tableAt(const Place& place) {
    return place.isInPolicies() ? mPolicies.sealedTable() : mConfig.sealedTable();
}

int KeyKeeper::Place::percent() const {
    double all = 0;
    double passed = 0;
    for (std::size_t i = 0; i < lastIds.size(); ++i) {
        const auto last = static_cast<double>(lastIds[i]);
        all += last;
        if (i < store) passed += last;
        if (i == store) passed += std::clamp(std::strtod(afterId.c_str(), nullptr), 0.0, std::max(0.0, last));
    }
    return isAtEnd() || all <= 0 ? 100 : static_cast<int>(100 * passed / all);
}

// Takes rows until the step's time is up or the store ends; what is empty is passed over. False where it can't be read.
bool KeyKeeper::walkOn(Place& place, const std::function<void(key_value::StoredRow&&)>& take) {
    const auto limit = Clock::now() + kStep;
    bool inTime = true;
    const bool read = key_value::walk(tableAt(place), place.afterId, [&](key_value::StoredRow&& row) {
        place.afterId = row.id;
        if (!row.value.empty()) take(std::move(row));
        return inTime = Clock::now() < limit;
    });
    if (read && inTime) {
        ++place.store;
        place.afterId = key_value::kBeforeAllIds;
    }
    return read;
}

// ---- Sealing anew ----

KeyKeeper::Rotation KeyKeeper::rotate(bool reseal) {
    if (const KeyOutcome ring = refreshRing(); ring != KeyOutcome::Done) return {ring, "", false};
    mResealing.reset();
    const std::string before = sealingKey();
    if (const std::string replaced = mConfig.replacedKey(); reseal && replaced != before && isInRing(replaced))
        return {KeyOutcome::Done, before, true};
    if (layer().Keys().size() >= SDSecurity::kMostKeys) return {KeyOutcome::RingFull, before, false};
    // Comes first: on a full disk no key is made that nothing will be sealed with.
    if (reseal && !mConfig.setReplacedKey(before)) return {KeyOutcome::NotStored, before, false};
    if (!layer().RotateKey()) return {KeyOutcome::RingUnusable, before, false};
    const std::string keyId = sealingKey();
    LOG(6, AT "the key %s seals from now on", HERE, keyId.c_str());
    return {KeyOutcome::Done, keyId, false};
}

KeyOutcome KeyKeeper::resealSome(ResealPass& pass) {
    Place place = pass.place;
    const bool isPolicy = place.isInPolicies();
    data::SQLiteTable& table = tableAt(place);
    const data::SQLiteBulkWork bulk(table.database());
    std::vector<key_value::Replacement> replacements;
    bool sealedAll = true;
    SealedRows left = pass.left;
    const bool read = walkOn(place, [&](key_value::StoredRow&& row) {
        if (isSealedAnew(SDSecurity::SealOf(row.value), pass.keyId)) return;
        const SDSecurityRow context = isPolicy ? policyRow(row.key) : secureRow(row.key);
        const std::string plain = openForRow(context, row.value);
        if (plain.empty()) return left.add({isPolicy, row.key});
        std::string value = sealForRow(context, plain);
        sealedAll = sealedAll && isSealedAnew(SDSecurity::SealOf(value), pass.keyId);
        replacements.push_back({std::move(row), std::move(value)});
    });
    if (!read) return KeyOutcome::NotRead;
    if (!sealedAll) return KeyOutcome::NotSealed;
    if (!replacements.empty() && !key_value::replaceValues(table, replacements)) return KeyOutcome::NotStored;
    for (const key_value::Replacement& one : replacements) {
        if (one.done)
            ++pass.sealed;
        else
            left.add({isPolicy, one.read.key});
    }
    pass.place = std::move(place);
    pass.left = std::move(left);
    return KeyOutcome::Done;
}

KeyOutcome KeyKeeper::endResealing(const ResealPass& pass) {
    // With a row left that opens in the old form alone, the ring has to go on opening that.
    if (pass.left.count == 0 && isLayerBinding() && !layer().RequireBoundForm()) return KeyOutcome::RingUnusable;
    if (!mConfig.replacedKey().empty() && !mConfig.setReplacedKey("")) return KeyOutcome::NotStored;
    LOG(6, AT "%lld rows were sealed anew under the key %s, %lld were left", HERE, static_cast<long long>(pass.sealed),
        pass.keyId.c_str(), static_cast<long long>(pass.left.count));
    return KeyOutcome::Done;
}

// The ring is not read for each step: where another process has rotated it, what is sealed tells, or the end does.
KeyKeeper::Resealing KeyKeeper::reseal() {
    if (!mResealing) {
        if (const KeyOutcome ring = refreshRing(); ring != KeyOutcome::Done) return {ring};
        mResealing = ResealPass{sealingKey(), beginning(), 0, {}};
    }
    KeyOutcome outcome = resealSome(*mResealing);
    const ResealPass& pass = *mResealing;
    if (outcome == KeyOutcome::NotSealed && refreshRing() == KeyOutcome::Done && sealingKey() != pass.keyId) {
        mResealing.reset();  // to begin anew under that key
        return {KeyOutcome::Done};
    }
    const bool isAtEnd = outcome == KeyOutcome::Done && pass.place.isAtEnd();
    if (isAtEnd) outcome = endResealing(pass);
    Resealing result{outcome, isAtEnd, pass.place.percent(), pass.keyId, pass.sealed, pass.left};
    if (isAtEnd) mResealing.reset();
    return result;
}

// ---- Single keys ----

KeyKeeper::Change KeyKeeper::enable(const std::string& id, bool enabled) {
    if (const KeyOutcome ring = refreshRing(); ring != KeyOutcome::Done) return {ring, ""};
    SDSecurity::KeyInfo key;
    if (const KeyOutcome found = findKey(id, key); found != KeyOutcome::Done) return {found, ""};
    if (key.state == SDSecurity::KeyState::Sealing) return {enabled ? KeyOutcome::Done : KeyOutcome::KeySeals, key.id};
    const auto state = enabled ? SDSecurity::KeyState::Opening : SDSecurity::KeyState::Disabled;
    if (!layer().SetKeyState(key.id, state)) return {KeyOutcome::RingUnusable, key.id};
    LOG(6, AT "the key %s is %s", HERE, key.id.c_str(), enabled ? "enabled" : "disabled");
    return {KeyOutcome::Done, key.id};
}

std::map<std::string, SealedRows>::iterator KeyKeeper::PrunePass::unneeded() {
    return std::find_if(candidates.begin(), candidates.end(), [](const auto& one) { return one.second.count == 0; });
}

KeyOutcome KeyKeeper::beginPrune() {
    if (const KeyOutcome ring = refreshRing(); ring != KeyOutcome::Done) return ring;
    PrunePass pass{beginning(), {}, {}};
    for (const SDSecurity::KeyInfo& key : layer().Keys())
        if (key.state != SDSecurity::KeyState::Sealing) pass.candidates[key.id];
    mPruning = std::move(pass);
    return KeyOutcome::Done;
}

KeyOutcome KeyKeeper::findNeeded(PrunePass& pass) {
    const bool isPolicy = pass.place.isInPolicies();
    const bool read = walkOn(pass.place, [&](key_value::StoredRow&& row) {
        const std::optional<SDSecurity::Seal> seal = SDSecurity::SealOf(row.value);
        if (!seal) return;
        const auto found = pass.candidates.find(seal->keyId);
        if (found != pass.candidates.end()) found->second.add({isPolicy, std::move(row.key)});
    });
    return read ? KeyOutcome::Done : KeyOutcome::NotRead;
}

// One a step, since each is a ring that is written. No row has come to need it: only the key that seals gets new ones.
KeyOutcome KeyKeeper::removeOne(PrunePass& pass) {
    const auto found = pass.unneeded();
    if (found == pass.candidates.end()) return KeyOutcome::Done;
    if (!layer().RemoveKey(found->first)) return KeyOutcome::RingUnusable;
    LOG(6, AT "the key %s left the ring: no row needs it", HERE, found->first.c_str());
    pass.removed.push_back(found->first);
    pass.candidates.erase(found);
    return KeyOutcome::Done;
}

KeyKeeper::Pruning KeyKeeper::prune(bool begin) {
    if (begin || !mPruning)
        if (const KeyOutcome begun = beginPrune(); begun != KeyOutcome::Done) return {begun};
    PrunePass& pass = *mPruning;
    const std::size_t removedBefore = pass.removed.size();
    const KeyOutcome outcome = pass.place.isAtEnd() ? removeOne(pass) : findNeeded(pass);
    const bool isAtEnd =
        outcome == KeyOutcome::Done && pass.place.isAtEnd() && pass.unneeded() == pass.candidates.end();
    Pruning result{outcome, isAtEnd, pass.place.percent()};
    result.removed = pass.removed;
    if (pass.removed.size() > removedBefore) result.removedNow = pass.removed.back();
    if (isAtEnd) result.needed = std::move(pass.candidates);
    if (isAtEnd || outcome != KeyOutcome::Done) mPruning.reset();
    return result;
}

}  // namespace sd
