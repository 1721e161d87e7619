#include "trail/slots.h"

#include <algorithm>
#include <utility>

#include "trail/reader.h"

namespace sd::trail {

namespace {

// A commit that was told as failed is among the last ones before its process ended, or its slot was taken again.
constexpr int kComparedMax = 1000;

std::string named(std::uint64_t seq) {
    return "entry " + std::to_string(seq);
}

}  // namespace

Slots::Slots(const std::vector<std::string>& slots, const Digest& digest) {
    for (const std::string& slot : slots)
        for (std::size_t at = 0, end = 0; at < slot.size(); at = end + 1) {
            end = std::min(slot.find('\n', at), slot.size());
            add(slot.substr(at, end - at), digest);
        }
}

SlotFindings Slots::compare(const Head& last, const std::string& folder) {
    if (mUnsound > 0) damage(std::to_string(mUnsound) + " lines in the databases are none of the trail");
    compareWithFile(last, folder);
    Head before = last;
    for (auto at = mLines.upper_bound(last.seq); at != mLines.end(); ++at) {
        SlotLine& line = choose(at->second, std::next(at));
        connect(before, line);
        before = {line.entry.seq, line.digest};
        mFindings.lacking.push_back(std::move(line));
    }
    return std::move(mFindings);
}

void Slots::add(std::string text, const Digest& digest) {
    SlotLine line;
    std::string problem;
    if (!parseLine(text, line.entry, problem) || isAttested(text, line.entry, digest) == false) {
        ++mUnsound;
        return;
    }
    line.digest = lineDigest(text);
    line.text = std::move(text);
    Candidates& known = mLines[line.entry.seq];
    const auto isSame = [&](const SlotLine& other) { return other.digest == line.digest; };
    if (std::none_of(known.begin(), known.end(), isSame)) known.push_back(std::move(line));
}

void Slots::damage(const std::string& why, const Entry* entry) {
    Entry damaged = damageEntry(why);
    if (entry) damaged.key = entry->key;
    mFindings.damages.push_back(std::move(damaged));
}

void Slots::tellStored(const SlotLine& line) {
    damage("a commit was made that had been told as failed: that of " + line.entry.what + " as " +
               named(line.entry.seq) + ", a number that another entry has by now",
           &line.entry);
}

void Slots::compareWithFile(const Head& last, const std::string& folder) {
    if (mLines.empty() || mLines.begin()->first > last.seq) return;
    Reader reader(folder, Order::NewestFirst);
    Line line;
    for (int i = 0; i < kComparedMax && reader.next(line); ++i) {
        if (!line.problem.empty()) continue;
        if (line.entry.what == "START" || line.entry.seq < mLines.begin()->first) return;
        const auto known = mLines.find(line.entry.seq);
        if (known == mLines.end()) continue;
        const std::string digest = lineDigest(line.text);
        for (const SlotLine& other : known->second)
            if (other.digest != digest) tellStored(other);
    }
}

// Of several with one number that which the next one follows.
SlotLine& Slots::choose(Candidates& candidates, Lines::iterator next) {
    SlotLine* chosen = &candidates.front();
    if (candidates.size() == 1) return *chosen;
    for (SlotLine& candidate : candidates)
        if (next != mLines.end() && next->second.front().entry.before == candidate.digest) chosen = &candidate;
    for (const SlotLine& candidate : candidates)
        if (&candidate != chosen) tellStored(candidate);
    return *chosen;
}

void Slots::connect(const Head& before, const SlotLine& line) {
    const std::uint64_t seq = line.entry.seq;
    if (seq != before.seq + 1)
        damage(seq == before.seq + 2
                   ? named(before.seq + 1) + " is missing"
                   : "entries " + std::to_string(before.seq + 1) + " to " + std::to_string(seq - 1) + " are missing");
    else if (line.entry.before != before.digest)
        damage(named(before.seq) + " is not the one that " + named(seq) + " followed");
}

Entry damageEntry(const std::string& why) {
    Entry entry;
    entry.source = "trail";
    entry.what = "DAMAGE";
    entry.why = why;
    return entry;
}

}  // namespace sd::trail
