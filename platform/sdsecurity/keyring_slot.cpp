#include "platform/sdsecurity/keyring_slot.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <system_error>
#include <utility>

#include "base/quiet_thread.h"
#include "base/whole_path.h"
#include "platform/sdsecurity/hex.h"
#include "platform/sdsecurity/ring_file.h"

namespace sd::security {

namespace {

using Outcome = SlotAnswer::Outcome;

constexpr char kName[] = "sdconfig-keyring";

SlotAnswer unanswered(Outcome outcome, std::string reason) {
    SlotAnswer answer;
    answer.outcome = outcome;
    answer.reason = std::move(reason);
    return answer;
}

SlotAnswer notNow(std::string reason) {
    return unanswered(Outcome::NotNow, std::move(reason));
}

// What it was asked for; nothing where that is not what such a request is answered with.
std::optional<SlotAnswer> doneAnswer(std::string_view asked, std::string_view rest) {
    SlotAnswer answer;
    answer.outcome = Outcome::Done;
    if (asked == keyring::kForget) return rest.empty() ? std::optional(std::move(answer)) : std::nullopt;
    if (asked == keyring::kStore) {
        if (!keyring::isItemId(rest)) return std::nullopt;
        answer.sealed = rest;
        return answer;
    }
    std::optional<SecretBytes> key = keyring::keyOfDigits(rest);
    if (!key) return std::nullopt;
    answer.key = std::move(*key);
    return answer;
}

std::optional<SlotAnswer> answerOf(std::string_view asked, const keyring::Line& line) {
    if (line.word == keyring::kDone) return doneAnswer(asked, line.rest);
    if (line.word == keyring::kNotNow && asked != keyring::kWatch) return notNow(std::string(line.rest));
    if (line.word == keyring::kRefused) return unanswered(Outcome::Refused, std::string(line.rest));
    return std::nullopt;
}

// How the program is started: it has the socket as its standard input and output, nothing else of this process's open,
// signals as they are by default, and a session of its own, so that neither a terminal's keys nor its end reach it.
class Start {
public:
    explicit Start(int socket) {
        posix_spawn_file_actions_init(&mFiles);
        posix_spawnattr_init(&mAttributes);
        posix_spawn_file_actions_adddup2(&mFiles, socket, STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&mFiles, socket, STDOUT_FILENO);
        posix_spawn_file_actions_addopen(&mFiles, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addclosefrom_np(&mFiles, STDERR_FILENO + 1);
        sigset_t signals;
        ::sigfillset(&signals);
        posix_spawnattr_setsigdefault(&mAttributes, &signals);
        ::sigemptyset(&signals);
        posix_spawnattr_setsigmask(&mAttributes, &signals);
        posix_spawnattr_setflags(&mAttributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSID);
    }
    ~Start() {
        posix_spawn_file_actions_destroy(&mFiles);
        posix_spawnattr_destroy(&mAttributes);
    }
    Start(const Start&) = delete;
    Start& operator=(const Start&) = delete;

    // Returns 0, or what kept it from running.
    int run(std::string program, pid_t& process) const {
        const std::array<char*, 2> arguments{program.data(), nullptr};
        return ::posix_spawn(&process, program.c_str(), &mFiles, &mAttributes, arguments.data(), environ);
    }

private:
    posix_spawn_file_actions_t mFiles{};
    posix_spawnattr_t mAttributes{};
};

// Ends it, at whatever it is, and leaves no zombie. Returns how it ended, where it had done so by itself.
std::string endOf(pid_t process) {
    ::kill(process, SIGKILL);
    int status = 0;
    pid_t seen = 0;
    do seen = ::waitpid(process, &status, 0);
    while (seen < 0 && errno == EINTR);
    std::string ended = std::string(kName) + " ended";
    if (seen != process) return ended;  // the host waits for all its children
    if (WIFEXITED(status)) return ended + " with code " + std::to_string(WEXITSTATUS(status));
    return WTERMSIG(status) == SIGKILL ? ended : ended + " by signal " + std::to_string(WTERMSIG(status));
}

// Who runs may lie where anybody can make a folder beside its own.
bool isTrusted(const std::string& program) {
    struct stat status {};
    return ::stat(program.c_str(), &status) == 0 && ::access(program.c_str(), X_OK) == 0 &&
           (status.st_uid == 0 || status.st_uid == ::geteuid());
}

}  // namespace

std::string keyringProgram() {
    std::array<char, PATH_MAX> buffer;
    const ssize_t size = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
    const std::string own(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    const std::string folder = own.substr(0, own.rfind('/'));
    const std::string name = std::string("/") + kName;
    // As installed, of a program for users and of one that such a one starts; and as built.
    const std::string started = folder + "/" + SDCONFIG_TO_KEYRING, beside = folder + "/.." + name;
    for (const std::string& place : {started, folder, beside})
        if (std::string program = wholePath(place + name); !folder.empty() && isTrusted(program)) return program;
    return wholePath(std::string(SDCONFIG_PROGRAM_DIR) + "/" + SDCONFIG_TO_KEYRING + name);
}

KeyringHelper::KeyringHelper(std::string program, KeyringLimits limits)
    : mProgram(std::move(program)), mLimits(limits), mOwner(::getpid()) {}

KeyringHelper::~KeyringHelper() {
    if (isForkedChild()) {  // the threads and the program are its parent's
        if (mReader.joinable()) mReader.detach();
        for (Watch& watch : mWatches) watch.thread.detach();
        return;
    }
    {
        const std::lock_guard lock(mMutex);
        mIsEnding = true;
        end("nobody asks it any more");
    }
    for (Watch& watch : mWatches) watch.thread.join();
    if (mReader.joinable()) mReader.join();
}

SlotAnswer KeyringHelper::store(const SecretBytes& key) {
    SecretBytes digits;
    digits.reserve(2 * kKeySize);
    appendHex(key, digits);
    return ask(keyring::kStore, {reinterpret_cast<const char*>(digits.data()), digits.size()}, mLimits.answer);
}

SlotAnswer KeyringHelper::find(const std::string& id) {
    return ask(keyring::kFind, id, mLimits.answer);
}

SlotAnswer KeyringHelper::forget(const std::string& id) {
    return ask(keyring::kForget, id, mLimits.answer);
}

void KeyringHelper::watch(const std::string& id, std::function<void(SlotAnswer)> onFound) {
    if (isForkedChild()) return;
    const std::lock_guard lock(mMutex);
    mWatches.remove_if([](Watch& watch) {
        if (watch.hasEnded) watch.thread.join();
        return watch.hasEnded;
    });
    Watch& watch = mWatches.emplace_back();
    try {
        watch.thread = startQuietThread(
            "sdconfig.watch", [this, &watch, id, onFound = std::move(onFound)] { follow(watch, id, onFound); });
    } catch (const std::system_error&) {
        mWatches.pop_back();
    }
}

bool KeyringHelper::isForkedChild() const {
    return ::getpid() != mOwner;
}

SlotAnswer KeyringHelper::ask(std::string_view word, std::string_view rest,
                              std::optional<std::chrono::milliseconds> limit) {
    if (isForkedChild()) return notNow("a forked process can't ask it");  // the mutex may be held here for good
    if (word != keyring::kStore && !keyring::isItemId(rest))
        return unanswered(Outcome::Refused, "the slot names no item");
    std::unique_lock lock(mMutex);
    mChanged.wait(lock, [this] { return mState != State::Ending; });
    if (mState == State::Off && !start()) return notNow(mFailure);
    const std::uint64_t number = ++mLastNumber;
    Request& request = mRequests[number];
    request.word = word;
    send(keyring::formatLine(number, word, rest));
    const auto isAnswered = [&request] { return request.answer.has_value(); };
    if (!limit)
        mChanged.wait(lock, isAnswered);
    else if (!mChanged.wait_for(lock, *limit, isAnswered))
        end(std::string(kName) + " did not answer within " + std::to_string(limit->count()) + " ms");
    SlotAnswer answer = std::move(*request.answer);
    mRequests.erase(number);
    return answer;
}

// False, with the reason in mFailure, where it can't be, or failed a moment ago.
bool KeyringHelper::start() {
    if (mIsEnding) return didNotStart("nobody asks it any more");
    if (Clock::now() < mNextStart) return false;
    if (mReader.joinable()) mReader.join();  // it has done its work
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
        return didNotStart(systemError("no socket can be made"));
    UniqueFd own(ends[0]);
    const UniqueFd other(ends[1]);
    pid_t process = 0;
    const int problem = Start(other.get()).run(mProgram, process);
    if (problem == ENOENT) {  // nothing to wait for, once it is
        mFailure = std::string("the package ") + kName + " is not installed";
        return false;
    }
    if (problem != 0) return didNotStart(mProgram + " can't be run: " + std::strerror(problem));
    mSocket = own.get();
    try {
        mReader = startQuietThread("sdconfig.keys",
                                   [this, socket = std::move(own), process] { readAnswers(socket, process); });
    } catch (const std::system_error& error) {
        endOf(process);
        return didNotStart(std::string("no thread can be made: ") + error.what());
    }
    mState = State::Running;
    return true;
}

bool KeyringHelper::didNotStart(const std::string& reason) {
    noteFailure(reason);
    return false;
}

void KeyringHelper::send(const SecretBytes& line) {
    const ssize_t sent = ::send(mSocket, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent != static_cast<ssize_t>(line.size())) end(std::string(kName) + " takes no request");
}

// False where it is no answer to anything that was asked.
bool KeyringHelper::take(std::string_view text) {
    const std::optional<keyring::Line> line = keyring::parseLine(text);
    if (!line) return false;
    const auto request = mRequests.find(line->number);
    if (request == mRequests.end() || request->second.answer) return false;
    request->second.answer = answerOf(request->second.word, *line);
    if (!request->second.answer) return false;
    mPause = {};
    mChanged.notify_all();
    return true;
}

// Its reader does the rest.
void KeyringHelper::end(const std::string& reason) {
    if (mState == State::Running) {
        mState = State::Ending;
        noteFailure(reason);
        ::shutdown(mSocket, SHUT_RDWR);
    }
    for (auto& [number, request] : mRequests)
        if (!request.answer) request.answer = notNow(mFailure);
    mChanged.notify_all();
}

void KeyringHelper::noteFailure(const std::string& reason) {
    mFailure = reason;
    mPause = std::min(mPause.count() == 0 ? mLimits.pause : 2 * mPause, mLimits.longest);
    mNextStart = Clock::now() + mPause;
}

void KeyringHelper::readAnswers(const UniqueFd& socket, pid_t process) {
    keyring::LineReader reader;
    bool makesSense = true;
    while (makesSense && reader.read(socket.get())) {
        const std::lock_guard lock(mMutex);
        while (makesSense && mState == State::Running) {
            const std::optional<std::string_view> line = reader.next();
            if (!line) break;
            makesSense = take(*line);
        }
    }
    const std::string ended = endOf(process);
    const std::lock_guard lock(mMutex);
    end(makesSense && !reader.isOverlong() ? ended : std::string(kName) + " answers what nobody asked");
    mState = State::Off;
    mChanged.notify_all();
}

void KeyringHelper::follow(Watch& watch, const std::string& id, const std::function<void(SlotAnswer)>& onFound) {
    for (;;) {
        SlotAnswer answer = ask(keyring::kWatch, id, std::nullopt);
        if (answer.outcome != Outcome::NotNow) {
            onFound(std::move(answer));
            break;
        }
        // A program that failed is started again as soon as it may be; one that is missing is looked for now and then.
        std::unique_lock lock(mMutex);
        const Clock::time_point now = Clock::now();
        const Clock::time_point next = mNextStart > now ? mNextStart : now + mLimits.longest;
        if (mChanged.wait_until(lock, next, [this] { return mIsEnding; })) break;
    }
    const std::lock_guard lock(mMutex);
    watch.hasEnded = true;
}

}  // namespace sd::security
