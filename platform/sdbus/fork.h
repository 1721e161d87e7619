// What a forked child must not use of its parent's.
#pragma once

#include <mutex>

namespace sdbus {

// Guards the state of this layer that a child takes over. It is held across fork(), so that the child finds that state
// whole; hold it for moments only.
std::mutex& forkMutex();

// Differs between a process and its forked child. What was made under another generation is a copy of the parent's:
// its connections are closed, its threads don't exist, its mutexes may be locked for ever. Forget it, destroy nothing.
unsigned forkGeneration();

// While it lives, a child that is forked closes its copy of the descriptor: a copy would delay the end-of-file at the
// other end, and keep a lock held, for as long as the child runs.
class ClosedInChild {
public:
    explicit ClosedInChild(int fd);
    ~ClosedInChild();
    ClosedInChild(const ClosedInChild&) = delete;
    ClosedInChild& operator=(const ClosedInChild&) = delete;
};

}  // namespace sdbus
