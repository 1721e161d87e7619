#include "platform/sdsecurity/keyring_slot.h"

#include <fcntl.h>
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
#include <new>
#include <utility>

#include "base/quiet_thread.h"
#include "base/whole_path.h"
#include "platform/sdsecurity/hex.h"
#include "platform/sdsecurity/ring_file.h"
#include "platform/sdsecurity/spawn_plan.h"

namespace sd::security {

namespace {

using Outcome = SlotAnswer::Outcome;

constexpr char kName[] = "sdconfig-keyring";
constexpr char kNoMemory[] = "out of memory";  // short enough for a string to hold it without any

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

// Starts it: it has the socket as its standard input and output, nothing else of this process's open, and a session of
// its own, so that neither a terminal's keys nor its end reach it. Returns 0, or what kept it from running.
int spawn(const std::string& program, int socket, pid_t& process) {
    SpawnPlan plan(POSIX_SPAWN_SETSID);
    plan.give(socket, STDIN_FILENO);
    plan.give(socket, STDOUT_FILENO);
    plan.open(STDERR_FILENO, "/dev/null", O_WRONLY);
    plan.closeFrom(STDERR_FILENO + 1);
    const std::array<const char*, 2> arguments{program.c_str(), nullptr};
    return plan.run(arguments.data(), environ, process);
}

// Ends it, at whatever it is, and leaves no zombie. Returns its status; nothing where the host waits for all its
// children.
std::optional<int> endOf(pid_t process) {
    ::kill(process, SIGKILL);
    int status = 0;
    pid_t seen = 0;
    do seen = ::waitpid(process, &status, 0);
    while (seen < 0 && errno == EINTR);
    return seen == process ? std::optional<int>(status) : std::nullopt;
}

// How it ended, where it had done so by itself.
std::string howItEnded(std::optional<int> status) {
    std::string ended = std::string(kName) + " ended";
    if (!status) return ended;
    if (WIFEXITED(*status)) return ended + " with code " + std::to_string(WEXITSTATUS(*status));
    return WTERMSIG(*status) == SIGKILL ? ended : ended + " by signal " + std::to_string(WTERMSIG(*status));
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
        hangUp();
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
    } catch (const std::exception&) {
        mWatches.pop_back();
        throw;
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
    // What goes wrong before the line is sent leaves nothing that could be answered.
    const std::uint64_t number = ++mLastNumber;
    const SecretBytes line = keyring::formatLine(number, word, rest);
    Request& request = mRequests[number];
    struct Forgetting {
        std::map<std::uint64_t, Request>& requests;
        std::uint64_t number;
        ~Forgetting() { requests.erase(number); }
    };
    const Forgetting forgetting{mRequests, number};
    request.word = word;
    send(line);
    const auto isOver = [&request] { return request.answer || request.hasFailed; };
    if (!limit)
        mChanged.wait(lock, isOver);
    else if (!mChanged.wait_for(lock, *limit, isOver) && hangUp())
        mFailure = std::string(kName) + " did not answer within " + std::to_string(limit->count()) + " ms";
    return request.answer ? std::move(*request.answer) : notNow(mFailure);
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
    const int problem = spawn(mProgram, other.get(), process);
    if (problem == ENOENT) {  // nothing to wait for, once it is
        mFailure = std::string("the package ") + kName + " is not installed";
        return false;
    }
    if (problem != 0) return didNotStart(mProgram + " can't be run: " + std::strerror(problem));
    mSocket = own.get();
    try {
        mReader = startQuietThread("sdconfig.keys",
                                   [this, socket = std::move(own), process] { readAnswers(socket, process); });
    } catch (const std::exception& error) {
        (void)endOf(process);
        return didNotStart(std::string("no thread can be made: ") + error.what());
    }
    mState = State::Running;
    return true;
}

bool KeyringHelper::didNotStart(std::string reason) {
    mFailure = std::move(reason);
    postponeStart();
    return false;
}

void KeyringHelper::send(const SecretBytes& line) {
    const ssize_t sent = ::send(mSocket, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent != static_cast<ssize_t>(line.size()) && hangUp()) mFailure = std::string(kName) + " takes no request";
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

// Ends the conversation, if there is one; its reader does the rest. Returns whether there was: then the failure says as
// much as can be said without memory.
bool KeyringHelper::hangUp() noexcept {
    const bool isFirst = mState == State::Running;
    if (isFirst) {
        mState = State::Ending;
        mFailure = kNoMemory;
        postponeStart();
        ::shutdown(mSocket, SHUT_RDWR);
    }
    for (auto& [number, request] : mRequests) request.hasFailed = true;
    mChanged.notify_all();
    return isFirst;
}

void KeyringHelper::postponeStart() noexcept {
    mPause = std::min(mPause.count() == 0 ? mLimits.pause : 2 * mPause, mLimits.longest);
    mNextStart = Clock::now() + mPause;
}

// To the end of the program, or of what makes sense: false then.
bool KeyringHelper::takeAnswers(const UniqueFd& socket) {
    keyring::LineReader reader;
    while (reader.read(socket.get())) {
        const std::lock_guard lock(mMutex);
        while (mState == State::Running) {
            const std::optional<std::string_view> line = reader.next();
            if (!line) break;
            if (!take(*line)) return false;
        }
    }
    return !reader.isOverlong();
}

// Where memory runs out the conversation ends, too.
void KeyringHelper::readAnswers(const UniqueFd& socket, pid_t process) noexcept {
    std::optional<bool> makesSense;
    try {
        makesSense = takeAnswers(socket);
    } catch (const std::bad_alloc&) {
    }
    const std::optional<int> status = endOf(process);
    const std::lock_guard lock(mMutex);
    const bool isFirst = hangUp();
    try {
        if (isFirst && makesSense)
            mFailure = *makesSense ? howItEnded(status) : std::string(kName) + " answers what nobody asked";
    } catch (const std::bad_alloc&) {
    }
    mState = State::Off;
    mChanged.notify_all();
}

// False where it is to be asked again: for want of memory, too, here or with whoever is told.
bool KeyringHelper::tellIfFound(const std::string& id, const std::function<void(SlotAnswer)>& onFound) noexcept try {
    SlotAnswer answer = ask(keyring::kWatch, id, std::nullopt);
    if (answer.outcome == Outcome::NotNow) return false;
    onFound(std::move(answer));
    return true;
} catch (const std::exception&) {
    return false;
}

void KeyringHelper::follow(Watch& watch, const std::string& id, const std::function<void(SlotAnswer)>& onFound) {
    while (!tellIfFound(id, onFound)) {
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
