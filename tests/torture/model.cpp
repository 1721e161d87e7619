// A second service, of a few hundred lines and without a disk, and random histories that the real one has to agree
// with: the 22 methods by several clients, ends and kills, and edits of the databases beneath it. Compared after each
// step: the answer, the events in their order, and the rows.
//     model SEED HISTORIES STEPS SDCONFIGD
// A history that disagrees is cut down to the shortest that still does, and told.
#include <sqlite3.h>
#include <sys/types.h>

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>

#include "base/letter_case.h"
#include "platform/sdbus/sdbus.h"
#include "platform/velmarlog/velmarlog.h"
#include "tests/torture/service_life.h"

namespace torture {
namespace {

namespace fs = std::filesystem;

constexpr int kCallLimitMs = 5000;
constexpr std::chrono::seconds kFenceLimit{10};
constexpr std::chrono::milliseconds kFenceRetry{40};
constexpr int kLocalPriority = 5;

// ---- Steps ----

struct Step {
    std::string method;  // or "stop", "kill" and the edits of rows: "remove", "spoil", "hollow"
    std::size_t client = 0;
    std::vector<std::string> texts;
    std::vector<int> numbers;
    bool flag = false;
};

std::string shown(const std::string& text) {
    return "\"" + (text.size() > 40 ? text.substr(0, 20) + "... (" + std::to_string(text.size()) + ")" : text) + "\"";
}

std::string shown(const Step& step) {
    std::string text = step.method + " by " + std::to_string(step.client);
    for (const std::string& one : step.texts) text += " " + shown(one);
    for (const int one : step.numbers) text += " " + std::to_string(one);
    return text + (step.flag ? " true" : " false");
}

class Generator {
public:
    explicit Generator(std::uint64_t seed) : mRandom(seed) {}

    std::vector<Step> history(int length) {
        std::vector<Step> steps(static_cast<std::size_t>(length));
        std::generate(steps.begin(), steps.end(), [this] { return step(); });
        return steps;
    }

private:
    template <class Pool>
    auto one(const Pool& pool) {
        return pool[std::uniform_int_distribution<std::size_t>(0, pool.size() - 1)(mRandom)];
    }
    std::string key() {
        static const std::vector<std::string> kKeys{"k",     "K",          "net.proxy", "Net.Proxy",
                                                    "other", "ro.sd.uuid", "ä",         "ro.once"};
        return one(kKeys);
    }
    std::string value() {
        static const std::vector<std::string> kValues{
            "", "a", "a", "b", "null_value", "x&&&7", "5", "&&&", "Grüße", std::string(3000, 'v'), "7"};
        return one(kValues);
    }
    int priority() {
        static const std::vector<int> kPriorities{0, 4, 5, 6, 10, 127, -1};
        return one(kPriorities);
    }
    int below(int most) { return std::uniform_int_distribution<int>(0, most - 1)(mRandom); }

    Step step() {
        // Often what changes something, now and then what only asks.
        static const std::vector<std::string> kMethods{"SET_SECURE",
                                                       "SET_SECURE",
                                                       "SET_SECURE",
                                                       "DEL_SECURE",
                                                       "SET_POLICY",
                                                       "SET_POLICY",
                                                       "SET_POLICY",
                                                       "DELETE_POLICY",
                                                       "SET_POLICYLIST",
                                                       "SET_PROPERTY",
                                                       "DEL_PROPERTY",
                                                       "GET_PROPERTY",
                                                       "LST_PROPERTY",
                                                       "GET_SECURE",
                                                       "GET_SECURE",
                                                       "GET_POLICY",
                                                       "GET_POLICY",
                                                       "ISSTRONG_CONTROL",
                                                       "DM_LIST",
                                                       "DM_GET_POLICIES",
                                                       "DM_CLEAR_ALL_KEYS",
                                                       "REG_LISTENER",
                                                       "REG_LISTENER",
                                                       "UNREG_LISTENER",
                                                       "ISALREADY_LISTHENED",
                                                       "DM_REGISTER_LISTERNER",
                                                       "GET_CONST",
                                                       "SIGN_REQUEST",
                                                       "VERIFY_SIGN",
                                                       "stop",
                                                       "kill",
                                                       "remove",
                                                       "spoil",
                                                       "hollow"};
        Step step;
        step.method = one(kMethods);
        step.client = static_cast<std::size_t>(below(2));
        step.flag = below(2) == 1;
        const bool isList = step.method == "SET_POLICYLIST" || step.method == "DM_GET_POLICIES" ||
                            step.method == "ISALREADY_LISTHENED" || step.method == "DM_REGISTER_LISTERNER";
        for (int count = isList ? below(4) : 1; count > 0; --count) {
            step.texts.push_back(key());
            if (step.method == "SET_POLICYLIST") step.texts.push_back(value());
            step.numbers.push_back(priority());
        }
        if (!isList) step.texts.push_back(value());
        return step;
    }

    std::mt19937_64 mRandom;
};

// ---- The model ----

struct NoCase {
    bool operator()(const std::string& a, const std::string& b) const { return sd::compareFolded(a, b) < 0; }
};

// A row: the key as it was spelled, and what its value reads back as; nothing where that can't be opened.
struct Row {
    std::string key;
    std::optional<std::string> text;
};
using Rows = std::map<std::string, Row, NoCase>;

struct Event {
    std::string name;
    std::vector<std::string> fields;
    bool operator==(const Event& other) const { return name == other.name && fields == other.fields; }
};

// Each byte beyond ASCII is kept as the character of that number.
std::string doubled(const std::string& text) {
    std::string utf8;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x80) utf8 += static_cast<char>(0xc0 | byte >> 6);
        utf8 += static_cast<char>(byte >= 0x80 ? 0x80 | (byte & 0x3f) : byte);
    }
    return utf8;
}

std::string yes(bool value) {
    return value ? "true" : "false";
}

class Model {
public:
    // The fields of the answer. Events go to mEvents.
    std::vector<std::string> answer(const Step& step) {
        using Method = std::vector<std::string> (Model::*)(const Step&);
        static const std::map<std::string, Method> kMethods{{"SET_SECURE", &Model::setSecure},
                                                            {"DEL_SECURE", &Model::deleteSecure},
                                                            {"GET_SECURE", &Model::getSecure},
                                                            {"SET_POLICY", &Model::setPolicy},
                                                            {"DELETE_POLICY", &Model::deletePolicy},
                                                            {"SET_POLICYLIST", &Model::setPolicyList},
                                                            {"GET_POLICY", &Model::getPolicy},
                                                            {"DM_GET_POLICIES", &Model::getPolicies},
                                                            {"DM_LIST", &Model::listPolicies},
                                                            {"DM_CLEAR_ALL_KEYS", &Model::clearPolicies},
                                                            {"ISSTRONG_CONTROL", &Model::isStrongControl},
                                                            {"SET_PROPERTY", &Model::setProperty},
                                                            {"DEL_PROPERTY", &Model::deleteProperty},
                                                            {"GET_PROPERTY", &Model::getProperty},
                                                            {"LST_PROPERTY", &Model::listProperty},
                                                            {"REG_LISTENER", &Model::registerListener},
                                                            {"UNREG_LISTENER", &Model::unregisterListener},
                                                            {"ISALREADY_LISTHENED", &Model::isListened},
                                                            {"DM_REGISTER_LISTERNER", &Model::registerListeners},
                                                            {"GET_CONST", &Model::getConst},
                                                            {"SIGN_REQUEST", &Model::sign},
                                                            {"VERIFY_SIGN", &Model::verify}};
        return (this->*kMethods.at(step.method))(step);
    }

    void restart() {
        mProperties.clear();
        mListeners.clear();
    }

    // An edit of the rows of both databases.
    void edit(const Step& step) {
        for (Rows* const rows : {&mSecure, &mPolicies}) {
            const auto row = rows->find(step.texts[0]);
            if (row == rows->end()) continue;
            if (step.method == "remove")
                rows->erase(row);
            else
                row->second.text = step.method == "hollow" ? std::optional<std::string>("") : std::nullopt;
        }
    }

    std::vector<Event> takeEvents() { return std::exchange(mEvents, {}); }
    const Rows& secure() const { return mSecure; }
    const Rows& policies() const { return mPolicies; }

private:
    struct Weighed {
        std::string value;  // "" for none
        int priority;
    };
    struct Registrations {
        int count = 0;
        bool flag = false;
    };

    static std::optional<Weighed> policyOf(const Row& row) {
        const std::string text = row.text.value_or("");
        if (text.empty()) return std::nullopt;
        const std::size_t at = text.find("&&&");
        const std::string number = at == std::string::npos ? text.substr(text.size() - 1) : text.substr(at + 3);
        if (number.empty() || number.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
        return Weighed{at == std::string::npos ? text.substr(0, text.size() - 1) : text.substr(0, at),
                       std::stoi(number)};
    }

    std::optional<Weighed> policy(const std::string& key) const {
        const auto row = mPolicies.find(key);
        return row == mPolicies.end() ? std::nullopt : policyOf(row->second);
    }

    Weighed effective(const std::string& key) const {
        const auto row = mSecure.find(key);
        const std::string local = row == mSecure.end() ? "" : row->second.text.value_or("");
        const bool hidesWeak = row != mSecure.end() && row->second.key == key;
        const auto weighed = policy(key);
        const bool policyWins = weighed && (weighed->priority > kLocalPriority || (local.empty() && !hidesWeak));
        Weighed result = policyWins ? *weighed : Weighed{local, kLocalPriority};
        if (result.value == "null_value") result.value.clear();
        return result;
    }
    bool isStrong(const std::string& key) const { return effective(key).priority > kLocalPriority; }

    // ---- Events ----

    void tellListeners(const std::string& key, const std::string& value, bool strong) {
        const auto found = mListeners.find(key);
        if (found == mListeners.end()) return;
        mEvents.push_back({"DM_CHANGED", {key, value}});
        if (found->second.flag) mEvents.back().fields.push_back(yes(strong));
    }
    void tellSecure(const std::string& key, const std::string& old) {
        const Weighed now = effective(key);
        if (now.value == old) return;
        tellListeners(key, now.value, isStrong(key));
        mEvents.push_back({".sdconfigChanged", {key, now.value}});
    }

    // ---- Secure values ----

    std::vector<std::string> setSecure(const Step& step) {
        const std::string& key = step.texts[0];
        const std::string old = effective(key).value;
        mSecure.erase(key);
        mSecure[key] = {key, doubled(step.texts[1])};
        tellSecure(key, old);
        return {yes(true)};
    }
    std::vector<std::string> deleteSecure(const Step& step) {
        const std::string& key = step.texts[0];
        const std::string old = effective(key).value;
        const auto row = mSecure.find(key);
        if (row != mSecure.end() && row->second.text != "") mSecure.erase(row);  // an empty row stays
        tellSecure(key, old);
        return {yes(true)};
    }
    std::vector<std::string> getSecure(const Step& step) {
        const std::string& key = step.texts[0];
        std::vector<std::string> fields{effective(key).value};
        if (!fields[0].empty()) return fields;
        const auto policyRow = mPolicies.find(key);
        const auto row = mSecure.find(key);
        const bool isPolicyShut = policyRow != mPolicies.end() && !policyRow->second.text;
        const bool isLocalShut = row != mSecure.end() && row->second.text != "";
        const auto weighed = policy(key);
        const bool isStrongOne = weighed && weighed->priority > kLocalPriority;
        if (isPolicyShut || (!isStrongOne && isLocalShut)) fields.push_back(yes(true));
        return fields;
    }

    // ---- Policies ----

    void writePolicy(const std::string& key, const std::string& value, int priority) {
        const Weighed before = effective(key);
        mPolicies.erase(key);
        mPolicies[key] = {key, doubled(value + "&&&" + std::to_string(priority))};
        const Weighed now = effective(key);
        const bool strong = now.priority > kLocalPriority;
        const bool changed = now.value != before.value;
        const bool flipped = strong != (before.priority > kLocalPriority);
        if (changed || flipped) mEvents.push_back({".DMChanged", {key, now.value, yes(strong)}});
        const auto listener = mListeners.find(key);
        if (changed || (flipped && listener != mListeners.end() && listener->second.flag))
            tellListeners(key, now.value, strong);
    }
    std::vector<std::string> setPolicy(const Step& step) {
        writePolicy(step.texts[0], step.texts[1], step.numbers[0]);
        return {yes(true)};
    }
    std::vector<std::string> setPolicyList(const Step& step) {
        for (std::size_t i = 0; i < step.numbers.size(); ++i)
            writePolicy(step.texts[2 * i], step.texts[2 * i + 1], step.numbers[i]);
        return {yes(!step.numbers.empty())};
    }
    std::vector<std::string> deletePolicy(const Step& step) {
        const auto row = mPolicies.find(step.texts[0]);
        if (row != mPolicies.end() && row->second.text != "") mPolicies.erase(row);
        tellListeners(step.texts[0], "", false);
        return {yes(true)};
    }
    std::vector<std::string> clearPolicies(const Step& /*step*/) {
        for (auto row = mPolicies.begin(); row != mPolicies.end();)
            row = row->second.text == "" ? std::next(row) : mPolicies.erase(row);
        return {yes(true)};
    }
    std::vector<std::string> getPolicy(const Step& step) {
        const Weighed now = effective(step.texts[0]);
        return {now.value, std::to_string(now.priority)};
    }
    std::vector<std::string> getPolicies(const Step& step) {
        std::vector<std::string> fields{std::to_string(step.texts.size())};
        for (const std::string& key : step.texts) {
            const Weighed now = effective(key);
            fields.insert(fields.end(), {key, now.value, std::to_string(now.priority)});
        }
        return fields;
    }
    std::vector<std::string> listPolicies(const Step& /*step*/) {
        std::map<std::string, std::optional<Weighed>> all;
        for (const auto& [key, row] : mPolicies) all[row.key] = policyOf(row);
        std::vector<std::string> fields{std::to_string(all.size())};
        for (const auto& [key, weighed] : all) {
            fields.push_back(key);
            if (!weighed) continue;
            fields.insert(fields.end(),
                          {weighed->value.empty() ? "null_value" : weighed->value, std::to_string(weighed->priority)});
        }
        return fields;
    }
    std::vector<std::string> isStrongControl(const Step& step) { return {yes(isStrong(step.texts[0]))}; }

    // ---- Properties ----

    static bool isReadOnly(const std::string& key) { return key.compare(0, 3, "ro.") == 0; }

    std::vector<std::string> setProperty(const Step& step) {
        std::string& value = mProperties[step.texts[0]];
        if (isReadOnly(step.texts[0]) && !value.empty()) return {yes(false)};
        const bool changed = value != step.texts[1];
        value = step.texts[1];
        if (changed) tellListeners(step.texts[0], value, true);
        return {yes(true)};
    }
    std::vector<std::string> deleteProperty(const Step& step) {
        if (isReadOnly(step.texts[0]) || mProperties.erase(step.texts[0]) == 0) return {yes(false)};
        tellListeners(step.texts[0], "", true);
        return {yes(true)};
    }
    std::vector<std::string> getProperty(const Step& step) {
        const auto found = mProperties.find(step.texts[0]);
        return {found == mProperties.end() ? "" : found->second};
    }
    std::vector<std::string> listProperty(const Step& /*step*/) { return {"0"}; }

    // ---- Listeners, and the rest ----

    void listen(const std::string& key, bool flag) {
        ++mListeners[key].count;
        mListeners[key].flag = flag;
    }
    std::vector<std::string> registerListener(const Step& step) {
        listen(step.texts[0], step.flag);
        return {yes(true)};
    }
    std::vector<std::string> registerListeners(const Step& step) {
        for (const std::string& key : step.texts) listen(key, step.flag);
        return {yes(!step.texts.empty())};
    }
    std::vector<std::string> unregisterListener(const Step& step) {
        const auto found = mListeners.find(step.texts[0]);
        if (found == mListeners.end()) return {yes(false)};
        if (--found->second.count == 0) mListeners.erase(found);
        return {yes(true)};
    }
    std::vector<std::string> isListened(const Step& step) {
        const auto listened = [this](const std::string& key) { return mListeners.count(key) != 0; };
        return {yes(!step.texts.empty() && std::all_of(step.texts.begin(), step.texts.end(), listened))};
    }
    std::vector<std::string> getConst(const Step& /*step*/) { return {""}; }
    std::vector<std::string> sign(const Step& step) { return {step.texts[0]}; }
    std::vector<std::string> verify(const Step& /*step*/) { return {yes(true)}; }

    Rows mSecure;
    Rows mPolicies;
    std::map<std::string, std::string> mProperties;
    std::map<std::string, Registrations> mListeners;
    std::vector<Event> mEvents;
};

// ---- The real one ----

std::vector<std::string> fieldsOf(SDBusMessage& message) {
    std::vector<std::string> fields;
    const std::string kinds = message.signature();
    for (std::size_t i = 0; i < kinds.size(); ++i) {
        const int at = static_cast<int>(i);
        fields.push_back(kinds[i] == 's'   ? message.getString(at)
                         : kinds[i] == 'b' ? yes(message.getBool(at))
                         : kinds[i] == 'y' ? std::to_string(message.getInt(at))
                                           : std::to_string(message.getInt32(at)));
    }
    return fields;
}

// A client: its calls, and the events that it heard of up to a fence.
class Client {
public:
    Client() : mProxy(SDBusSerivceManager::initSync(-1)->getServiceProxyInterface("sdconfig", SDBusSameUser, 1)) {
        for (const char* const name : {"DM_CHANGED", ".sdconfigChanged", ".DMChanged"})
            mProxy->addEventListener(name, new SDBusEventCallback([this, name](std::shared_ptr<SDBusMessage> event) {
                                         const std::lock_guard lock(mMutex);
                                         mEvents.push_back({name, fieldsOf(*event)});
                                         mCame.notify_all();
                                     }),
                                     SDBusSameUser);
    }

    std::vector<std::string> call(const Step& step) {
        const auto message = mProxy->makeMethodCallMessage(step.method);
        const bool isList = step.method == "SET_POLICYLIST" || step.method == "DM_GET_POLICIES" ||
                            step.method == "ISALREADY_LISTHENED" || step.method == "DM_REGISTER_LISTERNER";
        const bool isPolicies = step.method == "SET_POLICYLIST";
        if (isList) message->appendInt8(static_cast<int8_t>(isPolicies ? step.numbers.size() : step.texts.size()));
        for (std::size_t i = 0; i < step.texts.size(); ++i) {
            message->appendString(step.texts[i]);
            if (isPolicies && i % 2 == 1) message->appendInt8(static_cast<int8_t>(step.numbers[i / 2]));
            if (!isList && i == 0 && step.method.find("LISTENER") != std::string::npos) break;
        }
        if (step.method == "SET_POLICY") message->appendInt8(static_cast<int8_t>(step.numbers[0]));
        if (step.method.find("LISTENER") != std::string::npos || step.method == "DM_REGISTER_LISTERNER")
            message->appendBool(step.flag);
        const auto answer = mProxy->callWithReplyBlocking(message, kCallLimitMs);
        if (answer->type() != 2) return {"no answer", std::to_string(answer->getErrorType())};
        return fieldsOf(*answer);
    }

    // The events up to the fence's own, of that value; nothing where it doesn't come within the time.
    std::optional<std::vector<Event>> eventsUpTo(const std::string& fence, std::chrono::milliseconds limit) {
        std::unique_lock lock(mMutex);
        const Event wanted{"DM_CHANGED", {kFence, fence}};
        const auto hasCome = [&] { return std::find(mEvents.begin(), mEvents.end(), wanted) != mEvents.end(); };
        if (!mCame.wait_for(lock, limit, hasCome)) return std::nullopt;
        const auto end = std::find(mEvents.begin(), mEvents.end(), wanted);
        std::vector<Event> events(mEvents.begin(), end);
        mEvents.erase(mEvents.begin(), std::next(end));
        return events;
    }

    static constexpr char kFence[] = "fence";

private:
    std::mutex mMutex;
    std::condition_variable mCame;
    std::deque<Event> mEvents;
    std::shared_ptr<SDBusProxyInterface> mProxy;  // goes first, with the thread that calls back
};

class Rehearsal {
public:
    Rehearsal(std::string sdconfigd, const std::string& place) : mSdconfigd(std::move(sdconfigd)), mLife(place) {}

    // Why the real one disagrees, or "".
    std::string play(const std::vector<Step>& history) {
        fs::remove_all(data());
        fs::create_directory(data());
        fs::permissions(data(), fs::perms::owner_all);
        Model model;
        restart(0);
        std::string why;
        auto step = history.begin();
        while (step != history.end() && (why = take(*step, model)).empty()) ++step;
        (void)mLife.end(SIGKILL);
        return why.empty() ? "" : "step " + std::to_string(step - history.begin() + 1) + ": " + why;
    }

private:
    std::string data() const { return mLife.place() + "/data"; }

    void restart(int signal) {
        if (signal != 0) (void)mLife.end(signal);
        if (!mLife.start({mSdconfigd, "--data-dir", data(), "--product-dir", data()}))
            throw Failed("the service doesn't start: " + mLife.said());
        if (mClients.empty())
            for (int i = 0; i < 2; ++i) mClients.push_back(std::make_unique<Client>());
        Step listen{"REG_LISTENER", 0, {Client::kFence}, {}, false};
        (void)mClients[0]->call(listen);
        // Until both have subscribed again.
        const auto end = std::chrono::steady_clock::now() + kFenceLimit;
        for (auto& client : mClients) do {
                raiseFence();
                if (std::chrono::steady_clock::now() > end) throw Failed("no events come any more");
            } while (!client->eventsUpTo(fence(), kFenceRetry));
        raiseFence();
        for (auto& client : mClients) (void)client->eventsUpTo(fence(), kFenceLimit);
    }

    std::string fence() const { return std::to_string(mFence); }
    void raiseFence() {
        ++mFence;
        (void)mClients[0]->call({"SET_PROPERTY", 0, {Client::kFence, fence()}, {}, false});
    }

    std::string take(const Step& step, Model& model) {
        if (step.method == "stop" || step.method == "kill") {
            restart(step.method == "stop" ? SIGTERM : SIGKILL);
            model.restart();
        } else if (step.method == "remove" || step.method == "spoil" || step.method == "hollow") {
            edit(step);
            model.edit(step);
        } else {
            const auto real = mClients[step.client]->call(step);
            const auto wanted = model.answer(step);
            if (real != wanted) return "answered " + text(real) + ", not " + text(wanted);
        }
        const std::string why = compareEvents(model.takeEvents());
        return why.empty() ? compareRows(model) : why;
    }

    std::string compareEvents(const std::vector<Event>& wanted) {
        raiseFence();
        for (auto& client : mClients) {
            const auto real = client->eventsUpTo(fence(), kFenceLimit);
            if (!real) return "no fence";
            if (*real != wanted) return "told of " + text(*real) + ", not of " + text(wanted);
        }
        return "";
    }

    static std::string text(const std::vector<std::string>& fields) {
        std::string all = "(";
        for (const std::string& field : fields) all += (all.size() > 1 ? ", " : "") + shown(field);
        return all + ")";
    }
    static std::string text(const std::vector<Event>& events) {
        std::string all = "[";
        for (const Event& event : events) all += (all.size() > 1 ? " " : "") + event.name + text(event.fields);
        return all + "]";
    }

    // ---- Rows ----

    struct Table {
        const char* file;
        const char* name;
    };
    static constexpr Table kSecure{"sdconfig.db", "secure_v3"};
    static constexpr Table kPolicies{"dmhelper.db", "dmhelperconfig"};

    template <class Take>
    void query(const Table& table, const std::string& sql, const std::string& key, Take take) const {
        sqlite3* opened = nullptr;
        const int result = sqlite3_open((data() + "/" + table.file).c_str(), &opened);
        const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> database(opened, sqlite3_close);
        sqlite3_busy_timeout(opened, kCallLimitMs);
        sqlite3_stmt* prepared = nullptr;
        if (result != SQLITE_OK || sqlite3_prepare_v2(opened, sql.c_str(), -1, &prepared, nullptr) != SQLITE_OK)
            throw Failed(std::string("a database can't be read: ") + sqlite3_errmsg(opened));
        const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> statement(prepared, sqlite3_finalize);
        if (!key.empty()) sqlite3_bind_text(prepared, 1, key.c_str(), -1, SQLITE_TRANSIENT);
        while (sqlite3_step(prepared) == SQLITE_ROW) take(prepared);
    }

    void edit(const Step& step) const {
        for (const Table& table : {kSecure, kPolicies}) {
            const std::string name = table.name;
            const std::string sql = step.method == "remove" ? "DELETE FROM " + name + " WHERE key = ?"
                                    : step.method == "spoil"
                                        ? "UPDATE " + name + " SET value = 'nothing that opens' WHERE key = ?"
                                        : "UPDATE " + name + " SET value = '' WHERE key = ?";
            query(table, sql, step.texts[0], [](sqlite3_stmt*) {});
        }
    }

    // The keys as they are spelled, and which have an empty value.
    std::string compareRows(const Model& model) const {
        for (const auto& [table, rows] :
             {std::pair(kSecure, &model.secure()), std::pair(kPolicies, &model.policies())}) {
            std::map<std::string, bool> real, wanted;
            query(table, std::string("SELECT key, value = '' FROM ") + table.name, "", [&](sqlite3_stmt* row) {
                real[reinterpret_cast<const char*>(sqlite3_column_text(row, 0))] = sqlite3_column_int(row, 1) != 0;
            });
            for (const auto& [key, row] : *rows) wanted[row.key] = row.text == "";
            if (real == wanted) continue;
            std::string why = std::string(table.name) + " has";
            for (const auto& [key, isEmpty] : real) why += " " + shown(key) + (isEmpty ? " (empty)" : "");
            why += ", not";
            for (const auto& [key, isEmpty] : wanted) why += " " + shown(key) + (isEmpty ? " (empty)" : "");
            return why;
        }
        return "";
    }

    const std::string mSdconfigd;
    ServiceLife mLife;
    std::vector<std::unique_ptr<Client>> mClients;
    int mFence = 0;
};

// ---- All ----

// Takes away what is not needed for a disagreement.
std::vector<Step> shortest(Rehearsal& rehearsal, std::vector<Step> history) {
    for (std::size_t length = history.size() / 2; length > 0; length /= 2)
        for (std::size_t at = 0; at + length <= history.size();) {
            std::vector<Step> less = history;
            less.erase(less.begin() + static_cast<std::ptrdiff_t>(at),
                       less.begin() + static_cast<std::ptrdiff_t>(at + length));
            if (rehearsal.play(less).empty())
                at += length;
            else
                history = std::move(less);
        }
    return history;
}

int run(std::uint64_t seed, int histories, int steps, const std::string& sdconfigd) {
    char place[] = "/dev/shm/model-XXXXXX";
    if (!::mkdtemp(place)) throw Failed("no room in /dev/shm");
    Rehearsal rehearsal(sdconfigd, place);
    for (int i = 0; i < histories; ++i) {
        const std::uint64_t own = seed + static_cast<std::uint64_t>(i);
        const std::vector<Step> history = Generator(own).history(steps);
        if (rehearsal.play(history).empty()) continue;
        const std::vector<Step> less = shortest(rehearsal, history);
        std::cout << "seed " << own << ", 1 history of " << steps << " steps disagrees: " << rehearsal.play(less)
                  << "\n";
        for (const Step& step : less) std::cout << "  " << shown(step) << "\n";
        std::cout.flush();
        return 1;
    }
    std::cout << histories << " histories of " << steps << " steps, each as foretold" << std::endl;
    return 0;
}

}  // namespace
}  // namespace torture

int main(int count, char** words) {
    velmarLogSetLevel(8);
    try {
        if (count != 5) throw torture::Failed("model SEED HISTORIES STEPS SDCONFIGD");
        return torture::run(std::stoull(words[1]), std::stoi(words[2]), std::stoi(words[3]), words[4]);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "model: %s\n", failure.what());
        return 2;
    }
}
