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

// A value's kind and its name. Kinds: secure; policy, a stored one; machine, one in a file of the machine's.
using Key = std::pair<std::string, std::string>;
using Values = std::map<Key, std::string>;  // "": there is none

// Nothing where the file is not there.
using Content = std::optional<std::string>;
Content contentIn(const Files& files, const std::string& path);

// The changes that a trail tells of, the oldest first.
struct TrailRead {
    std::vector<std::string> keys;
    bool isWhole = false;  // it goes back to the first entry
};

// Fed with the marks of a log, fields between tabs: "begin KIND KEY VALUE" and "ack KIND KEY" of a write, where VALUE
// "" is a deletion and a fifth field names a set that is written whole or not at all; "begin file PATH" and "ack file
// PATH" of a file that is written whole; "begin upgrade ROWS" and "ack upgrade". What doesn't agree is thrown as
// Failed.
class Model {
public:
    using Seen = std::function<Content(const std::string& path)>;  // the file at the moment of the mark
    void apply(const std::string& mark, const Seen& seen);

    // What a file under way will be when it is done.
    void foresee(const std::string& path, const Content& content) { mFiles[path].insert(content); }

    const std::set<Key>& keys() const { return mKeys; }
    // "" where none is under way; else how many rows of earlier versions it finds.
    const std::string& upgrade() const { return mUpgrade; }
    // All that is under way was done.
    void settleAll();

    void checkFiles(const Files& files) const;
    void checkValues(const Values& found) const;   // of all keys
    void checkStored(const Values& stored) const;  // all that a data folder lists
    void checkTrail(const TrailRead& trail, const Values& found) const;

private:
    struct UnderWay {
        Key key;
        std::string value;
        std::string set;
    };

    void acknowledge(const Key& key);
    void settle(const UnderWay& change);
    bool isTold(const UnderWay& change) const;
    bool areDone(std::size_t first, const Values& found) const;
    void checkSet(const std::string& set, const Values& found) const;

    std::set<Key> mKeys;
    Values mSettled;
    std::vector<UnderWay> mUnderWay;
    std::map<std::string, std::set<Content>> mFiles;
    std::vector<std::string> mChanges;  // acknowledged, as the trail tells of them
    bool mIsTrailAnothers = false;      // a restore brings one along
    std::string mUpgrade;
};

}  // namespace power
