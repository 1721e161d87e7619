// What a forked child must not use of its parent's.
#include "platform/sdbus/fork.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <unordered_map>

namespace sdbus {
namespace {

// sd-bus closes a descriptor in the middle of its work, so a number noted here may mean another thread's file a moment
// later: the inode tells.
struct Descriptor {
    int number;
    dev_t device;
    ino_t inode;
};

struct ForkState {
    std::mutex mutex;
    std::mutex descriptorsMutex;
    // By what noted them: of two notes of the same number one is out of date, and only its own end may take it away.
    std::unordered_map<const ClosedInChild*, Descriptor> descriptors;
    std::atomic<unsigned> generation{0};
};

ForkState* sState = nullptr;

void beforeFork() {
    sState->mutex.lock();
    sState->descriptorsMutex.lock();
}

void inParent() {
    sState->descriptorsMutex.unlock();
    sState->mutex.unlock();
}

void inChild() {
    for (const auto& entry : sState->descriptors) {
        const Descriptor& noted = entry.second;
        struct stat now {};
        if (::fstat(noted.number, &now) == 0 && now.st_dev == noted.device && now.st_ino == noted.inode)
            ::close(noted.number);
    }
    sState->descriptors.clear();
    sState->generation.fetch_add(1, std::memory_order_relaxed);
    inParent();
}

// Made when the library is loaded: a fork must not fall into the making. Never destroyed: static destructors use it.
const int sInstalled [[maybe_unused]] = [] {
    sState = new ForkState;
    return ::pthread_atfork(beforeFork, inParent, inChild);  // fails only without memory
}();

}  // namespace

std::mutex& forkMutex() {
    return sState->mutex;
}

unsigned forkGeneration() {
    return sState->generation.load(std::memory_order_relaxed);
}

ClosedInChild::ClosedInChild(int fd) {
    struct stat now {};
    if (::fstat(fd, &now) < 0) return;
    const std::lock_guard lock(sState->descriptorsMutex);
    sState->descriptors.emplace(this, Descriptor{fd, now.st_dev, now.st_ino});
}

ClosedInChild::~ClosedInChild() {
    const std::lock_guard lock(sState->descriptorsMutex);
    sState->descriptors.erase(this);
}

}  // namespace sdbus
