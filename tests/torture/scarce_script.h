// The script of calls beneath which things are made scarce, and what may be answered.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/sdbus/sdbus.h"

namespace torture {

struct ScriptStep {
    std::string command, key{}, value{};
    bool isAnothers = false;  // of a client of which nothing is kept
};

// Of each operation one, over values that are there and that are not. round: in each value, and no other round's. A
// client calls from several threads and from a child, too.
enum class Whose { Service, Client };
std::vector<ScriptStep> script(Whose whose, const std::string& round);

// What its key begins with, so that no policy outweighs a secure value.
std::string prefixOf(const ScriptStep& step);

// What a key may hold, or be answered with, by its kind and name: after a failure the old or the new.
using Allowed = std::map<std::pair<std::string, std::string>, std::set<std::string>>;

// What the service is given at its start: a constant and policies of the machine, for all and for this user.
inline constexpr char kConstants[] = "constant=c.value\n";
inline constexpr char kMachineValue[] = "m.value";
std::string machinePolicies(const std::string& value);
Allowed answersFromTheStart();

// Whether the step was not done, nothing for no answer. A question has failed where it wasn't answered.
bool isFailed(const ScriptStep& step, const std::optional<std::string>& answer);

// Weighs an answer; nothing for none. True for a right one, false for a step that failed, an event that did not come
// among them. isAsFailed: an answer that says the same of a failure. Throws Failed for a wrong one, which "" and "0"
// are to a question whose value is there, and for a step that failed where nothing is scarce (!mayFail).
bool weigh(const ScriptStep& step, const std::optional<std::string>& answer, bool mayFail, Allowed& allowed,
           bool isAsFailed = false);

// What failed of a script: a refusal costs one step. What is not heard of or can't be deleted, since its registration
// or change has failed, is a consequence and no further failure.
class Losses {
public:
    // Throws Failed for one too many.
    void add(const ScriptStep& step);

private:
    bool isConsequence(const ScriptStep& step, const std::string& kind, const std::string& key) const;

    std::set<std::pair<std::string, std::string>> mFailed;  // by kind and key
    int mCount = 0;
};

// How often the trail has to tell, and may tell at most, of a method that changed a key.
struct Told {
    int least = 0, most = 0;
};
using Story = std::map<std::pair<std::string, std::string>, Told>;

// Adds a step to it. before: what may have been there. Of properties, which no commit carries, an entry may be missing
// where the step may fail.
void tell(const ScriptStep& step, const std::optional<std::string>& answer, bool mayFail, const Allowed& before,
          Story& story);

// Calls the service of this process's folder, and hears of its events.
class ServiceCaller {
public:
    // Throws Failed where events don't come.
    ServiceCaller();

    // "1" and "0" for true and false, "" for no value, "key=value;" for each of a list; nothing without an answer, and
    // for one that says that it could not be read. mayFail: whether it is not waited for long.
    std::optional<std::string> run(const ScriptStep& step, bool mayFail = false);

private:
    std::string lastOf(const ScriptStep& step, std::chrono::milliseconds limit);

    std::mutex mMutex;
    std::condition_variable mCame;
    std::map<std::string, std::string> mLast;     // what was told of a key
    bool mIsAnswered = true;                      // the latest call
    std::shared_ptr<SDBusProxyInterface> mProxy;  // goes first, with the thread that calls back
};

}  // namespace torture
