#include "tests/torture/power/model.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <regex>
#include <sstream>

#include "tests/torture/service_life.h"

namespace power {
namespace {

using torture::Failed;

std::vector<std::string> fields(const std::string& mark) {
    std::vector<std::string> all;
    std::istringstream text(mark);
    for (std::string field; std::getline(text, field, '\t');) all.push_back(field);
    all.resize(std::max<std::size_t>(all.size(), 5));
    return all;
}

std::string shown(const std::string& value) {
    return "\"" + value.substr(0, 60) + "\" (" + std::to_string(value.size()) + " bytes)";
}

std::string valueIn(const Values& values, const Key& key) {
    const auto found = values.find(key);
    return found == values.end() ? "" : found->second;
}

// The last ones of what was told, or all of it.
std::string lastOf(const std::vector<Key>& told) {
    std::string text = std::to_string(told.size());
    for (std::size_t i = told.size() - std::min<std::size_t>(told.size(), 4); i < told.size(); ++i)
        text += " ... " + told[i].first + " " + told[i].second.substr(0, 30);
    return text;
}

constexpr char kRead[] = "read";
constexpr std::array kDescribed{"data/sdconfig.db", "data/dmhelper.db", "data/sdsecurity.keys"};  // by the mark
constexpr std::array kLogs{"data/sdconfig.db-wal", "data/dmhelper.db-wal"};

}  // namespace

Content contentIn(const Files& files, const std::string& path) {
    const auto found = files.find(path);
    return found == files.end() ? std::nullopt : Content(found->second);
}

std::vector<std::string> replacedFolders(const Files& files) {
    static const std::regex kReplaced(R"(data\.[^/]+\.old/)");
    std::vector<std::string> folders;
    for (const auto& [path, content] : files)
        if (std::regex_match(path, kReplaced)) folders.push_back(path.substr(0, path.size() - 1));
    return folders;
}

void Model::apply(const std::string& mark, const Seen& seen) {
    const auto field = fields(mark);
    const bool isAck = field[0] == "ack";
    if (field[1] == "file") {
        const Content content = seen(field[2]);
        if (isAck && !content) throw Failed(field[2] + " was acknowledged and is not there");
        if (isAck) mFiles[field[2]].clear();
        mFiles[field[2]].insert(content);
        if (isAck) mToldBefore[field[2]] = mTold;
    } else {
        isAck ? acknowledge(field) : begin(field);
    }
}

void Model::begin(const std::vector<std::string>& field) {
    if (field[1] == "upgrade") {
        mUpgrade = field[2];
    } else if (field[1] == "restore") {
        mRestore = {stored(false), mToldBefore.at(field[2])};
    } else if (field[1] == "key") {
        mSealingKey.clear();
        mIsResealed = false;
    } else if (field[1] == "end") {
        mIsServed = false;
    } else if (field[1] == "dropping") {
        mTrailKept = std::stoul(field[2]);
    } else if (field[1] == "accounting") {
        mAccounted.insert(field[2]);
    } else {
        if (field[1] != kRead) mKeys.emplace(field[1], field[2]);
        mUnderWay.push_back({{field[1], field[2]}, field[3], field[4]});
    }
}

void Model::acknowledge(const std::vector<std::string>& field) {
    if (field[1] == "upgrade") {
        settleAll();
        mUpgrade.clear();
    } else if (field[1] == "restore") {
        settleAll();
        mTold = mRestore->told;
        mReplaced[field[2]] = mRestore->before;
        mRestore.reset();
    } else if (field[1] == "key") {
        mSealingKey = field[2];
        mIsResealed = !field[3].empty();
    } else if (field[1] == "start") {
        mIsServed = true;
    } else {
        acknowledge(Key{field[1], field[2]});
    }
}

void Model::acknowledge(const Key& key) {
    const auto begun =
        std::find_if(mUnderWay.begin(), mUnderWay.end(), [&](const auto& one) { return one.key == key; });
    if (begun == mUnderWay.end()) throw Failed(key.second.substr(0, 60) + " was acknowledged, and nobody began it");
    const std::string set = begun->set;
    const auto isDone = [&](const UnderWay& one) { return set.empty() ? one.key == key : one.set == set; };
    const auto rest = std::stable_partition(mUnderWay.begin(), mUnderWay.end(), isDone);
    std::for_each(mUnderWay.begin(), rest, [this](const UnderWay& one) { settle(one); });
    mUnderWay.erase(mUnderWay.begin(), rest);
}

void Model::settle(const UnderWay& change) {
    if (isTold(change)) mTold.push_back(change.key);
    mSettled[change.key] = change.value;
}

void Model::settleAll() {
    for (const UnderWay& change : mUnderWay) settle(change);
    mUnderWay.clear();
}

bool Model::isReadingUnderWay() const {
    return std::any_of(mUnderWay.begin(), mUnderWay.end(), [](const UnderWay& one) { return one.key.first == kRead; });
}

void Model::settleReading(const TrailRead& trail) {
    const UnderWay reading = mUnderWay.at(0);
    std::vector<Key> told = mTold;
    told.push_back(reading.key);
    if (isTrailOf(told, trail)) settle(reading);
    mUnderWay.clear();
}

std::vector<Key> Model::readings() const {
    std::vector<Key> all;
    for (const auto& [kind, name] : mKeys)
        if (kind == "secure" && mAccounted.count(name) != 0) all.emplace_back(kRead, name);
    return all;
}

void Model::settle(const Values& found, const Files& files) {
    const auto isDone = [&](const UnderWay& one) { return valueIn(found, one.key) == one.value; };
    const Values after = stored(true);
    const std::vector<UnderWay> all = std::exchange(mUnderWay, {});
    for (const UnderWay& one : all)
        if (isDone(one)) settle(one);
    for (auto& [path, allowed] : mFiles) allowed = {contentIn(files, path)};
    if (!mRestore) return;
    const bool isRestored = std::any_of(all.begin(), all.end(), [&](const UnderWay& one) {
        return isDone(one) && one.value != valueIn(mRestore->before, one.key);
    });
    for (const std::string& old : replacedFolders(files)) mReplaced.emplace(old, isRestored ? mRestore->before : after);
    if (isRestored) mTold = mRestore->told;
    mRestore.reset();
}

// All that a data folder has by what was acknowledged, or once all that is under way is done.
Values Model::stored(bool isAllDone) const {
    Values values = mSettled;
    for (const UnderWay& one : mUnderWay)
        if (isAllDone) values[one.key] = one.value;
    for (auto at = values.begin(); at != values.end();)
        at = at->first.first == "machine" || at->second.empty() ? values.erase(at) : std::next(at);
    return values;
}

// Whether the trail has an entry of it: what is not there can't be deleted, the machine's are not stored, an upgrade
// has one as a whole, and a restore brings a trail along.
bool Model::isTold(const UnderWay& change) const {
    const bool isNothing = change.key.first != kRead && change.value.empty() && valueIn(mSettled, change.key).empty();
    return mUpgrade.empty() && !mRestore && change.key.first != "machine" && !isNothing;
}

void Model::checkFiles(const Files& files) const {
    for (const auto& [path, allowed] : mFiles)
        if (const Content found = contentIn(files, path); allowed.count(found) == 0)
            throw Failed(path + (found ? " holds " + shown(*found) : " is not there"));
    for (const auto& [old, values] : mReplaced)
        if (files.count(old + "/") == 0) throw Failed(old + ", which a restore made, is not there");
    checkCleanEnd(files);
}

void Model::noteCleanEnd(const Files& seen) {
    Files& described = mCleanEnds[seen.at(kCleanEndMark)];
    for (const char* const path : kDescribed)
        if (const Content content = contentIn(seen, path)) described[path] = *content;
}

// A start trusts the mark where the files' times agree, too, as they may after a cut. So they have to be what it tells
// of, unless a log is left over, which it sees.
void Model::checkCleanEnd(const Files& files) const {
    const Content mark = contentIn(files, kCleanEndMark);
    if (mark && mIsServed) throw Failed("the mark of a clean end is there, though a service was ready since");
    const auto end = mark ? mCleanEnds.find(*mark) : mCleanEnds.end();
    const auto holdsBytes = [&](const char* log) { return !contentIn(files, log).value_or("").empty(); };
    if (end == mCleanEnds.end() || std::any_of(kLogs.begin(), kLogs.end(), holdsBytes)) return;
    for (const char* const path : kDescribed)
        if (contentIn(files, path) != contentIn(end->second, path))
            throw Failed(std::string("the mark of a clean end is there, and tells of another ") + path);
}

void Model::checkValues(const Values& found) const {
    std::set<std::string> sets;
    for (const Key& key : mKeys) {
        const std::string value = valueIn(found, key);
        const auto isIt = [&](const UnderWay& one) { return one.key == key && one.value == value; };
        if (value != valueIn(mSettled, key) && std::none_of(mUnderWay.begin(), mUnderWay.end(), isIt))
            throw Failed(key.second.substr(0, 60) + " holds " + shown(value));
    }
    for (const UnderWay& one : mUnderWay)
        if (!one.set.empty()) sets.insert(one.set);
    for (const std::string& set : sets) checkSet(set, found);
}

void Model::checkSet(const std::string& set, const Values& found) const {
    std::size_t older = 0, newer = 0;
    for (const UnderWay& one : mUnderWay) {
        if (one.set != set || one.value == valueIn(mSettled, one.key)) continue;
        ++(valueIn(found, one.key) == one.value ? newer : older);
    }
    if (older > 0 && newer > 0)
        throw Failed(set + ": " + std::to_string(older) + " old values, " + std::to_string(newer) + " new ones");
}

void Model::checkStored(const Values& stored) const {
    Values all;
    for (const Key& key : mKeys)
        if (key.first == "machine") all[key] = valueIn(mSettled, key);  // it is not stored
    for (const auto& [key, value] : stored) {
        if (mKeys.count(key) == 0) throw Failed(key.second.substr(0, 60) + " is there, and nobody wrote it");
        all[key] = value;
    }
    checkValues(all);
}

// Without a key ring it has nothing yet. Where its oldest files were dropped it has the latest, and its lines fill at
// least the files that are kept: a file is full before another one begins, and goes only once so many others are full.
bool Model::isTrailOf(const std::vector<Key>& told, const TrailRead& trail) const {
    const bool isAll = (trail.isWhole || told.empty()) && trail.told.size() == told.size();
    const bool isLater = mTrailKept && !trail.isWhole && trail.bytes >= *mTrailKept && trail.told.size() <= told.size();
    return (isAll || isLater) && std::equal(trail.told.rbegin(), trail.told.rend(), told.rbegin());
}

// Whether so many of what is under way were done, and no others of what the trail tells of.
bool Model::areDone(std::size_t first, const Values& found) const {
    for (std::size_t i = 0; i < mUnderWay.size(); ++i) {
        const UnderWay& one = mUnderWay[i];
        if (isTold(one) && valueIn(found, one.key) != (i < first ? one.value : valueIn(mSettled, one.key)))
            return false;
    }
    return true;
}

// A change and its entry are one commit: those under way that are stored have theirs, and no others. A reading that
// is under way may have its entry.
void Model::checkTrail(const TrailRead& trail, const Values& found) const {
    if (mRestore && isTrailOf(mRestore->told, trail)) return;
    std::vector<Key> before = mTold;
    for (std::size_t done = 0; done <= mUnderWay.size(); ++done) {
        if (done > 0 && isTold(mUnderWay[done - 1])) before.push_back(mUnderWay[done - 1].key);
        std::vector<Key> told = before;
        for (Key& reading : readings()) told.push_back(std::move(reading));
        if (isTrailOf(told, trail) && areDone(done, found)) return;
    }
    throw Failed("the trail has " + lastOf(trail.told) + "; acknowledged were " + lastOf(mTold));
}

void Model::checkRing(const RingRead& ring) const {
    if (ring.sealing != mSealingKey) throw Failed("the key " + ring.sealing + " seals; made was " + mSealingKey);
    if (mIsResealed && ring.sealedByOthers > 0)
        throw Failed(std::to_string(ring.sealedByOthers) + " rows are sealed by other keys than " + mSealingKey);
}

void Model::checkReplaced(const std::string& old, const Values& inOld, const Values& inStored) const {
    const auto known = mReplaced.find(old);
    if (known != mReplaced.end() && inOld == known->second) return;
    const std::set<Values> both{inOld, inStored};  // one of them is what was there before, the other one the backup's
    if (known == mReplaced.end() && mRestore && both == std::set<Values>{mRestore->before, stored(true)}) return;
    throw Failed(old + " has " + std::to_string(inOld.size()) + " values, and not those that a restore put there");
}

}  // namespace power
