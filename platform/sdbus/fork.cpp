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
struct FileId {
    dev_t device;
    ino_t inode;
};

struct ForkState {
    std::mutex mutex;
    std::mutex descriptorsMutex;
    std::unordered_multimap<int, FileId> descriptors;
    std::atomic<unsigned> generation{0};
};

ForkState& state() {
    static ForkState* const sState = new ForkState;  // never destroyed: used by static destructors
    return *sState;
}

void beforeFork() {
    state().mutex.lock();
    state().descriptorsMutex.lock();
}

void inParent() {
    state().descriptorsMutex.unlock();
    state().mutex.unlock();
}

void inChild() {
    for (const auto& [fd, id] : state().descriptors) {
        struct stat now {};
        if (::fstat(fd, &now) == 0 && now.st_dev == id.device && now.st_ino == id.inode) ::close(fd);
    }
    state().descriptors.clear();
    state().generation.fetch_add(1, std::memory_order_relaxed);
    inParent();
}

ForkState& guarded() {
    static const int sInstalled = ::pthread_atfork(beforeFork, inParent, inChild);
    (void)sInstalled;  // fails only without memory, and then at the first use of the layer
    return state();
}

}  // namespace

std::mutex& forkMutex() {
    return guarded().mutex;
}

unsigned forkGeneration() {
    return guarded().generation.load(std::memory_order_relaxed);
}

ClosedInChild::ClosedInChild(int fd) : mFd(fd) {
    struct stat now {};
    if (::fstat(fd, &now) < 0) return;
    const std::lock_guard lock(guarded().descriptorsMutex);
    state().descriptors.emplace(fd, FileId{now.st_dev, now.st_ino});
}

ClosedInChild::~ClosedInChild() {
    const std::lock_guard lock(state().descriptorsMutex);
    const auto found = state().descriptors.find(mFd);
    if (found != state().descriptors.end()) state().descriptors.erase(found);
}

}  // namespace sdbus
