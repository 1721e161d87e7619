#include "tests/torture/power/model.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
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
std::string lastOf(const std::vector<std::string>& keys) {
    std::string text = std::to_string(keys.size());
    for (std::size_t i = keys.size() - std::min<std::size_t>(keys.size(), 4); i < keys.size(); ++i)
        text += " ... " + keys[i].substr(0, 30);
    return text;
}

bool isTail(const TrailRead& trail, const std::vector<std::string>& changes) {
    if (trail.isWhole ? trail.keys.size() != changes.size() : trail.keys.size() > changes.size()) return false;
    return std::equal(trail.keys.rbegin(), trail.keys.rend(), changes.rbegin());
}

}  // namespace

Content contentIn(const Files& files, const std::string& path) {
    const auto found = files.find(path);
    return found == files.end() ? std::nullopt : Content(found->second);
}

void Model::apply(const std::string& mark, const Seen& seen) {
    const auto field = fields(mark);
    const bool isAck = field[0] == "ack";
    if (field[1] == "upgrade") {
        mUpgrade = isAck ? "" : field[2];
    } else if (field[1] == "file") {
        const Content content = seen(field[2]);
        if (isAck && !content) throw Failed(field[2] + " was acknowledged and is not there");
        if (isAck) mFiles[field[2]].clear();
        mFiles[field[2]].insert(content);
    } else if (isAck) {
        acknowledge({field[1], field[2]});
    } else {
        mKeys.emplace(field[1], field[2]);
        mUnderWay.push_back({{field[1], field[2]}, field[3], field[4]});
        mIsTrailAnothers = mIsTrailAnothers || field[4] == "restore";
    }
}

// A set with its first key.
void Model::acknowledge(const Key& key) {
    const auto begun =
        std::find_if(mUnderWay.begin(), mUnderWay.end(), [&](const auto& one) { return one.key == key; });
    if (begun == mUnderWay.end()) return;
    const std::string set = begun->set;
    const auto isDone = [&](const UnderWay& one) { return set.empty() ? one.key == key : one.set == set; };
    const auto rest = std::stable_partition(mUnderWay.begin(), mUnderWay.end(), isDone);
    std::for_each(mUnderWay.begin(), rest, [this](const UnderWay& one) { settle(one); });
    mUnderWay.erase(mUnderWay.begin(), rest);
}

void Model::settle(const UnderWay& change) {
    if (isTold(change)) mChanges.push_back(change.key.second);
    mSettled[change.key] = change.value;
}

void Model::settleAll() {
    for (const UnderWay& change : mUnderWay) settle(change);
    mUnderWay.clear();
}

// Whether the trail has an entry of it: what is not there can't be deleted, the machine's are not stored, and an
// upgrade has one as a whole.
bool Model::isTold(const UnderWay& change) const {
    const bool isNothing = change.value.empty() && valueIn(mSettled, change.key).empty();
    return mUpgrade.empty() && change.key.first != "machine" && !isNothing;
}

void Model::checkFiles(const Files& files) const {
    for (const auto& [path, allowed] : mFiles)
        if (const Content found = contentIn(files, path); allowed.count(found) == 0)
            throw Failed(path + (found ? " holds " + shown(*found) : " is not there"));
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

// Whether so many of what is under way were done, and no others of what the trail tells of.
bool Model::areDone(std::size_t first, const Values& found) const {
    for (std::size_t i = 0; i < mUnderWay.size(); ++i) {
        const UnderWay& one = mUnderWay[i];
        if (isTold(one) && valueIn(found, one.key) != (i < first ? one.value : valueIn(mSettled, one.key)))
            return false;
    }
    return true;
}

// A change and its entry are one commit: those under way that are stored have theirs, and no others.
void Model::checkTrail(const TrailRead& trail, const Values& found) const {
    if (mIsTrailAnothers) return;
    std::vector<std::string> changes = mChanges;
    for (std::size_t done = 0; done <= mUnderWay.size(); ++done) {
        if (done > 0 && isTold(mUnderWay[done - 1])) changes.push_back(mUnderWay[done - 1].key.second);
        if (isTail(trail, changes) && areDone(done, found)) return;
    }
    throw Failed("the trail has " + lastOf(trail.keys) + "; acknowledged were " + lastOf(mChanges));
}

}  // namespace power
