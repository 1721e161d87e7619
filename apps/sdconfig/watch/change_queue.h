// Changes on their way from the one who hears of them to the one who deals with them.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <utility>

namespace cli {

struct Change {
    std::string key;
    std::string value;
    bool strong = false;
};

// In order, and bounded by the memory that it takes: changes that don't fit are left out. One thread at a time.
class ChangeQueue {
public:
    bool push(Change change) {
        const std::size_t size = sizeOf(change);
        if (size > kMostBytes - mBytes) return false;
        mBytes += size;
        mChanges.push_back(std::move(change));
        return true;
    }

    std::optional<Change> pop() {
        if (mChanges.empty()) return std::nullopt;
        Change change = std::move(mChanges.front());
        mChanges.pop_front();
        mBytes -= sizeOf(change);
        return change;
    }

    std::size_t size() const { return mChanges.size(); }

private:
    // Some hundred thousand small changes, or the four largest values.
    static constexpr std::size_t kMostBytes = 64u << 20;

    static std::size_t sizeOf(const Change& change) { return sizeof(Change) + change.key.size() + change.value.size(); }

    std::deque<Change> mChanges;
    std::size_t mBytes = 0;
};

}  // namespace cli
