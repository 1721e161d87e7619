// Keeps the machine's policies as the service goes by them: read aside, and swapped on the service's thread.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "policies/folder_watch.h"
#include "policies/machine_policies.h"
#include "policies/policy_folders.h"
#include "policies/policy_users.h"

namespace sd {

// Folders to read, and who may have made what is in them, beside root.
struct PolicyPlace {
    std::vector<std::string> folders;
    uid_t owner;
};

// A thread of its own waits for changes of the folders, reads them, and asks the service over the bus to take what it
// read. The service's own thread takes it, and tells of it in steps.
class PolicyKeeper {
public:
    using Policies = std::shared_ptr<const MachinePolicies>;

    // What a new reading changed, and what of it nobody was told of yet.
    struct Transition {
        Policies before;
        Policies after;
        std::vector<std::string> uris;
        std::size_t told = 0;

        bool isDone() const { return told == uris.size(); }
    };

    explicit PolicyKeeper(PolicyPlace place);
    ~PolicyKeeper();
    PolicyKeeper(const PolicyKeeper&) = delete;
    PolicyKeeper& operator=(const PolicyKeeper&) = delete;

    // The first reading, in the caller's thread: before anything is served.
    Policies readFirst();

    // From now on changes are noticed; false, with a line logged, where there is no thread or descriptor for that.
    // haveTaken: makes the service call take() and tell of what it took, for some milliseconds. It is called on the
    // keeper's thread, again and again until that is done.
    enum class Progress { Done, GoesOn, Unanswered };
    bool start(std::function<Progress()> haveTaken);

    // For the service's thread. A new reading, or null. What it changed is told of from then on.
    Policies take();
    Transition& transition() { return mTransition; }

    // Has the folders read as if something changed there. Any thread.
    void lookAgain() const { mWatch.wake(); }

    // Whether changes are noticed at once, not every 30 s. Any thread.
    bool isWatching() const { return mIsWatching; }

private:
    Policies read();
    void run();
    bool waitForChange();
    bool takeChange();
    void handOver(Policies next);
    bool pause(std::chrono::milliseconds time) const;
    void tell(const PolicyReadingStatus& now, const MachinePolicies* before) const;

    const pid_t mProcess;  // a forked child has no such thread
    FolderWatch mWatch;
    PolicyFolders mFolders;
    PolicyUsers mUsers;
    std::atomic<bool> mIsWatching{false};
    static constexpr std::chrono::milliseconds kRescanLeast{1000};
    std::chrono::milliseconds mRescan{kRescanLeast};  // the thread's own
    std::function<Progress()> mHaveTaken;
    Policies mLast;  // the last reading; the thread's own once that runs

    UniqueFd mEnd;  // can be read at the end; a condition that is waited for could not go in a forked child
    std::atomic<bool> mIsEnding{false};

    std::mutex mMutex;                  // of what follows
    std::unique_ptr<Transition> mNext;  // that the service is to take

    Transition mTransition;  // the service's thread's own
    std::thread mThread;
};

}  // namespace sd
