// Watches of keys, which outlive restarts of the service. Part of sdconfig_settings.h.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "base/quiet_thread.h"
#include "libsdconfig/dmconfig.h"

namespace sd {

namespace detail {

class Watcher;

// One key: hears of changes on the library's thread, and leaves it to the watcher's to look at them.
class WatchedKey : public DMConfig::Listener {
public:
    explicit WatchedKey(std::string name) : mName(std::move(name)) {}

    const std::string& name() const { return mName; }
    virtual void look() = 0;  // reads the value, and tells of another one

    inline void onChanged(const std::string&, const std::string&, bool) final;

private:
    friend class Watcher;
    const std::string mName;
    Watcher* mWatcher = nullptr;
    bool mRegistered = false;  // the watcher's thread alone looks at these two, as long as it is there
    bool mIsFresh = false;     // registered since the last check
    bool mIsDue = false;       // to be looked at; guarded by the watcher's mutex
};

// Keeps keys registered with the service, which forgets them all when it is started again, and looks at those that it
// hears of: on a thread that is there while keys are.
class Watcher : public std::enable_shared_from_this<Watcher> {
public:
    Watcher() = default;
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;
    ~Watcher() {
        if (isInherited()) (void)mThread.release();  // there is no such thread in a forked child
    }

    // Without a word where no thread can be made, as none of the facade's listeners would be called then either.
    void add(const std::shared_ptr<WatchedKey>& key) {
        const std::lock_guard lock(mMutex);
        key->mWatcher = this;
        mKeys.push_back(key);
        mNextCheck = Clock::time_point::min();
        if (mThread)
            mChanged.notify_all();
        else
            startThread();
    }

    // When it returns, the key is not being looked at, unless it is that look which calls.
    void remove(const std::shared_ptr<WatchedKey>& key) {
        if (isInherited()) return;
        if (const auto ended = takeOut(key)) isThisThread(*ended) ? ended->detach() : ended->join();
        if (key->mRegistered) DMConfig::GetInstance()->UnRegisterListener(key->name(), key.get(), false);
    }

    void noteChanged(WatchedKey& key) {
        const std::lock_guard lock(mMutex);
        key.mIsDue = true;
        mChanged.notify_all();
    }

private:
    using Keys = std::vector<std::shared_ptr<WatchedKey>>;
    using Clock = std::chrono::steady_clock;
    using Lock = std::unique_lock<std::mutex>;

    static constexpr std::chrono::seconds kLeastPause{1};
    static constexpr std::chrono::seconds kMostPause{8};  // while there is no service
    static constexpr std::size_t kMostAtOnce = 122;

    bool isInherited() const { return ::getpid() != mProcess; }
    static bool isThisThread(const std::thread& thread) { return thread.get_id() == std::this_thread::get_id(); }

    void startThread() {
        auto thread = std::make_unique<std::thread>();  // before it runs: memory may run out
        try {
            *thread = startQuietThread("sd-watch", [self = shared_from_this(), run = ++mRun] { self->serve(run); });
            mThread = std::move(thread);
        } catch (const std::system_error&) {
        }
    }

    // Returns the thread where it has no more to do.
    std::unique_ptr<std::thread> takeOut(const std::shared_ptr<WatchedKey>& key) {
        Lock lock(mMutex);
        mKeys.erase(std::remove(mKeys.begin(), mKeys.end(), key), mKeys.end());
        if (mThread && !isThisThread(*mThread)) mChanged.wait(lock, [&] { return mBusyWith != key.get(); });
        if (!mKeys.empty()) return nullptr;
        ++mRun;
        mChanged.notify_all();
        return std::move(mThread);
    }

    // run: the number of the thread, which ends when another one is wanted, or none.
    void serve(unsigned run) {
        Lock lock(mMutex);
        auto pause = kLeastPause;
        while (run == mRun) {
            try {
                checkAndLook(lock, pause);
                mChanged.wait_until(lock, mNextCheck, [&] {
                    return run != mRun || Clock::now() >= mNextCheck || std::any_of(mKeys.begin(), mKeys.end(), isDue);
                });
            } catch (const std::bad_alloc&) {
                if (run == mRun) awaitMemory(lock, run);
            }
        }
    }

    void checkAndLook(Lock& lock, std::chrono::seconds& pause) {
        if (Clock::now() >= mNextCheck) {
            mNextCheck = Clock::time_point::max();
            pause = check(lock) ? kLeastPause : std::min(pause * 2, kMostPause);
            mNextCheck = std::min(mNextCheck, Clock::now() + pause);
        }
        for (const auto& key : Keys(mKeys))
            if (std::exchange(key->mIsDue, false)) with(lock, key, [&] { key->look(); });
    }
    static bool isDue(const std::shared_ptr<WatchedKey>& key) { return key->mIsDue; }

    // Which key was being looked at is not known any more: all are, later.
    void awaitMemory(Lock& lock, unsigned run) {
        for (const auto& key : mKeys) key->mIsDue = key->mIsFresh = true;
        mNextCheck = Clock::now() + kLeastPause;
        mChanged.wait_until(lock, mNextCheck, [&] { return run != mRun; });
    }

    // Gives the lock back for as long as the object lives.
    class Unlocked {
    public:
        explicit Unlocked(Lock& lock) : mLock(lock) { mLock.unlock(); }
        ~Unlocked() { mLock.lock(); }
        Unlocked(const Unlocked&) = delete;
        Unlocked& operator=(const Unlocked&) = delete;

    private:
        Lock& mLock;
    };

    // Works on a key without the lock; on none that was taken out meanwhile.
    template <typename Work>
    void with(Lock& lock, const std::shared_ptr<WatchedKey>& key, Work work) {
        if (std::find(mKeys.begin(), mKeys.end(), key) == mKeys.end()) return;
        struct Busy {
            Watcher& watcher;
            const WatchedKey* key;
            ~Busy() {
                if (watcher.mBusyWith == key) watcher.mBusyWith = nullptr;  // else a later thread is at work
                watcher.mChanged.notify_all();
            }
        };
        mBusyWith = key.get();
        const Busy busy{*this, key.get()};
        const Unlocked unlocked(lock);
        work();
    }

    // Registers what is not, or not any more. False where that can't be done now.
    bool check(Lock& lock) {
        const Keys keys = mKeys;
        const bool areKept = [&] {
            const Unlocked unlocked(lock);
            return areRegistered(keys);
        }();
        bool areAll = true;
        for (const auto& key : keys)
            with(lock, key, [&] {
                // The bus layer takes up to half a second to hear of a service that is back, so the value is looked at
                // at the check after, too.
                const bool wasFresh = std::exchange(key->mIsFresh, false);
                if (!key->mRegistered || !areKept) areAll = keepRegistered(*key) && areAll;
                if (wasFresh || key->mIsFresh) noteChanged(*key);
            });
        return areAll;
    }

    static bool areRegistered(const Keys& keys) {
        std::vector<std::string> names;
        for (const auto& key : keys) {
            if (key->mRegistered) names.push_back(key->name());
            const bool isLast = &key == &keys.back();
            if (names.empty() || (names.size() < kMostAtOnce && !isLast)) continue;
            if (!DMConfig::GetInstance()->IsAllConfigsAlreadyListened(names)) return false;
            names.clear();
        }
        return true;
    }

    static bool keepRegistered(WatchedKey& key) {
        DMConfig& service = *DMConfig::GetInstance();
        if (key.mRegistered && service.IsAllConfigsAlreadyListened({key.name()})) return true;
        if (key.mRegistered) service.UnRegisterListener(key.name(), &key, false);  // else it would be called twice
        key.mRegistered = service.RegisterListenersWithList({{key.name(), &key}}, false);
        key.mIsFresh = key.mRegistered;
        return key.mRegistered;
    }

    const pid_t mProcess = ::getpid();
    std::mutex mMutex;  // guards what follows
    std::condition_variable mChanged;
    Keys mKeys;
    const WatchedKey* mBusyWith = nullptr;
    Clock::time_point mNextCheck;
    unsigned mRun = 0;
    std::unique_ptr<std::thread> mThread;
};

void WatchedKey::onChanged(const std::string&, const std::string&, bool) {
    mWatcher->noteChanged(*this);
}

}  // namespace detail

// A watch of a key. When its destructor, or end(), has returned, it calls nobody back any more: they wait for a
// callback that runs, unless they are called from it. A forked child has none of its parent's.
class [[nodiscard]] Watch {
public:
    Watch() = default;
    Watch(std::shared_ptr<detail::Watcher> watcher, std::shared_ptr<detail::WatchedKey> key)
        : mWatcher(std::move(watcher)), mKey(std::move(key)) {
        mWatcher->add(mKey);
    }
    Watch(Watch&& other) noexcept = default;
    Watch& operator=(Watch&& other) noexcept {
        end();
        mWatcher = std::move(other.mWatcher);
        mKey = std::move(other.mKey);
        return *this;
    }
    ~Watch() { end(); }

    void end() noexcept {
        if (const auto key = std::move(mKey)) mWatcher->remove(key);
        mKey = nullptr;
    }

private:
    std::shared_ptr<detail::Watcher> mWatcher;
    std::shared_ptr<detail::WatchedKey> mKey;
};

}  // namespace sd
