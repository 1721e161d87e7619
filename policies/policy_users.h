// Whether the user of this service is among those that a policy names.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace sd {

// Whom the system knows. Each may take as long as a directory service does, and raises std::system_error where that
// fails, which is not the same as that it knows nobody of the name.
struct UserDirectory {
    std::function<std::optional<uid_t>(const std::string& name)> user;
    std::function<std::optional<gid_t>(const std::string& name)> group;
    std::function<std::vector<gid_t>(uid_t user)> groupsOf;
};

UserDirectory systemUsers();

// Asks on a thread of its own, which may outlive the object, and remembers the answers: they count at once when a name
// comes again, and are asked for anew where they are older than some seconds, or were that nobody has the name. The
// object itself is for one thread.
class PolicyUsers {
public:
    // limit: how long an answer that was never there is waited for, in milliseconds.
    // answeredLate: called on that thread when an answer differs from what was gone by; may be empty.
    PolicyUsers(uid_t user, UserDirectory directory, std::chrono::milliseconds limit,
                std::function<void()> answeredLate);
    ~PolicyUsers();
    PolicyUsers(const PolicyUsers&) = delete;
    PolicyUsers& operator=(const PolicyUsers&) = delete;

    // Finds out about the names, as "users" has them: a name, a uid or "@group". Those that nobody has, or that were
    // not answered in time, with the reason; they mean nobody. What was answered once counts on where it is not again.
    std::map<std::string, std::string> lookUp(const std::set<std::string>& names);

    // Whether the directory answered about each name of the last look-up.
    bool areAllAnswered() const { return mAreAllAnswered; }

    // Whether the service's user is among them, by what was looked up last.
    bool isAmong(const std::vector<std::string>& names) const;

private:
    struct State;
    void startAsking();

    const uid_t mUser;
    const pid_t mProcess;  // a forked child leaves its parent's thread alone, and the lock that this may hold
    const std::chrono::milliseconds mLimit;
    const std::shared_ptr<State> mState;
    std::set<std::string> mMeant;
    bool mAreAllAnswered = true;
};

}  // namespace sd
