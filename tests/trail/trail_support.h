// A trail for tests: keys that come and go, lines as the writer makes them, and what stands in a folder.
#pragma once

#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "trail/chain.h"
#include "trail/entry.h"
#include "trail/reader.h"

namespace test {

// Keyed enough for a test: a digest of the key's name and the texts.
class Keys {
public:
    void set(std::set<std::string> atHand) {
        const std::lock_guard lock(mMutex);
        mAtHand = std::move(atHand);
    }
    sd::trail::Digest digest() {
        return [this](const std::string& key, const std::vector<std::string_view>& texts) -> std::string {
            const std::lock_guard lock(mMutex);
            if (mAtHand.count(key) == 0) return "";
            std::string all = key;
            for (const std::string_view text : texts) (all += '\0').append(text);
            return sd::trail::lineDigest(all);
        };
    }
    std::string sealing() {
        const std::lock_guard lock(mMutex);
        return mAtHand.empty() ? "" : *mAtHand.rbegin();
    }

private:
    std::mutex mMutex;
    std::set<std::string> mAtHand{"k1"};
};

inline sd::trail::Entry entryOf(const std::string& what, const std::string& key = "") {
    sd::trail::Entry entry;
    entry.what = what;
    if (!key.empty()) entry.key = key;
    return entry;
}

inline std::vector<sd::trail::Line> linesOf(sd::trail::Reader&& reader) {
    std::vector<sd::trail::Line> lines;
    for (sd::trail::Line line; reader.next(line);) lines.push_back(line);
    return lines;
}
// "what key", one for each line.
inline std::vector<std::string> storyOf(const std::string& folder) {
    std::vector<std::string> story;
    for (const auto& line : linesOf({folder, sd::trail::Order::OldestFirst}))
        story.push_back(line.problem.empty() ? line.entry.what + (line.entry.key ? " " + *line.entry.key : "")
                                             : line.problem);
    return story;
}

}  // namespace test
