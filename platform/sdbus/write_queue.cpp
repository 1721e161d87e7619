// Who pays for what waits to be written.
#include "platform/sdbus/write_queue.h"

#include <algorithm>

namespace sdbus {

Peer& WriteBudget::largestDebtor() const {
    const auto largest = std::max_element(
        mQueues.begin(), mQueues.end(), [](const WriteQueue* a, const WriteQueue* b) { return a->mBytes < b->mBytes; });
    return (*largest)->mOwner;
}

WriteQueue::WriteQueue(WriteBudget& budget, Peer& owner) : mBudget(budget), mOwner(owner) {
    mBudget.mQueues.insert(this);
}

WriteQueue::~WriteQueue() {
    mBudget.mBytes -= mBytes;
    mBudget.mQueues.erase(this);
}

bool WriteQueue::admits(std::size_t bytes) const {
    return mSizes.empty() || mBytes + bytes <= kPeerQueueBytesMax;
}

void WriteQueue::add(std::size_t bytes) {
    mSizes.push_back(bytes);
    mBytes += bytes;
    mBudget.mBytes += bytes;
}

void WriteQueue::settle(uint64_t queuedMessages) {
    while (mSizes.size() < queuedMessages) add(kOwnMessageBytes);
    while (mSizes.size() > queuedMessages) removeFirst();
}

void WriteQueue::removeFirst() {
    mBytes -= mSizes.front();
    mBudget.mBytes -= mSizes.front();
    mSizes.pop_front();
}

}  // namespace sdbus
