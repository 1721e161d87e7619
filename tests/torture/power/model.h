// What a disk after a power cut may hold, by what was asked for and acknowledged before.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/torture/power/disk.h"

namespace power {

// A value's kind and its name. Kinds: secure; policy, a stored one; machine, one in a file of the machine's. What the
// trail tells of has one more: read, a secure value whose reading is accounted for.
using Key = std::pair<std::string, std::string>;
using Values = std::map<Key, std::string>;  // "": there is none

// Nothing where the file is not there.
using Content = std::optional<std::string>;
Content contentIn(const Files& files, const std::string& path);

// By which a service that ended as told spares the next start its check of the databases.
inline constexpr char kCleanEndMark[] = "data/sdconfigd.clean";

// What restores put others in the place of.
std::vector<std::string> replacedFolders(const Files& files);

// The changes and readings that a trail tells of, the oldest first.
struct TrailRead {
    std::vector<Key> told;
    std::size_t bytes = 0;  // of their lines
    bool isWhole = false;   // it goes back to the first entry
};

// The keys of a ring.
struct RingRead {
    std::string sealing;      // the id of the key that seals
    long sealedByOthers = 0;  // values and policies
};

// Fed with the marks of a log, fields between tabs. What doesn't agree is thrown as Failed. The marks:
//     begin KIND KEY VALUE [SET], ack KIND KEY    a write; VALUE "": a deletion; a SET is written whole or not at all:
//                                                 one ack of any of its keys is for all
//     begin read KEY, ack read KEY                a reading that is accounted for; no other is under way beside it
//     begin file PATH, ack file PATH              a file that is written whole
//     begin upgrade ROWS, ack upgrade             of all writes under way
//     begin restore FILE, ack restore OLD         of a backup, all writes under way; in OLD is what was there before
//     begin key, ack key ID [resealed]            a new key that seals; resealed: all that is there
//     ack start, begin end                        of a service; where it is killed it has no end
//     begin dropping BYTES                        from now on the oldest files of the trail may go, but not of its last
//                                                 BYTES
//     begin accounting KEY                        for each reading of it
class Model {
public:
    using Seen = std::function<Content(const std::string& path)>;  // the file at the moment of the mark
    void apply(const std::string& mark, const Seen& seen);

    // What a file under way will be when it is done.
    void foresee(const std::string& path, const Content& content) { mFiles[path].insert(content); }
    // The mark of a clean end has come about, and tells of these files.
    void noteCleanEnd(const Files& seen);

    const std::set<Key>& keys() const { return mKeys; }
    // What the trail has to tell of one who reads all of them.
    std::vector<Key> readings() const;
    // "" where none is under way; else how many rows of earlier versions it finds.
    const std::string& upgrade() const { return mUpgrade; }
    bool isSealingKeyKnown() const { return !mSealingKey.empty(); }
    // All that is under way was done.
    void settleAll();
    bool isReadingUnderWay() const;
    // It was done where the trail tells of it, and will not be where it does not.
    void settleReading(const TrailRead& trail);
    // The same of all else by what is found.
    void settle(const Values& found, const Files& files);

    void checkFiles(const Files& files) const;
    void checkValues(const Values& found) const;                         // of all keys
    void checkStored(const Values& stored) const;                        // all that a data folder lists
    void checkTrail(const TrailRead& trail, const Values& found) const;  // behind a reading of all keys
    void checkRing(const RingRead& ring) const;
    // That a restore put what is stored now in the place of what `old` holds, or was about to.
    void checkReplaced(const std::string& old, const Values& inOld, const Values& inStored) const;

private:
    struct UnderWay {
        Key key;
        std::string value;
        std::string set;
    };

    struct Restore {
        Values before;          // what is stored
        std::vector<Key> told;  // by the trail that it brings along
    };

    void begin(const std::vector<std::string>& field);
    void acknowledge(const std::vector<std::string>& field);
    void acknowledge(const Key& key);
    void settle(const UnderWay& change);
    Values stored(bool isAllDone) const;
    void checkCleanEnd(const Files& files) const;
    bool isTold(const UnderWay& change) const;
    bool isTrailOf(const std::vector<Key>& told, const TrailRead& trail) const;
    bool areDone(std::size_t first, const Values& found) const;
    void checkSet(const std::string& set, const Values& found) const;

    std::set<Key> mKeys;
    Values mSettled;
    std::vector<UnderWay> mUnderWay;
    std::map<std::string, std::set<Content>> mFiles;
    std::set<std::string> mAccounted;       // keys
    std::vector<Key> mTold;                 // by the trail, of what was acknowledged
    std::optional<std::size_t> mTrailKept;  // so many bytes of it at least, where its oldest files are dropped
    std::string mUpgrade;
    std::map<std::string, std::vector<Key>> mToldBefore;  // a file was written
    std::optional<Restore> mRestore;                      // under way
    std::map<std::string, Values> mReplaced;              // by restores, and by what folder has it
    std::string mSealingKey;                              // "": not known
    bool mIsResealed = false;
    bool mIsServed = false;                   // since the last clean end, if any
    std::map<std::string, Files> mCleanEnds;  // by the text of the mark
};

}  // namespace power
