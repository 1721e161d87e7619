#include "platform/sdsecurity/ring_opener.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "base/quiet_thread.h"
#include "platform/sdsecurity/ring_file.h"
#include "platform/sdsecurity/ring_text.h"

namespace sd::security {
namespace {

using KeyRingState = SDSecurity::KeyRingState;
using SlotState = SDSecurity::SlotState;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLongest{5};  // that a call waits for a ring to be opened
constexpr std::chrono::seconds kPause{30};   // before a machine that did not answer is asked again
constexpr char kPassphraseFile[] = "sdsecurity.passphrase";
constexpr char kDisagree[] = "a slot of it opens, but not the ring: it was damaged or edited, or its slots disagree";

// What came of one slot: the master key, or why not.
struct Tried {
    std::optional<SecretBytes> master;
    bool isForLater = false;
    std::string reason;
};

Tried triedWith(const Slot& slot, const SlotAnswer& answer) {
    Tried tried{std::nullopt, answer.outcome == SlotAnswer::Outcome::NotNow, answer.reason};
    if (answer.outcome != SlotAnswer::Outcome::Done) return tried;
    tried.master = openSlot(slot, answer.key);
    if (!tried.master) tried.reason = "the key that was kept for it does not open it";
    return tried;
}

// What the system handed over to be typed; of state Absent where that is nothing.
FileRead passphraseHandedOver() {
    const char* const folder = std::getenv("CREDENTIALS_DIRECTORY");
    if (!folder || *folder != '/') return {KeyRingState::Absent, {}, ""};
    FileRead file = readFile(std::string(folder) + '/' + kPassphraseFile, Readers::GroupToo);
    if (!file.bytes.empty() && file.bytes.back() == '\n') file.bytes.pop_back();
    return file;
}

Tried tryPassphrase(const Slot& slot, const FileRead& handedOver) {
    Tried tried{std::nullopt, false, handedOver.reason};
    if (handedOver.bytes.empty()) return tried;
    tried.master = openSlot(slot, stretch(viewOf(handedOver.bytes), slot.stretching));
    if (!tried.master) tried.reason = "what the system handed over does not open it";
    return tried;
}

}  // namespace

// At the slots of one ring. Shared with the threads that make it, which nobody waits for at the end of the process; it
// holds nothing of the keepers', since the keyring's thread may be the last to have it.
class RingOpener::Attempt : public std::enable_shared_from_this<Attempt> {
public:
    explicit Attempt(const WrappedRing& ring) : mRing(ring) {}

    const WrappedRing& ring() const { return mRing; }

    // Begins, on a thread of its own where there is anybody to ask. watches: whether the keyring is to tell when it has
    // the key.
    void begin(const SlotKeepers& keepers, bool watches) {
        const auto isAtHand = [this](const Slot& slot) {
            return isTyped(slot.kind) ? slot.kind == SlotKind::Passphrase && !mHandedOver.bytes.empty() : true;
        };
        if (std::none_of(mRing.slots.begin(), mRing.slots.end(), isAtHand)) return end();
        start([self = shared_from_this(), keepers, watches] { self->run([&] { self->make(keepers, watches); }); });
    }

    // Asks the machine again, where it is time for that.
    void beginAgain(const SlotKeepers& keepers) {
        const std::lock_guard lock(mMutex);
        if (!mIsDone || !mAsksLater || !mMaster.empty() || Clock::now() < mBegan + kPause) return;
        start([self = shared_from_this(), keepers] {
            self->run([&] { self->take(*self->mRing.find(SlotKind::Host), keepers); });
        });
        mIsDone = false;
        mBegan = Clock::now();
    }

    // Whether it came to its end without what it takes, memory for one: it tells nothing of the slots then.
    bool hasFailed() {
        const std::lock_guard lock(mMutex);
        return mIsDone && mHasFailed && mMaster.empty();
    }

    // What has come of it, or does within the time that a first one is waited for.
    struct Result {
        SecretBytes master;
        std::string reason;
    };
    Result result(Wait wait) {
        std::unique_lock lock(mMutex);
        if (wait == Wait::Yes) mEnded.wait_until(lock, mDeadline, [this] { return mIsDone; });
        if (!mMaster.empty()) return {mMaster, ""};
        std::string reason = mIsDone ? "it is locked" : "it is being opened";
        for (const auto& [kind, seen] : mSeen)
            if (!seen.reason.empty()) reason.append("; ").append(nameOf(kind)).append(": ").append(seen.reason);
        return {{}, reason};
    }

    // What came of a slot so far.
    struct Seen {
        SlotState state;
        std::string reason;
    };
    Seen seen(SlotKind kind) {
        const std::lock_guard lock(mMutex);
        const auto found = mSeen.find(kind);
        return found == mSeen.end() ? Seen{SlotState::NotAsked, ""} : found->second;
    }

private:
    // Throws std::system_error where no thread can be had.
    template <class Work>
    static void start(Work work) {
        startQuietThread("sdconfig.ring", std::move(work)).detach();
    }

    // The whole of a thread of it.
    template <class Work>
    void run(const Work& work) noexcept {
        try {
            work();
        } catch (const std::exception&) {
            noteFailure();
        }
        end();
    }

    void make(const SlotKeepers& keepers, bool watches) {
        for (const Slot& slot : mRing.slots) {
            if (slot.kind == SlotKind::Recovery) continue;
            const Tried tried = take(slot, keepers);
            if (tried.master) break;
            if (slot.kind == SlotKind::Keyring && tried.isForLater && watches) watch(slot, keepers);
        }
    }

    Tried take(const Slot& slot, const SlotKeepers& keepers) {
        Tried tried;
        try {
            tried = isTyped(slot.kind) ? tryPassphrase(slot, mHandedOver) : triedWith(slot, keepers.open(slot));
        } catch (const std::exception& error) {  // another slot may open it all the same
            noteFailure();
            tried = {std::nullopt, true, error.what()};
        }
        note(slot, tried);
        return tried;
    }

    void watch(const Slot& slot, const SlotKeepers& keepers) {
        keepers.watch(slot, [self = shared_from_this()](const SlotAnswer& answer) {
            const Slot& keyring = *self->mRing.find(SlotKind::Keyring);
            self->note(keyring, triedWith(keyring, answer));
        });
    }

    void note(const Slot& slot, const Tried& tried) {
        const std::lock_guard lock(mMutex);
        if (tried.master) mMaster = *tried.master;
        if (slot.kind == SlotKind::Host) mAsksLater = tried.isForLater;
        const SlotState without = tried.isForLater ? SlotState::NotNow : SlotState::Refused;
        mSeen[slot.kind] = {tried.master ? SlotState::Opens : without, tried.reason};
    }

    void noteFailure() noexcept {
        const std::lock_guard lock(mMutex);
        mHasFailed = true;
    }

    void end() noexcept {
        const std::lock_guard lock(mMutex);
        mIsDone = true;
        mEnded.notify_all();
    }

    const WrappedRing mRing;
    const FileRead mHandedOver = passphraseHandedOver();  // before there is a thread: the environment may change
    const Clock::time_point mDeadline = Clock::now() + kLongest;
    std::mutex mMutex;  // guards what follows
    std::condition_variable mEnded;
    Clock::time_point mBegan = Clock::now();
    bool mIsDone = false;
    bool mHasFailed = false;
    bool mAsksLater = false;  // the machine
    SecretBytes mMaster;
    std::map<SlotKind, Seen> mSeen;
};

void RingOpener::reset() {
    mMaster = SecretBytes();
    mOpened.reset();
    mAttempt.reset();
}

SDSecurity::SlotInfo RingOpener::known(const WrappedRing& ring, const Slot& slot) const {
    SDSecurity::SlotInfo info{slot.kind, slot.made, SlotState::NotAsked, ""};
    if (isTyped(slot.kind)) {
        info.state = SlotState::Typed;
    } else if (mAttempt && haveSameSlots(mAttempt->ring(), ring)) {
        Attempt::Seen seen = mAttempt->seen(slot.kind);
        info.state = seen.state;
        info.reason = std::move(seen.reason);
    }
    return info;
}

void RingOpener::keep(const WrappedRing& ring, const SecretBytes& master) {
    mMaster = master;
    mOpened = ring;
}

void RingOpener::tryWhatIsAtHand(const WrappedRing& ring) {
    if (mAttempt && !mAttempt->hasFailed() && haveSameSlots(mAttempt->ring(), ring))
        return mAttempt->beginAgain(mKeepers);
    auto attempt = std::make_shared<Attempt>(ring);
    attempt->begin(mKeepers, mWatchesKeyring);  // where it can't, or fails, the next call makes another
    mAttempt = std::move(attempt);
}

RingOpener::Opened RingOpener::open(const WrappedRing& ring, Wait wait) {
    if (!mMaster.empty()) {
        if (std::optional<SecretBytes> text = openRing(ring, mMaster))
            return {KeyRingState::Usable, std::move(*text), "", mMaster};
        if (mOpened && haveSameSlots(*mOpened, ring)) return {KeyRingState::Broken, {}, kDisagree, {}};
    }
    tryWhatIsAtHand(ring);
    Attempt::Result result = mAttempt->result(wait);
    if (result.master.empty()) return {KeyRingState::Locked, {}, std::move(result.reason), {}};
    std::optional<SecretBytes> text = openRing(ring, result.master);
    if (!text) return {KeyRingState::Broken, {}, kDisagree, {}};
    return {KeyRingState::Usable, std::move(*text), "", std::move(result.master)};
}

}  // namespace sd::security
