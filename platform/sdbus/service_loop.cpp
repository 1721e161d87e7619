// The one thread that serves.
#include "platform/sdbus/service_loop.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>

#include "platform/sdbus/contained.h"
#include "platform/sdbus/log.h"
#include "platform/sdbus/threads.h"

namespace sdbus {
namespace {

constexpr char kSource[] = "platform/sdbus/service_loop";

// What other threads may hand over while the loop is busy with a call: as much as may wait for all clients.
constexpr std::size_t kTasksMax = 16'384;
constexpr std::size_t kTaskBytesMax = kAllQueuesBytesMax;

ServiceLoop* sLoop = nullptr;  // guarded by forkMutex()

}  // namespace

ServiceLoop* ServiceLoop::get(std::string& why) {
    const std::lock_guard lock(forkMutex());
    // A child's copy of its parent's loop is left as it is.
    if (sLoop && sLoop->isOfThisProcess()) return sLoop;
    std::unique_ptr<ServiceLoop> loop(new ServiceLoop);
    if (!loop->start(why)) return nullptr;
    return sLoop = loop.release();
}

bool ServiceLoop::start(std::string& why) {
    sd_event* event = nullptr;
    int r = sd_event_new(&event);
    mEvent.reset(event);
    mWake.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (r >= 0 && !mWake) r = -errno;
    if (r >= 0) {
        sd_event_source* source = nullptr;
        const auto onWake = [](sd_event_source*, int, uint32_t, void* self) {
            contained("the service loop", [self] { static_cast<ServiceLoop*>(self)->runTasks(); });
            return 0;
        };
        r = sd_event_add_io(event, &source, mWake.get(), EPOLLIN, onWake, this);
        mWakeSource.reset(source);
    }
    if (r < 0) {
        why = std::string("cannot make the service loop: ") + std::strerror(-r);
        return false;
    }
    // The thread reads mThread, so it starts its work when that stands.
    std::promise<void> ready;
    mThread = startThread("sdbus-service", [this, go = ready.get_future().share()] {
        go.wait();
        run();
    });
    if (!mThread) why = "cannot start the service thread";
    ready.set_value();
    return mThread != nullptr;
}

void ServiceLoop::run() {
    constexpr std::chrono::milliseconds kMemoryPause{10};
    int r = 0;
    while (r >= 0) {
        r = sd_event_run(mEvent.get(), UINT64_MAX);
        if (r != -ENOMEM) continue;
        LOG(7, AT "the service loop is short of memory", HERE);
        std::this_thread::sleep_for(kMemoryPause);
        r = 0;
    }
    LOG(7, AT "the service loop ended: %s", HERE, std::strerror(-r));
    const std::lock_guard lock(mMutex);
    mEnded = true;
    mTasks.clear();
}

void ServiceLoop::runTasks() {
    eventfd_t count = 0;
    (void)::eventfd_read(mWake.get(), &count);
    std::vector<Task> tasks;
    {
        const std::lock_guard lock(mMutex);
        tasks.swap(mTasks);
        mTaskBytes = 0;
    }
    for (Task& task : tasks) {
        contained("a task of the service loop", task);
        task = nullptr;
    }
}

bool ServiceLoop::enqueue(Task task, std::size_t bytes, bool bounded) {
    {
        const std::lock_guard lock(mMutex);
        if (mEnded) return false;
        if (bounded && (mTasks.size() >= kTasksMax || mTaskBytes + bytes > kTaskBytesMax)) return false;
        mTasks.push_back(std::move(task));
        mTaskBytes += bytes;
    }
    (void)::eventfd_write(mWake.get(), 1);
    return true;
}

bool ServiceLoop::post(Task task, std::size_t bytes) {
    return enqueue(std::move(task), bytes, true);
}

void ServiceLoop::postAlways(Task task) {
    (void)enqueue(std::move(task), 0, false);
}

void ServiceLoop::runAndWait(const Task& task) {
    if (isLoopThread()) return task();
    auto done = std::make_shared<std::promise<void>>();
    const auto finished = done->get_future();
    postAlways([&task, done] {
        task();
        done->set_value();
    });
    // Where the loop has ended, the promise goes unkept, which ends the wait as well.
    done.reset();
    finished.wait();
}

}  // namespace sdbus
