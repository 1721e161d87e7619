// The one thread that serves: an event loop for every service of the process, and the way to it from other threads.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/sdbus/fork.h"
#include "platform/sdbus/handles.h"
#include "platform/sdbus/write_queue.h"

namespace sdbus {

// Never destroyed: the host's static destructors may still publish.
class ServiceLoop {
public:
    using Task = std::function<void()>;

    // The process's loop, started when first asked for. Null, and a line for a person, when it can't be.
    static ServiceLoop* get(std::string& why);

    bool isLoopThread() const { return std::this_thread::get_id() == mThread->get_id(); }

    // False in a child that was forked off the loop's process: there is no thread there.
    bool isOfThisProcess() const { return mGeneration == forkGeneration(); }

    // Has the task run on the loop's thread, later. bytes: what it holds. False when too much waits already.
    bool post(Task task, std::size_t bytes);

    // The same for what must not be refused: releasing what other tasks hold.
    void postAlways(Task task);

    // Runs the task on the loop's thread and waits for it; at once where that is the calling thread.
    void runAndWait(const Task& task);

    // Of the loop's thread.
    sd_event* event() { return mEvent.get(); }
    WriteBudget& budget() { return mBudget; }

private:
    ServiceLoop() = default;
    bool start(std::string& why);
    void run();
    void runTasks();
    bool enqueue(Task task, std::size_t bytes, bool bounded);

    const unsigned mGeneration = forkGeneration();
    EventPtr mEvent;
    SourcePtr mWakeSource;
    UniqueFd mWake;
    std::unique_ptr<std::thread> mThread;
    WriteBudget mBudget;

    std::mutex mMutex;
    std::vector<Task> mTasks;  // guarded by mMutex, as what follows
    std::size_t mTaskBytes = 0;
    bool mEnded = false;
};

}  // namespace sdbus
