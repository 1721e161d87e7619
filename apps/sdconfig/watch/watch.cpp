#include "apps/sdconfig/watch/watch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <set>

#include "apps/sdconfig/policy/effective.h"
#include "apps/sdconfig/properties/property_files.h"
#include "apps/sdconfig/request/key_pattern.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/colour.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "apps/sdconfig/terminal/signal_pipe.h"
#include "apps/sdconfig/watch/change_queue.h"
#include "apps/sdconfig/watch/command_runner.h"
#include "libsdconfig/dmconfig.h"
#include "libsdconfig/sdconfig.h"
#include "libsdconfig/sdconfig_text.h"
#include "src/sdconfig_protocol.h"

namespace cli {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kCheckEvery = 1000ms;
constexpr auto kMostForUnregistering = 5000ms;
constexpr auto kMostKeysOfACall = static_cast<std::size_t>(sd::protocol::kMaxElements);

sd::DMConfig& policies() {
    return *sd::DMConfig::GetInstance();
}

// What the event thread hears, for the main thread.
class Inbox : public sd::DMConfig::Listener {
public:
    Inbox() : mArrived(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~Inbox() override {
        if (mArrived >= 0) ::close(mArrived);
    }
    Inbox(const Inbox&) = delete;
    Inbox& operator=(const Inbox&) = delete;

    void onChanged(const std::string& key, const std::string& value, bool flag) override {
        const std::lock_guard lock(mMutex);
        if (!mChanges.push({key, value, flag})) ++mLeftOut;
        (void)::eventfd_write(mArrived, 1);
    }

    // A key of which nobody knew.
    void onKey(const std::string& key) {
        const std::lock_guard lock(mMutex);
        if (!mKeys.push({key, "", false})) ++mLeftOut;
        (void)::eventfd_write(mArrived, 1);
    }

    std::optional<Change> takeKey() {
        const std::lock_guard lock(mMutex);
        return mKeys.pop();
    }

    std::optional<Change> take() {
        const std::lock_guard lock(mMutex);
        return mChanges.pop();
    }

    std::size_t takeLeftOut() {
        const std::lock_guard lock(mMutex);
        return std::exchange(mLeftOut, 0);
    }

    int descriptor() const { return mArrived; }  // readable when something may be there
    void drain() const {
        eventfd_t count = 0;
        (void)::eventfd_read(mArrived, &count);
    }

private:
    const int mArrived;
    std::mutex mMutex;
    ChangeQueue mChanges;
    ChangeQueue mKeys;  // without values
    std::size_t mLeftOut = 0;
};

// Never destroyed: where taking a registration back fails, the event thread may call it up to the end of the process.
Inbox& inbox() {
    static Inbox& only = *new Inbox;
    return only;
}

class Watch {
public:
    Watch(const Request& request, Service& service, StoredKeys storedKeys, LastDoer lastDoer)
        : mRequest(request),
          mService(service),
          mStoredKeys(std::move(storedKeys)),
          mLastDoer(std::move(lastDoer)),
          // The reader of our output may leave, too.
          mSignals({SIGINT, SIGTERM, SIGHUP, SIGPIPE}),
          mRunner(request.execute) {
        for (const std::string& key : request.keys) {
            if (isPattern(key))
                mPatterns.push_back(key);
            else
                add(key);
        }
    }

    int run() {
        if (!mPatterns.empty()) {
            hearOfKeys();
            for (const std::string& key : keysThatFit()) add(key);
        }
        const auto answer = mService.call("RegisterListenersWithList(", [&] { return registerAgain(); });
        if (answer.exitCode) return answer.exitCode;
        if (!answer.result) return notRegistered(mRequest);
        mProcess = mService.processId();
        for (auto& [key, value] : mKnown) value = current(key);
        noteWatching(mKeys.size(), !mPatterns.empty());
        int code = kDone;
        while (code == kDone && !interrupted()) code = step();
        unregister();
        mRunner.finish();
        return code;
    }

private:
    void add(const std::string& key) {
        if (!mKnown.try_emplace(key).second) return;
        mKeys.push_back(key);
        mUnregistered[key] = &mInbox;
    }

    // The keys that a pattern stands for: the stored ones, and the properties that files define. Others come as events.
    std::set<std::string> keysThatFit() const {
        std::set<std::string> keys = keysInFiles(mService.productFolder());
        keys.merge(mStoredKeys());
        for (auto key = keys.begin(); key != keys.end();)
            key = fitsAny(*key, mPatterns) ? std::next(key) : keys.erase(key);
        return keys;
    }

    // Every client may hear of changes of secure values and policies, registered or not.
    void hearOfKeys() {
        const auto hear = [&inbox = mInbox, patterns = mPatterns](const std::string& key) {
            if (fitsAny(key, patterns)) inbox.onKey(key);
        };
        for (const char* event : {sd::protocol::kSdconfigChanged, sd::protocol::kPolicyChanged})
            mService.listen(event, hear);
    }

    int takeKey(const std::string& key) {
        if (mKnown.count(key) != 0) return kDone;
        add(key);
        (void)registerAgain();  // where it fails, the next check sees to it
        const auto now = current(key);
        return now ? tellIfNew(*now) : static_cast<int>(kDone);
    }

    // Waits for whatever comes first: a signal, a change, the end of a command, or the time for a check.
    bool interrupted() {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(mNextCheck - Clock::now());
        std::array<pollfd, 3> sources{
            {{mSignals.descriptor(), POLLIN, 0}, {mInbox.descriptor(), POLLIN, 0}, {mRunner.descriptor(), POLLIN, 0}}};
        ::poll(sources.data(), sources.size(), static_cast<int>(std::max(left, 0ms).count()) + 1);
        return signalled();
    }

    bool signalled() const {
        pollfd signal{mSignals.descriptor(), POLLIN, 0};
        return ::poll(&signal, 1, 0) > 0;
    }

    int step() {
        mInbox.drain();
        while (const auto key = mInbox.takeKey())
            if (const int code = takeKey(key->key)) return code;
        while (const auto change = mInbox.take())
            if (const int code = take(*change)) return code;
        if (const std::size_t count = mInbox.takeLeftOut()) {
            noteLeftOut(count);
            mReadings = 1;
        }
        mRunner.proceed();
        if (Clock::now() < mNextCheck) return kDone;
        const int code = check();
        mNextCheck = Clock::now() + kCheckEvery;
        return code;
    }

    // A deletion is told of with an empty value, whatever shows from under it.
    int take(const Change& change) {
        if (change.value.empty())
            if (const auto now = current(change.key)) return tellIfNew(*now);
        return tellIfNew(asSet(change));
    }

    // A property's event calls itself strong, as a strong policy's does, and its value is as it was set already. What
    // gives no text when it is undone was none that the stores had made of a text.
    static Change asSet(Change change) {
        std::string value = sd::textAsSet(change.value);
        const bool isProperty = change.strong && !fitsJson(value) && !policies().isStrongControl(change.key);
        if (!isProperty) change.value = std::move(value);
        return change;
    }

    int tell(const Change& change) {
        mKnown[change.key] = change;
        mRunner.add(change);
        Object object;
        addBytes(object, "key", change.key);
        addBytes(object, "value", change.value);
        object["strong"] = change.strong;
        // Without a terminal a line ends with the value, whatever that is.
        const auto doer = mRequest.json || isTerminal() ? mLastDoer(change.key) : std::nullopt;
        if (doer) object["entry"] = doer->entry;
        const std::string who = doer ? "  " + coloured(doer->words, Colour::Faint) : "";
        return print(mRequest, shownInLine(change.key) + " " + shownInLine(change.value) + who + "\n", object);
    }

    int tellIfNew(const Change& now) {
        const std::optional<Change>& known = mKnown[now.key];
        if (known && known->value == now.value && known->strong == now.strong) return kDone;
        return tell(now);
    }

    // The value as the service has it: the secure one, or the property where there is none; of a property the service
    // says that it is strong. Nothing where the service doesn't answer.
    static std::optional<Change> current(const std::string& key) {
        const sd::PolicyMap policy = policies().GetPolicyWithUri(key);
        if (policy.empty()) return std::nullopt;
        const Effective effective = answered(policy);
        const bool strong = effective.origin == Origin::StrongPolicy;
        if (!effective.value.empty() || strong) return Change{key, effective.value, strong};
        const std::string property = sd::SDConfig::GetInstance()->GetProperty(key);
        return Change{key, property, !property.empty()};
    }

    int check() {
        if (!mService.listening()) {
            if (!std::exchange(mLost, true)) noteServiceLost();
            return kDone;
        }
        const bool registered = registerMissing();
        const int process = mService.processId();  // the calls before may have started it
        // What can't be registered yet has to wait for a later check.
        const bool restarted = mAnswers && mUnregistered.empty() && process != 0 && process != mProcess;
        if (restarted) mProcess = process;
        if (restarted || registered) {
            restarted ? noteRestarted(registered) : noteRegisteredAgain();
            // The bus layer takes up to half a second to have events sent to it again, so this is done twice.
            mReadings = 2;
            if (!mPatterns.empty())
                for (const std::string& key : keysThatFit()) mInbox.onKey(key);
        }
        mLost = false;
        if (mAnswers) mHangs = false;
        return readAgain();
    }

    // Whether keys had no registration any more and have one now. A key that another client keeps registered is left
    // alone: taking a registration of ours back would take that client's.
    bool registerMissing() {
        mAnswers = mUnregistered.empty() && allRegistered();
        if (mAnswers || signalled()) return false;
        // Each call on a service that hangs takes 5 s: one more of them is enough.
        const Probe probe = mService.probe();
        mAnswers = probe.answered;
        if (!mAnswers && probe.listening && !std::exchange(mHangs, true)) noteServiceHangs(probe.how.what);
        if (!mAnswers) return false;
        for (const std::string& key : mKeys) {
            if (mUnregistered.count(key) != 0 || policies().IsAllConfigsAlreadyListened({key})) continue;
            policies().UnRegisterListener(key, &mInbox, true);
            mUnregistered[key] = &mInbox;
        }
        return !mUnregistered.empty() && registerAgain();
    }

    bool allRegistered() const {
        for (auto key = mKeys.begin(); key != mKeys.end();) {
            const auto end = key + std::min<std::ptrdiff_t>(mKeys.end() - key, kMostKeysOfACall);
            if (!policies().IsAllConfigsAlreadyListened({key, end})) return false;
            key = end;
        }
        return !mKeys.empty() || mService.probe().answered;
    }

    // Registering one by one would send nothing: the client remembers a key that it registered once.
    bool registerAgain() {
        while (!mUnregistered.empty()) {
            const auto count = std::min(mUnregistered.size(), kMostKeysOfACall);
            const auto end = std::next(mUnregistered.begin(), static_cast<std::ptrdiff_t>(count));
            if (!policies().RegisterListenersWithList({mUnregistered.begin(), end}, true)) return false;
            mUnregistered.erase(mUnregistered.begin(), end);
        }
        return true;
    }

    // Tells of what changed while nothing was heard.
    int readAgain() {
        if (mReadings == 0) return kDone;
        --mReadings;
        for (const std::string& key : mKeys) {
            const auto now = current(key);
            if (!now) continue;
            if (const int code = tellIfNew(*now)) return code;
        }
        return kDone;
    }

    void unregister() {
        const auto limit = Clock::now() + kMostForUnregistering;
        for (const std::string& key : mKeys)
            if (mAnswers && mUnregistered.count(key) == 0 && mService.listening() && Clock::now() < limit)
                policies().UnRegisterListener(key, &mInbox, true);
    }

    const Request& mRequest;
    Service& mService;
    const StoredKeys mStoredKeys;
    const LastDoer mLastDoer;
    SignalPipe mSignals;
    CommandRunner mRunner;
    Inbox& mInbox = inbox();
    std::vector<std::string> mPatterns;
    std::vector<std::string> mKeys;
    std::map<std::string, std::optional<Change>> mKnown;  // the last value that was seen
    sd::DMConfig::ListenerList mUnregistered;
    Clock::time_point mNextCheck = Clock::now() + kCheckEvery;
    int mReadings = 0;
    int mProcess = 0;
    bool mLost = false;
    bool mHangs = false;
    bool mAnswers = true;
};

}  // namespace

int watch(const Request& request, Service& service, StoredKeys storedKeys, LastDoer lastDoer) {
    if (request.keys.size() > kMostKeysOfACall)
        return misused(request.command, "more than 122 keys are more than one call takes");
    if (const int code = service.require()) return code;
    return Watch(request, service, std::move(storedKeys), std::move(lastDoer)).run();
}

}  // namespace cli
