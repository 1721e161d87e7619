// Plays random histories to the real service and to a model of it, and compares the two. Two clients call the 22
// methods, the service is ended and killed, the databases and the product's files are edited beneath it. Compared after
// each step are the answer, the listeners with their counts, the value, policy, control, property and constant of each
// key, the events in their order, and the rows.
//     model SEED HISTORIES STEPS SDCONFIGD
// A history fails where the two disagree, and where the service doesn't start, doesn't end or sends no events. The
// first one that fails is cut down until it passes without any single one of its steps, and printed.
#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/sdbus/sdbus.h"
#include "tests/support/subscribed.h"
#include "tests/torture/service_life.h"
#include "tests/torture/service_model.h"

namespace torture {
namespace {

namespace fs = std::filesystem;

constexpr int kCallLimitMs = 5000;
constexpr std::chrono::seconds kFenceLimit{10};
constexpr std::chrono::milliseconds kFenceRetry{40};

// What a step may be: a call, or what else happens to the service, to its rows and to the product's files.
std::vector<std::string> happenings() {
    std::vector<std::string> all = Model::weightedMethods();
    all.insert(all.end(), {"stop", "kill", "remove", "spoil", "hollow", "define", "define", "constant"});
    return all;
}

// The lines that the product's files begin with.
const std::vector<Step>& product() {
    static const std::vector<Step> kLines{
        {"define", 0, {"k", "first"}, {}, false},        {"define", 0, {"k", "last"}, {}, true},
        {"define", 0, {"net.proxy", "a=b"}, {}, false},  {"define", 0, {"ro.once", ""}, {}, false},
        {"define", 0, {"ro.sd.uuid", "1"}, {}, false},   {"define", 0, {"ro.sd.uuid", "2"}, {}, false},
        {"constant", 0, {"k", "first"}, {}, false},      {"constant", 0, {"k", "last"}, {}, false},
        {"constant", 0, {"Net.Proxy", "a=b"}, {}, true}, {"constant", 0, {"ro.sd.uuid", ""}, {}, false}};
    return kLines;
}

// What is asked after each step: who is listened to, all that is stored of the policies, and all of each key.
std::vector<Step> questions() {
    std::vector<Step> all{{"LISTENERS_LIST", 0, {""}}, {"LST_PROPERTY"}, {"DM_LIST"}};
    for (const std::string& key : Generator::keys())
        for (const char* const method : {"GET_SECURE", "GET_POLICY", "ISSTRONG_CONTROL", "GET_PROPERTY", "GET_CONST"})
            all.push_back({method, 0, {key}});
    return all;
}

// ---- The real one ----

// A client: its calls, and the events that it heard of up to a fence.
class Client {
public:
    Client() : mProxy(SDBusSerivceManager::initSync(-1)->getServiceProxyInterface("sdconfig", SDBusSameUser, 1)) {
        for (const char* const name : {"DM_CHANGED", ".sdconfigChanged", ".DMChanged"})
            if (!test::isSubscribed(*mProxy, name, [this, name](const std::shared_ptr<SDBusMessage>& event) {
                    const std::lock_guard lock(mMutex);
                    mEvents.push_back({name, fieldsOf(*event)});
                    mCame.notify_all();
                }))
                throw Failed("events can't be asked for");
    }

    Fields call(const Step& step) { return callAll({step}).front(); }

    // In one burst.
    std::vector<Fields> callAll(const std::vector<Step>& steps) {
        std::vector<std::shared_ptr<SDBusMessage>> calls;
        for (const Step& step : steps)
            appendArguments(*calls.emplace_back(mProxy->makeMethodCallMessage(step.method)), step);
        std::vector<Fields> answers;
        for (const auto& answer : mProxy->callsWithRepliesBlocking(calls, kCallLimitMs))
            answers.push_back(answer->type() == 2 ? fieldsOf(*answer)
                                                  : Fields{"no answer", std::to_string(answer->getErrorType())});
        return answers;
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
    explicit Rehearsal(std::string sdconfigd) : mSdconfigd(std::move(sdconfigd)) {
        fs::create_directories(productFolder());
        fs::create_directories(fs::path(buildProp()).parent_path());
    }

    // Why the real one disagrees, or "".
    std::string play(const std::vector<Step>& history) {
        fs::remove_all(data());
        (void)mLife.makeFolder("data");
        Model model;
        for (const std::string& file : {buildProp(), constants()}) fs::remove(file);
        for (const Step& line : product()) addLine(line, model);
        std::string why;
        auto step = history.begin();
        try {
            restart(0, model);
            while (step != history.end() && (why = take(*step, model)).empty()) ++step;
        } catch (const std::exception& failure) {
            why = failure.what();
        }
        (void)mLife.end(SIGKILL);
        return why.empty() ? "" : "step " + std::to_string(step - history.begin() + 1) + ": " + why;
    }

private:
    std::string data() const { return mLife.place() + "/data"; }
    std::string productFolder() const { return mLife.place() + "/product/data"; }
    std::string buildProp() const { return mLife.place() + "/product/etc/build.prop"; }
    std::string constants() const { return mLife.place() + "/product/constants"; }

    void restart(int signal, Model& model) {
        if (signal != 0) (void)mLife.end(signal);
        if (!mLife.start(
                {mSdconfigd, "--data-dir", data(), "--product-dir", productFolder(), "--constants", constants()}))
            throw Failed("the service doesn't start: " + mLife.said());
        if (mClients.empty())
            for (int i = 0; i < 2; ++i) mClients.push_back(std::make_unique<Client>());
        model.restart();
        const Step listen{"REG_LISTENER", 0, {Client::kFence}};
        (void)mClients[0]->call(listen);
        (void)model.answer(listen);
        const auto end = std::chrono::steady_clock::now() + kFenceLimit;
        for (auto& client : mClients) waitUntilItHears(*client, end);
        raiseFence();
        for (auto& client : mClients) (void)client->eventsUpTo(fence(), kFenceLimit);
    }

    // A client subscribes again by itself.
    void waitUntilItHears(Client& client, std::chrono::steady_clock::time_point end) {
        do {
            if (std::chrono::steady_clock::now() > end) throw Failed("no events come any more");
            raiseFence();
        } while (!client.eventsUpTo(fence(), kFenceRetry));
    }

    std::string fence() const { return std::to_string(mFence); }
    void raiseFence() {
        ++mFence;
        (void)mClients[0]->call({"SET_PROPERTY", 0, {Client::kFence, fence()}});
    }

    std::string take(const Step& step, Model& model) {
        if (step.method == "stop" || step.method == "kill") {
            restart(step.method == "stop" ? SIGTERM : SIGKILL, model);
        } else if (step.method == "remove" || step.method == "spoil" || step.method == "hollow") {
            edit(step);
            model.edit(step);
        } else if (step.method == "define" || step.method == "constant") {
            addLine(step, model);
        } else {
            const auto real = mClients[step.client]->call(step);
            const auto wanted = model.answer(step);
            if (real != wanted) return "answered " + text(real) + ", not " + text(wanted);
        }
        std::string why = compareAnswers(model);
        if (why.empty()) why = compareEvents(model.takeEvents());
        return why.empty() ? compareRows(model) : why;
    }

    std::string compareAnswers(Model& model) {
        const std::vector<Fields> real = mClients[0]->callAll(mQuestions);
        for (std::size_t i = 0; i < real.size(); ++i) {
            const Fields wanted = model.answer(mQuestions[i]);
            if (real[i] != wanted)
                return shown(mQuestions[i]) + " is then answered " + text(real[i]) + ", not " + text(wanted);
        }
        return "";
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

    static std::string text(const Fields& fields) {
        std::string all = "(";
        for (const std::string& field : fields) all += (all.size() > 1 ? ", " : "") + shown(field);
        return all + ")";
    }
    static std::string text(const Event& event) { return event.name + text(event.fields); }
    template <class One>
    static std::string text(const std::vector<One>& list) {
        std::string all = "[";
        for (const One& one : list) all += (all.size() > 1 ? " " : "") + text(one);
        return all + "]";
    }

    // ---- Files ----

    void addLine(const Step& step, Model& model) const {
        std::ofstream file(step.method == "define" ? buildProp() : constants(), std::ios::app);
        if (!(file << productLine(step) << std::flush)) throw Failed("no line can be added to a file of the product's");
        model.addLine(step);
    }

    struct Table {
        std::string file, name;
    };
    static inline const Table kSecure{"sdconfig.db", "secure_v3"};
    static inline const Table kPolicies{"dmhelper.db", "dmhelperconfig"};

    std::vector<Fields> query(const Table& table, const std::string& sql) const {
        return test::query(data() + "/" + table.file, sql);
    }

    void edit(const Step& step) const {
        const std::string value = step.method == "spoil" ? "'nothing that opens'" : "''";
        for (const Table& table : {kSecure, kPolicies}) {
            const std::string what = step.method == "remove" ? "DELETE FROM " + table.name
                                                             : "UPDATE " + table.name + " SET value = " + value;
            (void)query(table, what + " WHERE key = '" + step.texts[0] + "'");
        }
    }

    // The keys as they are spelled, and which have an empty value.
    std::string compareRows(const Model& model) const {
        for (const auto& [table, rows] :
             {std::pair(kSecure, &model.secure()), std::pair(kPolicies, &model.policies())}) {
            const auto real =
                query(table, "SELECT key, value = '' FROM " + table.name + " ORDER BY key COLLATE BINARY");
            std::vector<Fields> wanted;
            for (const auto& [key, row] : *rows) wanted.push_back({row.key, row.text == "" ? "1" : "0"});
            std::sort(wanted.begin(), wanted.end());
            if (real != wanted) return table.name + " has " + text(real) + ", not " + text(wanted);
        }
        return "";
    }

    const std::string mSdconfigd;
    const std::vector<Step> mQuestions = questions();
    ServiceLife mLife;
    std::vector<std::unique_ptr<Client>> mClients;
    int mFence = 0;
};

// ---- All ----

// Takes so many steps at a time away where the history fails without them, too. False where it never does.
bool shorten(Rehearsal& rehearsal, std::vector<Step>& history, std::size_t length) {
    const std::size_t before = history.size();
    for (std::size_t at = 0; at + length <= history.size();) {
        std::vector<Step> less = history;
        less.erase(less.begin() + static_cast<std::ptrdiff_t>(at),
                   less.begin() + static_cast<std::ptrdiff_t>(at + length));
        if (rehearsal.play(less).empty())
            at += length;
        else
            history = std::move(less);
    }
    return history.size() < before;
}

// What is left fails, and passes without any one of its steps.
std::vector<Step> needed(Rehearsal& rehearsal, std::vector<Step> history) {
    for (std::size_t length = history.size() / 2; length > 1; length /= 2) (void)shorten(rehearsal, history, length);
    while (shorten(rehearsal, history, 1)) continue;  // without a step, one before it may be needless
    return history;
}

int run(std::uint64_t seed, int histories, int steps, const std::string& sdconfigd) {
    Rehearsal rehearsal(sdconfigd);
    for (int i = 0; i < histories; ++i) {
        const std::uint64_t own = seed + static_cast<std::uint64_t>(i);
        const std::vector<Step> history = Generator(own, happenings(), 2).history(steps);
        const std::string first = rehearsal.play(history);
        if (first.empty()) continue;
        const std::vector<Step> less = needed(rehearsal, history);
        const std::string why = rehearsal.play(less);
        std::cout << "seed " << own << ", 1 history of " << steps
                  << " steps disagrees: " << (why.empty() ? "not each time, " + first : why) << "\n";
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
    return torture::perform("model", [&] {
        if (count != 5) throw torture::Failed("model SEED HISTORIES STEPS SDCONFIGD");
        return torture::run(std::stoull(words[1]), std::stoi(words[2]), std::stoi(words[3]), words[4]);
    });
}
