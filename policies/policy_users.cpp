#include "policies/policy_users.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <iterator>
#include <mutex>
#include <system_error>

#include "base/quiet_thread.h"

namespace sd {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kFresh{5};
constexpr std::size_t kEntryBytesMax = std::size_t{1} << 20;  // of a group with very many members

// What one of the system's reentrant functions finds: `call` takes a buffer and tells the error, and `found`. The
// errors that mean that there is no such entry are those of getpwnam(3).
template <class Entry, class Call>
bool findEntry(Entry& entry, std::vector<char>& buffer, Call call) {
    for (std::size_t size = 4096; size <= kEntryBytesMax; size *= 4) {
        buffer.resize(size);
        Entry* found = nullptr;
        const int failure = call(&entry, buffer.data(), buffer.size(), &found);
        if (failure == 0) return found != nullptr;
        if (failure == ENOENT || failure == ESRCH || failure == EBADF || failure == EPERM) return false;
        if (failure != ERANGE) throw std::system_error(failure, std::generic_category());
    }
    throw std::system_error(ERANGE, std::generic_category());
}

std::optional<uid_t> uidOf(const std::string& name) {
    passwd entry{};
    std::vector<char> buffer;
    const bool found = findEntry(entry, buffer, [&](auto... rest) { return ::getpwnam_r(name.c_str(), rest...); });
    return found ? std::optional(entry.pw_uid) : std::nullopt;
}

std::optional<gid_t> gidOf(const std::string& name) {
    group entry{};
    std::vector<char> buffer;
    const bool found = findEntry(entry, buffer, [&](auto... rest) { return ::getgrnam_r(name.c_str(), rest...); });
    return found ? std::optional(entry.gr_gid) : std::nullopt;
}

// By the user's entry, not the process's: that is what the administrator changes.
std::vector<gid_t> groupsOf(uid_t user) {
    passwd entry{};
    std::vector<char> buffer;
    if (!findEntry(entry, buffer, [&](auto... rest) { return ::getpwuid_r(user, rest...); })) return {};
    int count = 64;
    std::vector<gid_t> groups;
    for (int tries = 0; tries < 4; ++tries) {
        groups.resize(static_cast<std::size_t>(count));
        if (::getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) >= 0) {
            groups.resize(static_cast<std::size_t>(count));
            return groups;
        }
    }
    return {};
}

bool isNumber(const std::string& name) {
    return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool isGroup(const std::string& name) {
    return !name.empty() && name.front() == '@';
}

}  // namespace

UserDirectory systemUsers() {
    return {uidOf, gidOf, groupsOf};
}

// What the two threads share.
struct PolicyUsers::State {
    struct Answer {
        bool exists;
        bool isMeant;
        Clock::time_point at;
    };

    State(uid_t uid, UserDirectory whom, std::function<void()> late)
        : user(uid), directory(std::move(whom)), answeredLate(std::move(late)) {}

    // Asks for what is wanted until there is no more; until memory runs out, which is as with no thread.
    static void ask(const std::shared_ptr<State>& state) {
        std::unique_lock lock(state->mutex);
        try {
            while (!state->wanted.empty()) state->askNext(lock);
        } catch (const std::bad_alloc&) {
            if (!lock.owns_lock()) lock.lock();
            state->wanted.clear();
        }
        state->isAsking = false;
    }

    void askNext(std::unique_lock<std::mutex>& lock) {
        const std::string name = wanted.front();
        lock.unlock();
        const std::optional<Answer> answer = answerOf(name);
        lock.lock();
        wanted.pop_front();
        const auto known = answers.find(name);
        const bool isNews = answer && (known == answers.end() || known->second.isMeant != answer->isMeant ||
                                       known->second.exists != answer->exists);
        unanswered.erase(name);
        if (answer)
            answers[name] = *answer;
        else
            unanswered.insert(name);
        answered.notify_all();
        if (isNews && !isWaitedFor && answeredLate) answeredLate();
    }

    // Nothing where the directory failed.
    std::optional<Answer> answerOf(const std::string& name) const {
        try {
            if (!isGroup(name)) {
                const auto uid = directory.user(name);
                return Answer{uid.has_value(), uid == user, Clock::now()};
            }
            const auto gid = directory.group(name.substr(1));
            if (!gid) return Answer{false, false, Clock::now()};
            const std::vector<gid_t> groups = directory.groupsOf(user);
            return Answer{true, std::find(groups.begin(), groups.end(), *gid) != groups.end(), Clock::now()};
        } catch (const std::system_error&) {
            return std::nullopt;
        }
    }

    const uid_t user;
    const UserDirectory directory;
    std::mutex mutex;
    std::condition_variable answered;
    std::function<void()> answeredLate;  // empty once the object is gone
    std::map<std::string, Answer> answers;
    std::set<std::string> unanswered;  // when they were asked for last, or not within the limit: not waited for again
    std::deque<std::string> wanted;
    bool isAsking = false;
    bool isWaitedFor = false;
};

PolicyUsers::PolicyUsers(uid_t user, UserDirectory directory, std::chrono::milliseconds limit,
                         std::function<void()> answeredLate)
    : mUser(user),
      mProcess(::getpid()),
      mLimit(limit),
      mState(std::make_shared<State>(user, std::move(directory), std::move(answeredLate))) {}

PolicyUsers::~PolicyUsers() {
    if (::getpid() != mProcess) return;
    const std::lock_guard lock(mState->mutex);
    mState->answeredLate = nullptr;
    if (!mState->wanted.empty()) mState->wanted.resize(1);  // that one is being asked for
}

// Under the lock. Where there can be no thread nobody is known.
void PolicyUsers::startAsking() {
    try {
        startQuietThread("sdconfig.users", [shared = mState] { State::ask(shared); }).detach();
        mState->isAsking = true;
    } catch (const std::system_error&) {
        mState->wanted.clear();
    }
}

std::map<std::string, std::string> PolicyUsers::lookUp(const std::set<std::string>& names) {
    State& state = *mState;
    std::unique_lock lock(state.mutex);
    // Users come before groups, for whose answer they shall not have to wait.
    std::vector<std::string> asked;
    std::remove_copy_if(names.begin(), names.end(), std::back_inserter(asked), isNumber);
    std::partition(asked.begin(), asked.end(), [](const std::string& name) { return !isGroup(name); });
    for (const std::string& name : asked) {
        const auto known = state.answers.find(name);
        const bool isFresh =
            known != state.answers.end() && known->second.exists && Clock::now() - known->second.at < kFresh;
        const bool isWanted = std::find(state.wanted.begin(), state.wanted.end(), name) != state.wanted.end();
        if (!isFresh && !isWanted) state.wanted.push_back(name);
    }
    if (!state.wanted.empty() && !state.isAsking) {
        startAsking();
    }
    const auto isSettled = [&](const std::string& name) {
        return state.answers.count(name) != 0 || state.unanswered.count(name) != 0;
    };
    state.isWaitedFor = true;
    state.answered.wait_for(lock, mLimit, [&] { return std::all_of(asked.begin(), asked.end(), isSettled); });
    state.isWaitedFor = false;
    for (const std::string& name : asked)
        if (!isSettled(name)) state.unanswered.insert(name);
    mAreAllAnswered =
        std::none_of(asked.begin(), asked.end(), [&](const auto& name) { return state.unanswered.count(name) != 0; });

    mMeant.clear();
    std::map<std::string, std::string> nobody;
    for (const std::string& name : names) {
        if (isNumber(name)) {
            if (std::stoull(name) == mUser) mMeant.insert(name);
        } else if (const auto answer = state.answers.find(name); answer == state.answers.end()) {
            nobody[name] = "was not answered in time; it counts when the answer comes";
        } else if (!answer->second.exists) {
            nobody[name] = isGroup(name) ? "is no group of this machine" : "is no user of this machine";
        } else if (answer->second.isMeant) {
            mMeant.insert(name);
        }
    }
    return nobody;
}

bool PolicyUsers::isAmong(const std::vector<std::string>& names) const {
    return std::any_of(names.begin(), names.end(), [&](const std::string& name) { return mMeant.count(name) != 0; });
}

}  // namespace sd
