// Keeps the trail: an entry for each call that changes something, or tries to, in the commit that it tells of.
#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/sdsecurity/sdsecurity.h"
#include "src/sdconfig_came.h"
#include "src/sdconfig_trail_slots.h"
#include "trail/entry.h"
#include "trail/writer.h"

namespace sd {

class SDConfigDmHelper;
class SDConfigImpl;

// How the host wants the trail; told before the service starts.
struct TrailSettings {
    bool isKept = true;
    int fileMiB = 8;
    int filesKept = 4;
    std::vector<std::string> auditedReads{};  // patterns of keys, as of fnmatch(3), whatever the letter case

    bool isAudited(const std::string& key) const;
};
TrailSettings& trailSettings();

// What a call changes, or tries to.
struct TrailChange {
    trail::Entry entry;       // who, what, key and priority
    std::string before{};     // the key's effective value
    std::string after{};      // what it is to be
    bool isOther = true;      // what is to be stored differs from what stands there
    bool isGoverned = false;  // a policy of the machine has the say
};

// Any thread. From the beginning of a commit to its end entries of other threads wait.
class TrailKeeper {
public:
    // Reads what the databases carry of the trail. To be made before anything is served.
    TrailKeeper(const std::string& folder, SDConfigImpl& config, SDConfigDmHelper& policies);
    // Ends the trail with an entry, where it began.
    ~TrailKeeper();
    TrailKeeper(const TrailKeeper&) = delete;
    TrailKeeper& operator=(const TrailKeeper&) = delete;

    // Opens the trail, puts back what the databases alone have of it, and begins with an entry of the start. To be
    // called before what follows; only the first time counts.
    void begin();

    using Work = std::function<bool()>;
    using Entries = std::function<std::vector<trail::Entry>()>;
    // Does the work, which stores the change in one commit of this thread: its entry goes with it. Where that failed
    // the entry is written by itself, and says so. Work that is done without a commit had nothing to do and has no
    // entry: each client asks at its start to have a value deleted that is not there. seq: where the entry's number
    // goes, or null; 0 for none. Returns what the work does.
    bool record(const TrailChange& change, const Work& work, std::uint64_t* seq = nullptr);
    // The same for several changes in one commit. entries: makes theirs when that is about to be made. whole: what is
    // told where it failed.
    bool record(const Entries& entries, const TrailChange& whole, const Work& work, std::uint64_t* seq = nullptr);

    // The entry of a change that was made.
    trail::Entry entryOf(const TrailChange& change);

    // Writes the entry of a change that no commit carries. Makes the key ring where there is none yet, as sealing does.
    void note(const TrailChange& change, bool isDone);
    // Writes any other entry: of what concerns a key ring that is there, or waits until there is one.
    std::uint64_t note(trail::Entry entry);
    // The same, and makes the key ring.
    void noteCaller(trail::Entry entry);
    // The same, of a value that is about to be told. Throws std::bad_alloc where there is no memory for it.
    void noteReading(trail::Entry entry);
    // Waits until the disk has what was noted.
    void sync();

    // The digest of a key's effective value; "" as long as no key of the ring is at hand.
    std::string digestOf(const std::string& key, const std::string& value);

    // What is known of the ring may be so no longer: a key was taken out of it, or another state was given to one, or
    // it was opened.
    void lookAtRingAgain();

    // Writes what waits, as far as that can be done now.
    trail::WriterStatus status();

private:
    class Carried;
    using Clock = std::chrono::steady_clock;

    void open();
    std::uint64_t noteFailure(const TrailChange& change);
    TrailSlots* slotsOf(const data::SQLiteDatabase& database);
    void makeRing();
    bool isRingOpen();
    SDSecurity::KeyRingState lookAtRing();
    bool isAtHand(const std::string& keyId);
    std::string digestUnder(const std::string& keyId, const std::vector<std::string_view>& texts);

    std::array<TrailSlots, 2> mSlots;  // of both stores, which the service's thread alone uses
    std::vector<std::string> mFound;   // what stood in them
    std::once_flag mBegun;
    bool mHasBegun = false;

    std::mutex mRingMutex;  // of what follows
    bool mIsRingOpen = false;
    Clock::time_point mNextLook{};     // not before, where it is locked
    std::string mKeyAtHand;            // the id of one that digests
    Clock::time_point mNextRingTry{};  // not before, where making a ring failed

    trail::Writer mWriter;  // goes first: its thread asks for digests
};

}  // namespace sd
