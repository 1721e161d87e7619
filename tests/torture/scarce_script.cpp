#include "tests/torture/scarce_script.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/subscribed.h"
#include "tests/torture/service_life.h"
#include "tests/torture/service_model.h"

namespace torture {
namespace {

// No answer is how a handler that failed tells; where none may, a busy machine has its time.
constexpr int kScarceMs = 5000, kPlentyMs = 20000;
constexpr int kLosses = 1;  // for one refusal

const std::map<std::string, std::string>& methods() {
    static const std::map<std::string, std::string> kMethods{{"secure.set", "SET_SECURE"},
                                                             {"secure.get", "GET_SECURE"},
                                                             {"secure.delete", "DEL_SECURE"},
                                                             {"policy.set", "SET_POLICY"},
                                                             {"policy.set.list", "SET_POLICYLIST"},
                                                             {"policy.get", "GET_POLICY"},
                                                             {"policy.get.list", "DM_GET_POLICIES"},
                                                             {"policy.list", "DM_LIST"},
                                                             {"policy.delete", "DELETE_POLICY"},
                                                             {"policy.clear", "DM_CLEAR_ALL_KEYS"},
                                                             {"strong.get", "ISSTRONG_CONTROL"},
                                                             {"property.set", "SET_PROPERTY"},
                                                             {"property.get", "GET_PROPERTY"},
                                                             {"property.delete", "DEL_PROPERTY"},
                                                             {"properties.get", "LST_PROPERTY"},
                                                             {"listener.set", "REG_LISTENER"},
                                                             {"listener.set.list", "DM_REGISTER_LISTERNER"},
                                                             {"listener.get", "ISALREADY_LISTHENED"},
                                                             {"listener.delete", "UNREG_LISTENER"},
                                                             {"constant.get", "GET_CONST"},
                                                             {"machine.get", "GET_POLICY"},
                                                             {"sign.get", "SIGN_REQUEST"},
                                                             {"verify.get", "VERIFY_SIGN"}};
    return kMethods;
}

std::string kindOf(const ScriptStep& step) {
    return step.command.substr(0, step.command.find('.'));
}

std::string operationOf(const ScriptStep& step) {
    return step.command.substr(step.command.find('.') + 1);
}

// A list is of all policies that there are, the machine's too, and of nothing else.
void weighList(const std::string& answer, Allowed& allowed) {
    std::map<std::string, std::string> listed;
    for (std::size_t at = 0, end = 0; (end = answer.find(';', at)) != std::string::npos; at = end + 1) {
        const std::string one = answer.substr(at, end - at);
        listed[one.substr(0, one.find('='))] = one.substr(one.find('=') + 1);
    }
    for (const auto& [name, values] : allowed) {
        if (name.first != "policy" && name.first != "machine") continue;
        const auto found = listed.find((name.first == "policy" ? "policy." : "") + name.second);
        const std::string value = found == listed.end() ? "" : found->second;
        if (values.count(value) == 0) throw Failed("the list has " + name.second + " with " + shown(value));
        if (found != listed.end()) listed.erase(found);
    }
    if (!listed.empty()) throw Failed("the list has " + shown(listed.begin()->first) + ", which was never set");
}

// The key holds what it was given, or, where that is not sure, either.
void change(Allowed& allowed, const std::string& kind, const std::string& key, const std::string& value, bool isSure) {
    std::set<std::string>& values = allowed[{kind, key}];
    if (isSure) values.clear();
    values.insert(value);
}

void weighChange(const ScriptStep& step, const std::string& kind, bool isDone, bool mayFail, Allowed& allowed) {
    if (step.command == "policy.clear") {
        for (auto& [name, values] : allowed)
            if (name.first == kind) change(allowed, kind, name.second, "", isDone);
        return;
    }
    // Of policies in a list the answer tells of the last one.
    const bool isOfTwins = step.command == "policy.set.list";
    change(allowed, kind, step.key, step.value, isDone && !(isOfTwins && mayFail));
    if (isOfTwins) change(allowed, kind, step.key + ".twin", step.value, isDone);
}

Step callOf(const ScriptStep& step) {
    Step call{methods().at(step.command), 0, {}, {9}, true};
    const std::string key = prefixOf(step) + step.key;
    if (!step.key.empty()) call.texts.push_back(key);
    if (!step.value.empty() && kindOf(step) != "listener") call.texts.push_back(step.value);
    if (step.command == "policy.set.list") {
        call.texts.insert(call.texts.end(), {key + ".twin", step.value});
        call.numbers.push_back(9);
    }
    return call;
}

// What an answer says; nothing where that is that what is there could not be read. Those of the other questions have no
// room for that: who can't read leaves them without an answer.
std::optional<std::string> told(const ScriptStep& step, const Fields& fields) {
    constexpr char kPriorityUnknown[] = "-1";
    if (step.command == "policy.list") {
        std::string policies;
        for (std::size_t i = 1; i < fields.size(); i += 3) policies += fields[i] + "=" + fields.at(i + 1) + ";";
        return policies;
    }
    const bool isOfList = step.command == "policy.get.list";
    if (isOfList ? fields.at(3) == kPriorityUnknown : step.command == "secure.get" && fields.size() > 1)
        return std::nullopt;
    const std::string& first = fields.at(isOfList ? 2 : 0);
    return first == yes(true) ? "1" : first == yes(false) ? "0" : first;
}

}  // namespace

std::string prefixOf(const ScriptStep& step) {
    const bool isOfPolicy = step.command.compare(0, 6, "policy") == 0 || step.command == "strong.get";
    return isOfPolicy ? "policy." : "";
}

std::vector<ScriptStep> script(Whose whose, const std::string& round) {
    const std::string mine = "listened." + round;
    // A client that has listened to a key listens to it again by a list: it tells the service of a key alone but once.
    const std::string listen = round.back() == '1' ? "listener.set" : "listener.set.list";
    std::vector<ScriptStep> steps{{"listener.set", mine, "1"},
                                  {"listener.get", mine},
                                  {listen, "heard", "1"},
                                  {listen, "p.heard", "1"},
                                  {"listener.set.list", "policy.heard", "1"}};
    for (const std::string kind : {"secure", "policy"})
        steps.insert(steps.end(), {{kind + ".set", "a", round + ".a"},
                                   {kind + ".set", "big", round + std::string(20000, 'x')},
                                   {kind + ".get", "a"},
                                   {kind + ".get", "kept"},
                                   {kind + ".get", "absent"},
                                   {kind + ".delete", "big"},
                                   {kind + ".set", "b", round + ".b"}});
    if (whose == Whose::Client) steps.insert(steps.end(), {{"threads.get", "3", "4"}, {"fork.get"}});
    steps.insert(steps.end(), {{"secure.set", "heard", round + ".secure", true},
                               {"event.get", "heard", round + ".secure"},
                               {"policy.set", "heard", round + ".policy", true},
                               {"event.get", "policy.heard", round + ".policy"},
                               {"property.set", "p.heard", round + ".property", true},
                               {"event.get", "p.heard", round + ".property"},
                               {"policy.set.list", "c", round + ".c"},
                               {"policy.get.list", "c"},
                               {"policy.get", "c.twin"},
                               {"policy.list"},
                               {"strong.get", "kept"},
                               {"policy.clear"},
                               {"policy.list"},
                               {"policy.set", "kept", "kept.policy"},
                               {"property.set", "p", round + ".p"},
                               {"property.get", "p"},
                               {"properties.get"},
                               {"property.delete", "p"},
                               {"property.get", "p"},
                               {"constant.get", "constant"},
                               {"machine.get", "machine.key"},
                               {"sign.get", "text"},
                               {"verify.get", "text", "text"},
                               {"listener.delete", "heard", "0"},
                               {"listener.delete", "p.heard", "0"},
                               {"listener.delete", "policy.heard", "0"},
                               {"listener.delete", mine, "0"},
                               {"listener.get", mine}});
    return steps;
}

std::string machinePolicies(const std::string& value) {
    const std::string policy = R"({"value": ")" + value + R"(", "priority": 9)";
    return R"({"machine.key": )" + policy + R"(}, "machine.mine": )" + policy + R"(, "users": [")" +
           ::getpwuid(::geteuid())->pw_name + R"("]}})";
}

Allowed answersFromTheStart() {
    return {{{"constant", "constant"}, {"c.value"}},
            {{"machine", "machine.key"}, {kMachineValue}},
            {{"machine", "machine.mine"}, {"", kMachineValue}},  // it counts once somebody told whose name that is
            {{"properties", ""}, {"0"}},
            {{"sign", "text"}, {"text"}},
            {{"verify", "text"}, {"1"}},
            {{"threads", "3"}, {"12"}},
            {{"fork", ""}, {"30"}}};
}

bool isChange(const ScriptStep& step) {
    const std::string operation = operationOf(step);
    return operation != "list" && operation.compare(0, 3, "get") != 0;
}

bool isFailed(const ScriptStep& step, const std::optional<std::string>& answer) {
    return !answer || (isChange(step) && *answer != "1");
}

bool weigh(const ScriptStep& step, const std::optional<std::string>& answer, bool mayFail, Allowed& allowed,
           bool isAsFailed) {
    const std::string what = step.command + " " + step.key;
    const std::string kind = kindOf(step), operation = operationOf(step);
    if (!answer && !mayFail) throw Failed(what + ": no answer, though nothing is scarce");
    if (operation == "list") {
        if (answer) weighList(*answer, allowed);
        return answer.has_value();
    }
    const char* const unset = kind == "listener" ? "0" : "";
    for (const std::string& key : {step.key, step.key + ".twin"})
        if (operation == "set.list" || key == step.key) allowed.insert({{kind, key}, {unset}});
    if (isChange(step)) {
        const bool isDone = !isFailed(step, answer);
        if (!isDone && !mayFail) throw Failed(what + " failed, though nothing is scarce");
        weighChange(step, kind, isDone, mayFail, allowed);
        return isDone;
    }
    if (kind == "strong") {  // where there is a policy
        std::set<std::string>& answers = allowed[{kind, step.key}] = {};
        for (const std::string& value : allowed[{"policy", step.key}]) answers.insert(value.empty() ? "0" : "1");
    }
    if (kind == "event") change(allowed, kind, step.key, step.value, !mayFail);
    const std::set<std::string>& values = allowed[{kind, step.key}];
    if (answer && values.count(*answer) != 0) return kind != "event" || *answer == step.value;
    if (!answer || (isAsFailed && mayFail)) return false;
    throw Failed(what + " was answered with " + shown(*answer) + " in place of " + shown(*values.begin()));
}

bool Losses::isConsequence(const ScriptStep& step, const std::string& kind, const std::string& key) const {
    if (kind != "event") return operationOf(step) == "delete" && mFailed.count({kind, key}) != 0;
    return std::any_of(mFailed.begin(), mFailed.end(), [&](const auto& failed) { return failed.second == key; });
}

void Losses::add(const ScriptStep& step) {
    const std::string kind = kindOf(step), key = prefixOf(step) + step.key;
    if (isConsequence(step, kind, key)) return;
    mFailed.insert({kind, key});
    if (++mCount > kLosses)
        throw Failed(step.command + " " + step.key + " failed, too: " + std::to_string(mCount) +
                     " steps for one refusal");
}

void tell(const ScriptStep& step, const std::optional<std::string>& answer, bool mayFail, const Allowed& before,
          Story& story) {
    const std::string kind = kindOf(step);
    if (!isChange(step) || kind == "listener") return;
    const bool isDone = !isFailed(step, answer);
    const auto add = [&](const std::string& key, bool isSure) {
        Told& told = story[{methods().at(step.command), prefixOf(step) + key}];
        told.least += isDone && isSure ? 1 : 0;
        ++told.most;
    };
    const auto isThere = [&](const std::string& key) {
        const auto found = before.find({kind, key});
        return found != before.end() && found->second.count("") == 0;
    };
    if (step.command == "policy.clear") {
        for (const auto& [name, values] : before)
            if (name.first == kind) add(name.second, isThere(name.second));
    } else if (step.command == "policy.set.list") {
        add(step.key, !mayFail);  // the answer tells of the last one
        add(step.key + ".twin", true);
    } else {
        const bool isCarried = kind != "property" || !mayFail;
        add(step.key, isCarried && (step.command == kind + ".set" || isThere(step.key)));
    }
}

ServiceCaller::ServiceCaller()
    : mProxy(SDBusSerivceManager::initSync(-1)->getServiceProxyInterface("sdconfig", SDBusSameUser, 1)) {
    const auto onEvent = [this](const std::shared_ptr<SDBusMessage>& event) {
        const std::lock_guard lock(mMutex);
        mLast[event->getString(0)] = event->getString(1);
        mCame.notify_all();
    };
    if (!test::isSubscribed(*mProxy, "DM_CHANGED", onEvent)) throw Failed("events can't be asked for");
}

// The last value that was heard for the key, as soon as it is the one that is waited for.
std::string ServiceCaller::lastOf(const ScriptStep& step, std::chrono::milliseconds limit) {
    std::unique_lock lock(mMutex);
    if (mIsAnswered) mCame.wait_for(lock, limit, [&] { return mLast[step.key] == step.value; });
    return mLast[step.key];
}

std::optional<std::string> ServiceCaller::run(const ScriptStep& step, bool mayFail) {
    const int limitMs = mayFail ? kScarceMs : kPlentyMs;
    if (step.command == "event.get") return lastOf(step, std::chrono::milliseconds(limitMs));
    const auto call = mProxy->makeMethodCallMessage(methods().at(step.command));
    appendArguments(*call, callOf(step));
    const auto answer = mProxy->callWithReplyBlocking(call, limitMs);
    mIsAnswered = answer->type() == 2;
    return mIsAnswered ? told(step, fieldsOf(*answer)) : std::nullopt;
}

}  // namespace torture
