// Sequences of calls by several clients of one service, who come, ask, listen, leave with or without a word and come
// back: some over a connection each, some by proxies, which call and hear on threads of their own. After each burst of
// calls the answers, what everybody heard of, and who is listened to are as the model foretells.
// An input is a text, a line a step: METHOD CLIENT, then numbers, "true" and texts, which begin with "=". Mutations
// take, repeat, swap and change steps, so that each of them is a sequence, too.
#include <poll.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>
#include <set>
#include <sstream>

#include "fuzz/served.h"
#include "platform/sdbus/names.h"
#include "tests/support/subscribed.h"
#include "tests/torture/service_model.h"

extern "C" std::size_t LLVMFuzzerMutate(uint8_t* data, std::size_t size, std::size_t sizeMax);

namespace {

using fuzz::expect;
using torture::Event;
using torture::Fields;
using torture::Model;
using torture::Step;
using Steps = std::vector<Step>;

constexpr std::size_t kWired = 3;
constexpr std::size_t kClients = 5;
constexpr std::size_t kStepsMax = 24;
constexpr std::size_t kBurstMax = 6;
constexpr std::size_t kListMax = 4;
constexpr std::size_t kTextMax = 300;
constexpr std::size_t kModelsMax = 16;  // beyond that nobody hangs up amid calls
constexpr std::chrono::seconds kPatience{8};
constexpr int kPatienceMs = std::chrono::milliseconds(kPatience).count();
constexpr std::chrono::milliseconds kFenceRetry{20};
constexpr char kFence[] = "fence";

// ---- Steps ----

// What changes no value, and isn't foretold: only that it is answered.
constexpr std::array<const char*, 5> kUpkeep{"KEY_ROTATE", "KEY_RESEAL", "KEY_PRUNE", "TRAIL_STATUS",
                                             "POLICIES_STATUS"};

// What happens beside the calls.
constexpr char kSubscribe[] = "subscribe";
constexpr char kWait[] = "wait";        // what follows is not sent before this is answered
constexpr char kLeave[] = "leave";      // once all is answered
constexpr char kHangUp[] = "hang_up";   // amid the calls before it, when so many are answered
constexpr char kRestart[] = "restart";  // of the service's end of the bus: all connections are lost

const std::vector<std::string>& kinds() {
    static const std::vector<std::string> sKinds = [] {
        std::vector<std::string> all = Model::weightedMethods();
        all.insert(all.end(), kUpkeep.begin(), kUpkeep.end());
        all.insert(all.end(), {kSubscribe, kSubscribe, kSubscribe, kWait, kWait, kLeave, kHangUp, kHangUp, kRestart});
        return all;
    }();
    return sKinds;
}

bool isCall(const Step& step) {
    return step.method[0] >= 'A' && step.method[0] <= 'Z';
}

bool isForetold(const Step& step) {
    return std::find(kUpkeep.begin(), kUpkeep.end(), step.method) == kUpkeep.end();
}

// Of a key and what goes with it.
std::size_t textsEach(const Step& step) {
    return step.method == "SET_POLICYLIST" ? 2 : 1;
}

// Makes a call of it that the service takes. Texts with zero bytes are the matter of another target.
void complete(Step& step) {
    const bool isList = torture::takesList(step.method);
    const std::size_t count = isList ? std::min(step.texts.size() / textsEach(step), kListMax) : 1;
    step.client %= kClients;
    step.texts.resize(isList ? count * textsEach(step) : 2);
    step.numbers.resize(count);
    for (int& number : step.numbers) number = std::clamp<int>(number, INT8_MIN, INT8_MAX);
    for (std::string& text : step.texts) {
        text.erase(std::remove(text.begin(), text.end(), '\0'), text.end());
        text.resize(std::min(text.size(), kTextMax));
    }
}

std::string escaped(const std::string& text) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string word = "=";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte > ' ' && byte < 0x7f && c != '%')
            word += c;
        else
            word += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return word;
}

std::string unescaped(const std::string& word) {
    std::string text;
    for (std::size_t i = 1; i < word.size(); ++i) {
        unsigned byte = 0;
        const char* const digits = word.data() + i + 1;
        const bool isEscape =
            word[i] == '%' && i + 2 < word.size() && std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2;
        text += isEscape ? static_cast<char>(byte) : word[i];
        if (isEscape) i += 2;
    }
    return text;
}

std::string lineOf(const Step& step) {
    std::string line = step.method + " " + std::to_string(step.client);
    for (const int number : step.numbers) line += " " + std::to_string(number);
    if (step.flag) line += " true";
    for (const std::string& text : step.texts) line += " " + escaped(text);
    return line + "\n";
}

// False for a line that is no step.
bool readLine(const std::string& line, Step& step) {
    std::istringstream words(line);
    words >> step.method >> step.client;
    if (!words || std::find(kinds().begin(), kinds().end(), step.method) == kinds().end()) return false;
    for (std::string word; words >> word;) {
        int number = 0;
        if (word[0] == '=')
            step.texts.push_back(unescaped(word));
        else if (std::from_chars(word.data(), word.data() + word.size(), number).ec == std::errc())
            step.numbers.push_back(number);
        else
            step.flag = true;
    }
    complete(step);
    return true;
}

Steps readSteps(const uint8_t* data, std::size_t size) {
    Steps steps;
    std::istringstream lines(fuzz::text(data, size));
    for (std::string line; steps.size() < kStepsMax && std::getline(lines, line);)
        if (Step step; readLine(line, step)) steps.push_back(std::move(step));
    return steps;
}

// As many of them as have room.
std::size_t writeSteps(const Steps& steps, uint8_t* data, std::size_t sizeMax) {
    std::string all;
    for (const Step& step : steps)
        if (const std::string line = lineOf(step); all.size() + line.size() <= sizeMax) all += line;
    std::copy(all.begin(), all.end(), data);
    return all.size();
}

// ---- Mutations ----

std::string mutated(const std::string& text) {
    std::array<uint8_t, kTextMax> bytes{};
    std::copy(text.begin(), text.end(), bytes.begin());
    return fuzz::text(bytes.data(), LLVMFuzzerMutate(bytes.data(), text.size(), bytes.size()));
}

void changeField(Step& step, torture::Generator& random) {
    const auto text = step.texts.begin() + static_cast<std::ptrdiff_t>(random.below(step.texts.size() + 1));
    switch (random.below(7)) {
        case 0:
            step.method = random.method();
            break;
        case 1:
            step.client = random.below(kClients);
            break;
        case 2:
            step.flag = !step.flag;
            break;
        case 3:
            if (!step.numbers.empty()) step.numbers[random.below(step.numbers.size())] = random.priority();
            break;
        case 4:
            if (text != step.texts.end()) *text = random.below(2) == 0 ? random.key() : random.value();
            break;
        case 5:
            if (text != step.texts.end()) *text = mutated(*text);
            break;
        default:
            step.texts.insert(text, {random.key(), random.value()});
            break;
    }
    complete(step);
}

// Mostly of a key that another one is about.
Step newStep(const Steps& steps, torture::Generator& random) {
    Step step = random.step();
    const auto& texts = steps.empty() ? step.texts : steps[random.below(steps.size())].texts;
    if (!step.texts.empty() && !texts.empty() && random.below(4) > 0) step.texts[0] = texts[0];
    return step;
}

void changeSteps(Steps& steps, torture::Generator& random) {
    const auto place = [&](std::size_t from) {
        return steps.begin() + static_cast<std::ptrdiff_t>(random.below(from));
    };
    if (steps.empty()) return steps.push_back(newStep(steps, random));
    switch (random.below(8)) {
        case 0:
        case 1:
            steps.insert(place(steps.size() + 1), newStep(steps, random));
            break;
        case 2:
            steps.erase(place(steps.size()));
            break;
        case 3:
            steps.insert(place(steps.size() + 1), Step(*place(steps.size())));
            break;
        case 4:
            std::swap(*place(steps.size()), *place(steps.size()));
            break;
        default:
            changeField(*place(steps.size()), random);
            break;
    }
}

// ---- Clients ----

Fields fieldsOf(sdbus::Arguments arguments) {
    sdbus::Message message(sdbus::Message::kReply, "", std::move(arguments));
    return torture::fieldsOf(message);
}

Fields fieldsOf(sd_bus_message* message) {
    auto arguments = sdbus::decodeArguments(message);
    expect(arguments.has_value(), "what comes can be read");
    return fieldsOf(std::move(*arguments));
}

// An event that nobody but the proxies asked for, from a thread that isn't the service's.
std::string raiseFence() {
    static unsigned sFences = 0;
    auto* const manager = SDBusSerivceManager::initSync(-1);
    const auto event = manager->makeEventMessage(kFence, SDBusSameUser);
    std::string number = std::to_string(++sFences);
    event->appendString(number);
    expect(manager->publishEvent(event), "an event can be sent");
    return number;
}

class Client {
public:
    Client() = default;
    virtual ~Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void subscribe(const std::string& event) {
        if (mHeard.insert(event).second) listen(event);
    }
    bool hears(const Event& event) const { return mHeard.count(event.name) != 0; }

    // Without a wait in between.
    virtual void send(const Steps& calls) = 0;
    // To the calls that were sent, so many in their order.
    virtual std::vector<Fields> answers(std::size_t count) = 0;
    // Those before the fence of that number. Everybody's calls before it are answered.
    virtual std::vector<Event> takeEvents(const std::string& fence) = 0;
    // After the service's restart. False for who is gone.
    virtual bool comesBack() = 0;

private:
    virtual void listen(const std::string& event) = 0;

    std::set<std::string> mHeard;
};

// A connection that calls and hears.
class Wired : public Client {
public:
    // Until the handshake is done nothing is sent.
    Wired() {
        while (sd_bus_is_ready(mBus.get()) == 0) expect(!receive(), "nothing comes before it is asked for");
    }

    void send(const Steps& calls) override {
        for (const Step& step : calls) expect(trySend(step), "a sound call can be sent");
    }

    std::vector<Fields> answers(std::size_t count) override {
        std::vector<Fields> answers;
        while (answers.size() < count) {
            const sdbus::BusMessagePtr message = next();
            if (const char* const member = sd_bus_message_get_member(message.get())) {
                mEvents.push_back({sdbus::decodeName(member).value_or(""), fieldsOf(message.get())});
                continue;
            }
            uint64_t cookie = 0;
            sd_bus_message_get_reply_cookie(message.get(), &cookie);
            expect(!mAwaited.empty() && cookie == mAwaited.front(), "calls are answered once, in their order");
            mAwaited.pop_front();
            answers.push_back(fieldsOf(message.get()));
        }
        return answers;
    }

    std::vector<Event> takeEvents(const std::string& /*fence*/) override { return std::exchange(mEvents, {}); }

    bool comesBack() override { return false; }

    // Reads nothing more, and is gone when the service knows. Some of its calls may be carried out.
    void hangUp() {
        const int fd = sd_bus_get_fd(mBus.get());
        (void)::shutdown(fd, SHUT_RD);
        (void)trySend({"SIGN_REQUEST", 0, {"the answer that can't be written"}, {}, false});
        pollfd gone{fd, 0, 0};
        expect(::poll(&gone, 1, kPatienceMs) == 1, "who can't be answered is let go");
    }

private:
    void listen(const std::string& event) override { fuzz::subscribe(mBus.get(), event); }

    bool trySend(const Step& step) {
        const sdbus::BusMessagePtr call = fuzz::newCall(mBus.get(), step.method.c_str());
        sdbus::Message message(sdbus::Message::kCall, step.method);
        torture::appendArguments(message, step);
        const auto plan = sdbus::WirePlan::make(message.arguments());
        expect(plan && plan->append(call.get(), message.arguments()), "a call can be made");
        return sd_bus_send(mBus.get(), call.get(), &mAwaited.emplace_back()) >= 0;
    }

    sdbus::BusMessagePtr next() {
        sdbus::BusMessagePtr message;
        while (!message) message = receive();
        return message;
    }

    // Waits, too, where there is nothing to do.
    sdbus::BusMessagePtr receive() {
        sd_bus_message* came = nullptr;
        const int r = sd_bus_process(mBus.get(), &came);
        expect(r >= 0, "the connection lives");
        if (r == 0) expect(sd_bus_wait(mBus.get(), uint64_t{kPatienceMs} * 1000) > 0, "who asks is answered");
        return sdbus::BusMessagePtr(came);
    }

    sdbus::BusPtr mBus = fuzz::Served::get().open();
    std::deque<uint64_t> mAwaited;
    std::vector<Event> mEvents;
};

// A proxy: its calls go over the process's idle connections, its events come on its own.
class Proxied : public Client {
public:
    Proxied() { listen(kFence); }

    void send(const Steps& calls) override {
        std::vector<std::shared_ptr<SDBusMessage>> messages;
        for (const Step& step : calls)
            torture::appendArguments(*messages.emplace_back(mProxy->makeMethodCallMessage(step.method)), step);
        mAnswers = std::async(std::launch::async,
                              [this, messages] { return mProxy->callsWithRepliesBlocking(messages, kPatienceMs); });
    }

    std::vector<Fields> answers(std::size_t count) override {
        std::vector<Fields> answers;
        for (const auto& message : mAnswers.get()) {
            expect(message->type() == sdbus::Message::kReply, "calls are answered");
            answers.push_back(torture::fieldsOf(*message));
        }
        expect(answers.size() == count, "each call has its answer");
        return answers;
    }

    std::vector<Event> takeEvents(const std::string& fence) override {
        expect(hearsFence(fence, kPatience), "events come");
        const std::lock_guard lock(mMutex);
        const auto isFence = [](const Event& event) { return event.name == kFence; };
        mEvents.erase(std::remove_if(mEvents.begin(), mEvents.end(), isFence), mEvents.end());
        return std::exchange(mEvents, {});
    }

    // Events are asked for anew in the order of their names, the fence last.
    bool comesBack() override {
        const auto end = std::chrono::steady_clock::now() + kPatience;
        while (!hearsFence(raiseFence(), kFenceRetry))
            expect(std::chrono::steady_clock::now() < end, "a proxy finds the service again");
        return true;
    }

private:
    void listen(const std::string& event) override {
        const auto hear = [this, event](const std::shared_ptr<SDBusMessage>& message) {
            const std::lock_guard lock(mMutex);
            mEvents.push_back({event, torture::fieldsOf(*message)});
            mCame.notify_one();
        };
        expect(test::isSubscribed(*mProxy, event, hear), "events can be asked for");
    }

    bool hearsFence(const std::string& fence, std::chrono::milliseconds limit) {
        std::unique_lock lock(mMutex);
        const Event wanted{kFence, {fence}};
        return mCame.wait_for(lock, limit, [&] { return !mEvents.empty() && mEvents.back() == wanted; });
    }

    std::mutex mMutex;
    std::condition_variable mCame;
    std::vector<Event> mEvents;
    std::future<std::vector<std::shared_ptr<SDBusMessage>>> mAnswers;
    const std::shared_ptr<SDBusProxyInterface> mProxy =  // goes first, with the thread that calls back
        SDBusSerivceManager::initSync(-1)->getServiceProxyInterface(sd::protocol::kServiceName, SDBusSameUser, 1);
};

// ---- All ----

const Step kListAll{"LISTENERS_LIST", 0, {""}, {}, false};

class Sequence {
public:
    void play(const Steps& steps) {
        for (Step step : steps) {
            makeOwn(step);
            take(step);
        }
        settle();
        lookAtAll();
        undo();
    }

private:
    // What may be, once somebody hung up amid calls.
    struct Foretold {
        Model model;
        std::vector<Fields> answers;
        std::vector<Event> events;
    };

    Client& client(std::size_t which) {
        if (!mClients[which] && which < kWired) mClients[which] = std::make_unique<Wired>();
        if (!mClients[which]) mClients[which] = std::make_unique<Proxied>();
        return *mClients[which];
    }

    // Read-only properties stay: each sequence has some of its own.
    void makeOwn(Step& step) {
        for (std::string& text : step.texts)
            if (text.compare(0, 3, "ro.") == 0) text += "." + std::to_string(mRun);
        const std::size_t keys = torture::takesList(step.method) ? step.texts.size() : 1;
        for (std::size_t i = 0; isCall(step) && i < keys; i += textsEach(step)) mKeys.insert(step.texts[i]);
    }

    void take(const Step& step) {
        const bool goesOn = !mBurst.empty() && mBurst.front().client == step.client && mBurst.size() < kBurstMax;
        if (isCall(step)) {
            if (!goesOn) settle();
            mBurst.push_back(step);
        } else if (step.method == kHangUp && step.client < kWired && goesOn && mModels.size() <= kModelsMax) {
            hangUp(static_cast<std::size_t>(step.numbers[0]) % mBurst.size());
        } else {
            settle();
            if (step.method == kSubscribe)
                subscribe(step);
            else if (step.method == kRestart)
                restart();
            else if (step.method != kWait)
                mClients[step.client].reset();
        }
    }

    // While an event is sent.
    void subscribe(const Step& step) {
        const auto sent = std::async(std::launch::async, raiseFence);
        client(step.client).subscribe(fuzz::kEvents[static_cast<std::size_t>(step.numbers[0]) % fuzz::kEvents.size()]);
    }

    void restart() {
        fuzz::Served::get().restart();
        for (auto& client : mClients)
            if (client && !client->comesBack()) client.reset();
    }

    void settle() {
        if (mBurst.empty()) return;
        Client& caller = client(mBurst.front().client);
        caller.send(mBurst);
        compare(caller.answers(mBurst.size()), mBurst.size());
    }

    void hangUp(std::size_t answered) {
        const std::size_t which = mBurst.front().client;
        auto& caller = static_cast<Wired&>(client(which));
        caller.send(mBurst);
        const std::vector<Fields> answers = caller.answers(answered);
        caller.hangUp();
        mClients[which].reset();
        compare(answers, answered);
    }

    // The calls of the burst are carried out, at least so many.
    void compare(std::vector<Fields> answers, std::size_t fewest) {
        for (std::size_t i = 0; i < answers.size(); ++i) {
            expect(!answers[i].empty(), "an answer says something");
            if (!isForetold(mBurst[i])) answers[i].clear();
        }
        talkAtOnce();
        const std::string fence = raiseFence();
        std::vector<Foretold> all = foretell(answers.size(), fewest);
        keep(all, answers, "the answers", [&](const Foretold& one) { return one.answers == answers; });
        for (const auto& client : mClients) {
            if (!client) continue;
            const std::vector<Event> events = client->takeEvents(fence);
            keep(all, told(events), "what a client heard of",
                 [&](const Foretold& one) { return heardBy(*client, one.events) == events; });
        }
        const Fields listeners = listenersList();
        keep(all, {listeners}, "who is listened to",
             [&](Foretold& one) { return one.model.answer(kListAll) == listeners; });
        mModels.clear();
        for (Foretold& one : all)
            if (std::find(mModels.begin(), mModels.end(), one.model) == mModels.end())
                mModels.push_back(std::move(one.model));
        mBurst.clear();
    }

    std::vector<Foretold> foretell(std::size_t answered, std::size_t fewest) const {
        std::vector<Foretold> all;
        for (const Model& model : mModels)
            for (std::size_t count = fewest; count <= mBurst.size(); ++count) {
                Foretold one{model, {}, {}};
                for (std::size_t i = 0; i < count; ++i)
                    one.answers.push_back(isForetold(mBurst[i]) ? one.model.answer(mBurst[i]) : Fields());
                one.answers.resize(answered);
                one.events = one.model.takeEvents();
                all.push_back(std::move(one));
            }
        return all;
    }

    template <class Holds>
    void keep(std::vector<Foretold>& all, const std::vector<Fields>& real, const char* what, Holds holds) const {
        Foretold first = all.front();
        all.erase(std::remove_if(all.begin(), all.end(), [&](Foretold& one) { return !holds(one); }), all.end());
        if (!all.empty()) return;
        for (const Step& step : mBurst) std::fprintf(stderr, "  %s", lineOf(step).c_str());
        for (const Fields& fields : real) print("real", fields);
        for (const Fields& fields : first.answers) print("answer foretold", fields);
        for (const Fields& fields : told(first.events)) print("event foretold", fields);
        print("listeners foretold", first.model.answer(kListAll));
        expect(false, what);
    }

    static void print(const char* what, const Fields& fields) {
        std::fprintf(stderr, "%s:", what);
        for (const std::string& field : fields) std::fprintf(stderr, " %s", torture::shown(field).c_str());
        std::fprintf(stderr, "\n");
    }

    static std::vector<Fields> told(const std::vector<Event>& events) {
        std::vector<Fields> all;
        for (const Event& event : events) {
            all.push_back({event.name});
            all.back().insert(all.back().end(), event.fields.begin(), event.fields.end());
        }
        return all;
    }

    static std::vector<Event> heardBy(const Client& client, const std::vector<Event>& events) {
        std::vector<Event> heard;
        std::copy_if(events.begin(), events.end(), std::back_inserter(heard),
                     [&](const Event& event) { return client.hears(event); });
        return heard;
    }

    // Everybody who is there asks at once, and gets the answer to the own question. What happened before is told then.
    void talkAtOnce() {
        for (std::size_t i = 0; i < kClients; ++i)
            if (mClients[i]) mClients[i]->send({question(i)});
        for (std::size_t i = 0; i < kClients; ++i)
            if (mClients[i]) expect(mClients[i]->answers(1)[0] == Fields{question(i).texts[0]}, "answers don't cross");
        (void)fuzz::Served::get().ask("GET_CONST", {"if nobody is there"});
    }
    Step question(std::size_t client) const {
        return {"SIGN_REQUEST", client, {"question of " + std::to_string(client)}, {}, false};
    }

    static Fields listenersList() { return fieldsOf(fuzz::Served::get().ask("LISTENERS_LIST", {""})); }

    void lookAtAll() {
        mBurst.push_back({"DM_LIST", 0, {}, {}, false});
        for (const std::string& key : mKeys)
            for (const char* const method : {"GET_SECURE", "GET_POLICY", "GET_PROPERTY"})
                mBurst.push_back({method, 0, {key}, {}, false});
        settle();
    }

    // By calls, since the stores are the service thread's.
    void undo() {
        for (const auto& [key, count] : mModels[0].registrations())
            mBurst.insert(mBurst.end(), static_cast<std::size_t>(count), {"UNREG_LISTENER", 0, {key}, {}, false});
        for (const std::string& key : mKeys) mBurst.push_back({"DEL_PROPERTY", 0, {key}, {}, false});
        settle();
        expect(mModels[0].registrations().empty(), "all listeners are gone");
        fuzz::Served::get().forgetRows();
    }

    static inline unsigned sRuns = 0;

    const unsigned mRun = ++sRuns;
    std::array<std::unique_ptr<Client>, kClients> mClients;
    std::vector<Model> mModels{Model()};
    Steps mBurst;  // calls of one client that are not sent yet
    std::set<std::string> mKeys;
};

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(uint8_t* data, std::size_t size, std::size_t sizeMax, unsigned seed) {
    torture::Generator random(seed, kinds(), kClients);
    Steps steps = readSteps(data, size);
    changeSteps(steps, random);
    return writeSteps(steps, data, sizeMax);
}

// The beginning of one and the end of the other.
extern "C" std::size_t LLVMFuzzerCustomCrossOver(const uint8_t* one, std::size_t oneSize, const uint8_t* other,
                                                 std::size_t otherSize, uint8_t* out, std::size_t sizeMax,
                                                 unsigned seed) {
    torture::Generator random(seed, kinds(), kClients);
    Steps steps = readSteps(one, oneSize);
    const Steps more = readSteps(other, otherSize);
    steps.resize(random.below(steps.size() + 1));
    steps.insert(steps.end(), more.begin() + static_cast<std::ptrdiff_t>(random.below(more.size() + 1)), more.end());
    return writeSteps(steps, out, sizeMax);
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    (void)fuzz::Served::get();  // before anybody looks for it
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const fuzz::Uninterrupted waits;
    Sequence().play(readSteps(data, size));
    return 0;
}
