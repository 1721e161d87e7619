#include "src/sdconfig_policy_keeper.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <map>
#include <new>
#include <system_error>
#include <utility>

#include "base/quiet_thread.h"
#include "platform/velmarlog/log_line.h"

namespace sd {

namespace {

using State = PolicySource::State;
using std::chrono::milliseconds;

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "src/sdconfig_policy_keeper";

constexpr milliseconds kNameLimit{2000};
constexpr milliseconds kSteadyWait{20};      // for files of one time, in a stream of changes
constexpr milliseconds kRescanMost{30'000};  // from kRescanLeast on, twice as long each time
constexpr milliseconds kStepPause{3};        // others' turn, as long as a step takes
constexpr milliseconds kRetry{1000};

std::map<std::pair<std::string, std::string>, State> problemsOf(const PolicyReadingStatus& status) {
    std::map<std::pair<std::string, std::string>, State> problems;
    for (const auto* sources : {&status.folders, &status.files})
        for (const PolicySource& one : *sources)
            if (one.state == State::LeftOut || one.state == State::Kept) problems[{one.path, one.detail}] = one.state;
    return problems;
}

}  // namespace

PolicyKeeper::PolicyKeeper(PolicyPlace place)
    : mProcess(::getpid()),
      mWatch(place.folders),
      mFolders(place.folders, place.owner),
      mUsers(::geteuid(), systemUsers(), kNameLimit, [this] { mWatch.wake(); }),
      mEnd(::eventfd(0, EFD_CLOEXEC)) {}

PolicyKeeper::~PolicyKeeper() {
    if (!mThread.joinable()) return;
    if (::getpid() != mProcess) {
        mThread.detach();
        return;
    }
    mIsEnding = true;
    const std::uint64_t one = 1;
    (void)!::write(mEnd.get(), &one, sizeof one);
    mWatch.wake();
    mThread.join();
}

PolicyKeeper::Policies PolicyKeeper::read() {
    const auto limit = std::chrono::steady_clock::now() + kSteadyWait;
    const auto isUnfinished = [this](const std::string& path) { return mWatch.isUnfinished(path); };
    Policies now;
    do {
        mIsWatching = mWatch.arm();
        now = mFolders.read(mUsers, isUnfinished);
    } while (mWatch.hasNews() && std::chrono::steady_clock::now() < limit);
    tell(now->status(), mLast.get());
    return now;
}

PolicyKeeper::Policies PolicyKeeper::readFirst() {
    return mLast = read();
}

// What went wrong is told once, not at every reading.
void PolicyKeeper::tell(const PolicyReadingStatus& now, const MachinePolicies* before) const {
    const auto known = before ? problemsOf(before->status()) : decltype(problemsOf(now)){};
    for (const auto& [problem, state] : problemsOf(now)) {
        if (known.count(problem) != 0) continue;
        const std::string where = problem.first.empty() ? "" : problem.first + ": ";
        LOG(7, AT "machine policies: %s%s; %s", HERE, where.c_str(), problem.second.c_str(),
            state == State::Kept ? "what was read there before stays in force" : "nothing of it counts");
    }
    for (const auto& [name, reason] : now.nobody)
        if (!before || before->status().nobody.count(name) == 0)
            LOG(6, AT "machine policies: \"%s\" %s", HERE, name.c_str(), reason.c_str());
}

bool PolicyKeeper::start(std::function<Progress()> haveTaken) {
    if (mThread.joinable()) return true;  // a host may start its service again
    mHaveTaken = std::move(haveTaken);
    if (!mEnd || !mWatch.canWake()) {  // a thread that can't be woken could not be ended either
        LOG(7, AT "machine policies: changes of them won't be noticed: there are no descriptors left", HERE);
        return false;
    }
    try {
        mThread = startQuietThread("sdconfig.policy", [this] { run(); });
    } catch (const std::system_error& error) {
        LOG(7, AT "machine policies: changes of them won't be noticed: %s", HERE, error.what());
    }
    return mThread.joinable();
}

// False at the end.
bool PolicyKeeper::waitForChange() {
    // Of what a link leads to no change is told, nor of when a failure is over.
    const bool isSure = mIsWatching && !mLast->status().hasLinks && !mLast->status().hasFailures;
    mWatch.wait(isSure ? milliseconds(-1) : mRescan);
    mRescan = isSure ? kRescanLeast : std::min(mRescan * 2, kRescanMost);
    return pause(milliseconds(0));
}

// False at the end, which it does not sleep through.
bool PolicyKeeper::pause(milliseconds time) const {
    pollfd end{mEnd.get(), POLLIN, 0};
    return ::poll(&end, 1, static_cast<int>(time.count())) <= 0 && !mIsEnding;
}

void PolicyKeeper::run() {
    bool goesOn = true;
    while (goesOn) {
        try {
            goesOn = waitForChange();
        } catch (const std::bad_alloc&) {  // of what the change was, which the reading tells as well
        }
        while (goesOn && !takeChange()) goesOn = pause(kRetry);
    }
}

// False where memory ran out: what is in force stays so until it is read.
bool PolicyKeeper::takeChange() {
    try {
        handOver(read());
        return true;
    } catch (const std::exception& failure) {
        LOG(7, AT "machine policies: %s", HERE, failure.what());
        return false;
    }
}

void PolicyKeeper::handOver(Policies next) {
    {
        const std::lock_guard lock(mMutex);
        mNext = std::make_unique<Transition>(Transition{mLast, next, changedUris(mLast.get(), next.get())});
        if (!mNext->uris.empty()) LOG(5, AT "machine policies: %zu changed", HERE, mNext->uris.size());
    }
    mLast = std::move(next);
    for (Progress progress = mHaveTaken(); progress != Progress::Done; progress = mHaveTaken())
        if (!pause(progress == Progress::GoesOn ? kStepPause : kRetry)) return;
}

PolicyKeeper::Policies PolicyKeeper::take() {
    const std::lock_guard lock(mMutex);
    if (!mNext) return nullptr;
    mTransition = std::move(*mNext);
    mNext.reset();
    return mTransition.after;
}

}  // namespace sd
