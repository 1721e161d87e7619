// A slot whose key stands in the login keyring of the desktop. The keyring is asked by a program of its own,
// sdconfig-keyring, since what it takes to do so is loaded into no other process.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "base/unique_fd.h"
#include "platform/sdsecurity/keyring_line.h"
#include "platform/sdsecurity/slot_answer.h"

namespace sd::security {

// Where sdconfig-keyring is: found from the place of this program, or where the installation put it. It need not exist.
std::string keyringProgram();

struct KeyringLimits {
    std::chrono::milliseconds answer{5000};    // how long one is waited for
    std::chrono::milliseconds pause{1000};     // before a program that failed is started again; it doubles each time,
    std::chrono::milliseconds longest{60000};  // up to this one
};

// The conversation with sdconfig-keyring, which the first request starts and the destructor ends. NotNow tells that the
// keyring is locked or absent, or why the program can't be asked; Refused, that the keyring was asked, and what it has
// opens nothing. Any thread; but in a forked child everything is NotNow. Throws std::bad_alloc alone.
class KeyringHelper {
public:
    explicit KeyringHelper(std::string program, KeyringLimits limits = {});
    // Ends the watches, too, waiting for those that are telling. Not from within one.
    ~KeyringHelper();
    KeyringHelper(const KeyringHelper&) = delete;
    KeyringHelper& operator=(const KeyringHelper&) = delete;

    // Puts a key of kKeySize into a new item; sealed: its id.
    SlotAnswer store(const SecretBytes& key);
    SlotAnswer find(const std::string& id);
    // Deletes the item; done, too, where there is none.
    SlotAnswer forget(const std::string& id);

    // Calls onFound once, on a thread of its own and with nothing held, as soon as find() would be no more NotNow: at
    // once, when the keyring is unlocked, when it appears. Never, where the object goes before. It costs nothing while
    // nothing happens. Throws std::system_error, too, where a thread can't be had. An onFound that throws is called
    // again later.
    void watch(const std::string& id, std::function<void(SlotAnswer)> onFound);

private:
    using Clock = std::chrono::steady_clock;

    struct Request {
        std::string_view word;
        std::optional<SlotAnswer> answer;
        bool hasFailed = false;  // without an answer it gets none any more
    };
    struct Watch {
        std::thread thread;
        bool hasEnded = false;
    };

    enum class State { Off, Running, Ending };

    bool isForkedChild() const;
    SlotAnswer ask(std::string_view word, std::string_view rest, std::optional<std::chrono::milliseconds> limit);
    // With mMutex held:
    bool start();
    bool didNotStart(std::string reason);
    void send(const SecretBytes& line);
    bool take(std::string_view line);
    bool hangUp() noexcept;
    void postponeStart() noexcept;
    // Threads, and what they do:
    void readAnswers(const UniqueFd& socket, pid_t process) noexcept;
    bool takeAnswers(const UniqueFd& socket);
    bool tellIfFound(const std::string& id, const std::function<void(SlotAnswer)>& onFound) noexcept;
    void follow(Watch& watch, const std::string& id, const std::function<void(SlotAnswer)>& onFound);

    const std::string mProgram;
    const KeyringLimits mLimits;
    const pid_t mOwner;

    std::mutex mMutex;  // guards what follows
    std::condition_variable mChanged;
    bool mIsEnding = false;
    State mState = State::Off;
    int mSocket = -1;  // of the running program; the reader's
    std::thread mReader;
    std::uint64_t mLastNumber = 0;
    std::map<std::uint64_t, Request> mRequests;
    std::string mFailure;  // why none runs
    std::chrono::milliseconds mPause{0};
    Clock::time_point mNextStart{};
    std::list<Watch> mWatches;
};

}  // namespace sd::security
