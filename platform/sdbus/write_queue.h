// Who pays for what waits to be written: bounds in messages and bytes, for one peer and for all of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <set>

namespace sdbus {

class Peer;
class WriteQueue;

// sd-bus bounds a queue by a count alone, 393,216 messages: a subscriber that did not read cost a server 1.1 GB. A
// client that reads at all stays far below these.
constexpr std::size_t kPeerQueueBytesMax = std::size_t{16} << 20;
constexpr std::size_t kPeerQueueMessagesMax = 16'384;
constexpr std::size_t kAllQueuesBytesMax = std::size_t{256} << 20;

// All queues of the process. Of the loop's thread alone.
class WriteBudget {
public:
    bool isExceeded() const { return mBytes > kAllQueuesBytesMax; }
    Peer& largestDebtor() const;  // where it is exceeded

private:
    friend class WriteQueue;
    std::size_t mBytes = 0;
    std::set<const WriteQueue*> mQueues;
};

// The account of one peer's queue, which itself is in sd-bus and tells no more than its length.
class WriteQueue {
public:
    WriteQueue(WriteBudget& budget, Peer& owner);
    ~WriteQueue();
    WriteQueue(const WriteQueue&) = delete;
    WriteQueue& operator=(const WriteQueue&) = delete;

    // Whether a message of that size may be queued. An empty queue takes one of any size, so that a large answer
    // reaches a client that reads.
    bool admits(std::size_t bytes) const;
    void add(std::size_t bytes);

    // Brings the account in line with the length of sd-bus' queue. sd-bus writes in order; what it queued of itself, an
    // answer to a ping for example, is charged at kOwnMessageBytes.
    void settle(uint64_t queuedMessages);

    bool isEmpty() const { return mSizes.empty(); }
    bool isTooLong() const { return mSizes.size() > kPeerQueueMessagesMax; }

private:
    friend class WriteBudget;
    static constexpr std::size_t kOwnMessageBytes = 1024;

    void removeFirst();

    WriteBudget& mBudget;
    Peer& mOwner;
    std::size_t mBytes = 0;
    std::deque<std::size_t> mSizes;
};

}  // namespace sdbus
