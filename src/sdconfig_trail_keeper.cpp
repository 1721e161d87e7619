#include "src/sdconfig_trail_keeper.h"

#include <fnmatch.h>

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

#include "platform/sdsecurity/sdsecurity.h"
#include "platform/velmarlog/log_line.h"
#include "sql/SQLiteDatabase.h"
#include "sql/SQLiteWitness.h"
#include "src/sdconfig_impl.h"
#include "src/sdconfig_impl_policy.h"
#include "src/sdconfig_sealed_row.h"
#include "src/sdconfig_trail_digest.h"

namespace sd {

namespace {

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "src/sdconfig_trail_keeper";

constexpr std::chrono::minutes kRingPause{1};
constexpr std::chrono::milliseconds kLockedPause{100};
constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;

SDSecurity& layer() {
    return *SDSecurity::GetInstance();
}

// The trail never stops what it tells of: without memory, or without OpenSSL, an entry is missing.
template <class Task>
void contained(const char* what, const Task& task) noexcept {
    try {
        task();
    } catch (const std::exception& failure) {
        LOG(7, AT "the trail: %s: %s", HERE, what, failure.what());
    }
}

// The same; but no commit is made, and no value told, whose entry found no memory.
template <class Task>
void demanded(const char* what, const Task& task) {
    try {
        task();
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& failure) {
        LOG(7, AT "the trail: %s: %s", HERE, what, failure.what());
    }
}

}  // namespace

TrailSettings& trailSettings() {
    static TrailSettings sSettings;
    return sSettings;
}

bool TrailSettings::isAudited(const std::string& key) const {
    return std::any_of(auditedReads.begin(), auditedReads.end(), [&](const std::string& pattern) {
        return ::fnmatch(pattern.c_str(), key.c_str(), FNM_CASEFOLD) == 0;
    });
}

// ---- Entries in a commit ----

class TrailKeeper::Carried : public data::SQLiteWitness {
public:
    Carried(TrailKeeper& keeper, const Entries& entries) : mKeeper(keeper), mEntries(entries) {}
    ~Carried() override { Carried::afterCommit(false); }  // where an exception came in between
    Carried(const Carried&) = delete;
    Carried& operator=(const Carried&) = delete;

    void beforeCommit(data::SQLiteDatabase& db) override {
        mSlots = mSeq == 0 ? mKeeper.slotsOf(db) : nullptr;
        if (mSlots) demanded("a commit", [this] { carry(); });
    }

    void afterCommit(bool isCommitted) override {
        if (!mIsPrepared) return;
        mIsPrepared = false;
        mSlots->settle(isCommitted);
        contained("after a commit", [&] {
            isCommitted ? mKeeper.mWriter.confirm() : mKeeper.mWriter.drop();
            mIsTold = isCommitted;
        });
    }

    // Whether entries told of a commit that was made; and the first one's number.
    bool hasTold() const { return mIsTold; }
    std::uint64_t seq() const { return mSeq; }

private:
    void carry() {
        mKeeper.makeRing();
        const trail::Carried carried = mKeeper.mWriter.prepare(mEntries());
        mIsPrepared = true;
        mSeq = carried.seq;
        if (!carried.text.empty()) mSlots->write(carried.slot, carried.text);
    }

    TrailKeeper& mKeeper;
    const Entries& mEntries;
    TrailSlots* mSlots = nullptr;
    bool mIsPrepared = false;
    bool mIsTold = false;
    std::uint64_t mSeq = 0;
};

TrailSlots* TrailKeeper::slotsOf(const data::SQLiteDatabase& database) {
    const auto found = std::find_if(mSlots.begin(), mSlots.end(),
                                    [&](const TrailSlots& slots) { return &slots.database() == &database; });
    return found == mSlots.end() ? nullptr : &*found;
}

bool TrailKeeper::record(const Entries& entries, const TrailChange& whole, const Work& work, std::uint64_t* seq) {
    Carried carried(*this, entries);
    bool isDone = false;
    {
        const data::SQLiteWitnessed witnessed(carried);
        isDone = work();
    }
    std::uint64_t first = carried.seq();
    if (!carried.hasTold()) first = isDone ? 0 : noteFailure(whole);
    if (seq) *seq = first;
    return isDone;
}

bool TrailKeeper::record(const TrailChange& change, const Work& work, std::uint64_t* seq) {
    return record([&] { return std::vector<trail::Entry>{entryOf(change)}; }, change, work, seq);
}

trail::Entry TrailKeeper::entryOf(const TrailChange& change) {
    trail::Entry entry = change.entry;
    entry.came = change.before != change.after ? came::kChanged : change.isOther ? came::kStored : came::kSame;
    if (!entry.key) return entry;
    entry.oldDigest = digestOf(*entry.key, change.before);
    entry.newDigest = change.before == change.after ? entry.oldDigest : digestOf(*entry.key, change.after);
    return entry;
}

// ---- Entries by themselves ----

std::uint64_t TrailKeeper::noteFailure(const TrailChange& change) {
    makeRing();
    trail::Entry entry = change.entry;
    entry.came = change.isGoverned ? came::kGoverned : came::kFailed;
    if (entry.key) entry.oldDigest = entry.newDigest = digestOf(*entry.key, change.before);
    return note(std::move(entry));
}

void TrailKeeper::note(const TrailChange& change, bool isDone) {
    if (!isDone) return (void)noteFailure(change);
    makeRing();
    note(entryOf(change));
}

std::uint64_t TrailKeeper::note(trail::Entry entry) {
    std::uint64_t seq = 0;
    contained("an entry", [&] { seq = mWriter.append(std::move(entry)); });
    return seq;
}

void TrailKeeper::noteCaller(trail::Entry entry) {
    makeRing();
    note(std::move(entry));
}

void TrailKeeper::noteReading(trail::Entry entry) {
    makeRing();
    demanded("a reading", [&] { (void)mWriter.append(std::move(entry)); });
}

// ---- Its begin and its end ----

TrailKeeper::TrailKeeper(const std::string& folder, SDConfigImpl& config, SDConfigDmHelper& policies)
    : mSlots{TrailSlots(config), TrailSlots(policies.sealedTable().database())},
      mWriter({folder, static_cast<std::uint64_t>(trailSettings().fileMiB) * kMiB, trailSettings().filesKept,
               [this](const std::string& keyId, const std::vector<std::string_view>& texts) {
                   return digestUnder(keyId, texts);
               },
               [this] { return isRingOpen() ? sealingKey() : ""; }}) {
    for (TrailSlots& slots : mSlots)
        for (std::string& lines : slots.read()) mFound.push_back(std::move(lines));
}

TrailKeeper::~TrailKeeper() {
    if (!mHasBegun) return;
    trail::Entry end;
    end.what = "END";
    end.source = "end";
    note(std::move(end));
    sync();
}

void TrailKeeper::begin() {
    std::call_once(mBegun, [this] { contained("its beginning", [this] { open(); }); });
}

void TrailKeeper::open() {
    const trail::Opening opening = mWriter.open(std::exchange(mFound, {}));
    for (const std::string& damage : opening.damages) LOG(7, AT "the trail: %s", HERE, damage.c_str());
    mHasBegun = true;
    trail::Entry start;
    start.what = "START";
    start.source = "start";
    if (!opening.isNew) start.came = opening.wasEnded ? "clean" : "unclean";
    if (opening.putBack > 0) start.count = opening.putBack;
    note(std::move(start));
}

void TrailKeeper::sync() {
    contained("a sync", [this] { (void)mWriter.sync(); });
}

trail::WriterStatus TrailKeeper::status() {
    contained("what waits", [this] { mWriter.flush(); });
    return mWriter.status();
}

// ---- Its key ----

void TrailKeeper::lookAtRingAgain() {
    {
        const std::lock_guard lock(mRingMutex);
        mIsRingOpen = false;
        mNextLook = {};
        mKeyAtHand.clear();
    }
    contained("what waits", [this] { mWriter.flush(); });
}

// Whether what needs the ring need not wait for it. One that is locked is not looked at for each digest.
bool TrailKeeper::isRingOpen() {
    const std::lock_guard lock(mRingMutex);
    if (!mIsRingOpen && Clock::now() >= mNextLook) (void)lookAtRing();
    return mIsRingOpen;
}

// With mRingMutex held.
SDSecurity::KeyRingState TrailKeeper::lookAtRing() {
    const SDSecurity::KeyRingState state = layer().OpenKeyRingAhead().state;
    mIsRingOpen = state == SDSecurity::KeyRingState::Usable;
    if (state == SDSecurity::KeyRingState::Locked) mNextLook = Clock::now() + kLockedPause;
    return state;
}

// The layer would tell in the log of a key that isn't.
bool TrailKeeper::isAtHand(const std::string& keyId) {
    if (!isRingOpen()) return false;
    const std::lock_guard lock(mRingMutex);
    if (mKeyAtHand == keyId) return true;
    const std::vector<SDSecurity::KeyInfo> keys = layer().Keys();
    const bool isThere = std::any_of(keys.begin(), keys.end(), [&](const SDSecurity::KeyInfo& key) {
        return key.id == keyId && key.state != SDSecurity::KeyState::Disabled;
    });
    if (isThere) mKeyAtHand = keyId;
    return isThere;
}

std::string TrailKeeper::digestUnder(const std::string& keyId, const std::vector<std::string_view>& texts) {
    return isAtHand(keyId) ? SDSecurity::DigestUnderKey(keyId, texts) : "";
}

std::string TrailKeeper::digestOf(const std::string& key, const std::string& value) {
    const std::string ringKey = mWriter.key();
    return ringKey.empty() ? "" : valueDigest(ringKey, key, value);
}

// Not in a folder that isn't ours any more, where the databases aren't written, either.
void TrailKeeper::makeRing() {
    const std::lock_guard lock(mRingMutex);
    if (mIsRingOpen || lookAtRing() != SDSecurity::KeyRingState::Absent) return;
    const bool isInPlace = std::none_of(mSlots.begin(), mSlots.end(),
                                        [](const TrailSlots& slots) { return slots.database().isDetached(); });
    if (!isInPlace || Clock::now() < mNextRingTry) return;
    if (layer().FastEncrypt("trail").empty()) mNextRingTry = Clock::now() + kRingPause;
}

}  // namespace sd
