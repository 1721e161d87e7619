// A client process that does what it reads: a command a line on standard input, an answer a line on standard output.
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "libsdconfig/dmconfig.h"
#include "libsdconfig/sdconfig.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "platform/velmarlog/velmarlog.h"

namespace {

sd::SDConfig& config() {
    return *sd::SDConfig::GetInstance();
}

sd::DMConfig& policies() {
    return *sd::DMConfig::GetInstance();
}

// Calls once more when the process is at its end, after main has returned. One that was there before the library's
// own statics outlives them, and finds no service.
class LastCall {
public:
    ~LastCall() {
        if (!mText.empty()) std::cout << config().SignRequest(mText) << std::endl;
    }
    std::string mText;
};
LastCall sAfterTheLibrary;

std::string callAtTheEnd(const std::string& text) {
    static LastCall beforeTheLibrary;
    return beforeTheLibrary.mText = sAfterTheLibrary.mText = text;
}

[[noreturn]] void giveUp(const char* why) {
    std::fputs(why, stderr);
    ::_exit(3);
}

// No operation of the facades throws, not even for want of memory.
template <class Operation>
auto quiet(Operation operation) -> decltype(operation()) {
    try {
        return operation();
    } catch (...) {
        giveUp("a facade threw\n");
    }
}

// A question that has no answer ends as one that finds no memory.
void expect(bool isAnswered) {
    if (!isAnswered) throw std::bad_alloc();
}

// Whether the service gives it back.
bool isSigned(const std::string& text) {
    const std::string answer = quiet([&] { return config().SignRequest(text); });
    if (!answer.empty() && answer != text) giveUp("a call got another one's answer\n");
    return !answer.empty();
}

// Counts the events of its key, and calls the service from inside each.
class Listener : public sd::DMConfig::Listener {
public:
    explicit Listener(std::string key) : mKey(std::move(key)) {}

    void onChanged(const std::string& key, const std::string& value, bool /*flag*/) override {
        (void)isSigned("from listener " + value);
        if (key != mKey) giveUp("a listener was told of another one's key\n");
        const std::lock_guard lock(mMutex);
        ++mCount;
        mLast = value;
        mCame.notify_all();
    }
    std::string told() {
        const std::lock_guard lock(mMutex);
        return std::to_string(mCount) + " " + mLast;
    }
    // The last value, as soon as it is the one that is waited for.
    std::string heard(const std::string& value) {
        constexpr std::chrono::seconds kPatience{5};
        std::unique_lock lock(mMutex);
        mCame.wait_for(lock, kPatience, [&] { return mLast == value; });
        expect(mCount > 0);
        return mLast;
    }

private:
    const std::string mKey;
    std::mutex mMutex;
    std::condition_variable mCame;
    int mCount = 0;
    std::string mLast;
};

Listener& listenerOf(const std::string& key) {
    static auto& sListeners = *new std::map<std::string, std::unique_ptr<Listener>>;
    std::unique_ptr<Listener>& listener = sListeners[key];
    if (!listener) listener = std::make_unique<Listener>(key);
    return *listener;
}

void ignore(int) {}

// Signals `thread` again and again while `on`, so that system calls in it are interrupted.
std::thread interrupter(pthread_t thread, const std::atomic<bool>& on) {
    struct sigaction action {};
    action.sa_handler = ignore;
    sigaction(SIGUSR1, &action, nullptr);  // no SA_RESTART
    return std::thread([thread, &on] {
        while (on) {
            pthread_kill(thread, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    });
}

// Each call asks for a text of its own. Returns how many came back. Where there is no thread, or no memory for what is
// asked, that has failed.
int callFromThreads(int threads, int calls, bool interrupted) {
    std::atomic<int> right{0};
    const auto work = [&](int number) {
        std::atomic<bool> storming{interrupted};
        std::thread storm;
        if (interrupted) storm = interrupter(pthread_self(), storming);
        for (int i = 0; i < calls; ++i) {
            try {
                right += isSigned(std::to_string(::getpid()) + "." + std::to_string(number) + "." + std::to_string(i));
            } catch (const std::bad_alloc&) {  // of the texts
            }
        }
        storming = false;
        if (storm.joinable()) storm.join();
    };
    std::vector<std::thread> running;
    try {
        for (int i = 0; i < threads; ++i) running.emplace_back(work, i);
    } catch (const std::exception&) {  // none is left
    }
    for (std::thread& thread : running) thread.join();
    return right;
}

// In a child: tells its parent.
[[noreturn]] void tellFromChild(int pipe) {
    constexpr unsigned kPatience = 15;
    ::alarm(kPatience);
    const int right = callFromThreads(4, 5, false);
    ::_exit(::write(pipe, &right, sizeof right) == static_cast<ssize_t>(sizeof right) ? 0 : 1);
}

// A child calls from four threads, while the parent calls too: how many of both were right.
std::string callFromChild() {
    int pipe[2];
    if (::pipe(pipe) != 0) return "0";
    const pid_t child = ::fork();
    if (child == 0) tellFromChild(pipe[1]);
    ::close(pipe[1]);
    const int own = callFromThreads(2, 5, false);
    int others = 0, status = 0;
    (void)!::read(pipe[0], &others, sizeof others);
    ::close(pipe[0]);
    if (child > 0) ::waitpid(child, &status, 0);
    if (status != 0) giveUp("a child ended amid its calls\n");
    return std::to_string(own + others);
}

std::string bit(bool value) {
    return value ? "1" : "0";
}

std::string inRing(const std::string& folder, const std::string& text, bool seal) {
    sd::SDSecurity& security = *sd::SDSecurity::GetInstance();
    security.SetKeyRingFolder(folder);
    return seal ? security.FastEncrypt(text) : security.FastDecrypt(text);
}

// "" for none.
std::string valueOf(const sd::PolicyMap& policy) {
    expect(!policy.empty());
    const std::string& value = policy.begin()->first;
    return value == "null_value" ? "" : value;
}

// "key=value;" for each.
std::string listPolicies() {
    sd::PolicyList list;
    expect(quiet([&] { return policies().GetAllKeys(&list); }));
    std::string text;
    for (const auto& [uri, policy] : list) text += uri + "=" + policy.begin()->first + ";";
    return text;
}

std::string getFromList(const std::string& uri) {
    const std::vector<std::string> uris{uri};
    sd::PolicyList list;
    (void)quiet([&] { return policies().GetPoliciesWithUris(uris, &list); });
    return valueOf(list[uri]);
}

std::string countProperties() {
    std::map<std::string, std::string> all;
    expect(quiet([&] { return config().GetAllProperties(&all); }));
    return std::to_string(all.size());
}

using OnListener = bool (sd::DMConfig::*)(const std::string& key, sd::DMConfig::Listener* listener, bool flag);

std::string askFor(OnListener operation, const std::string& key) {
    Listener* const listener = &listenerOf(key);
    return bit(quiet([&] { return (policies().*operation)(key, listener, true); }));
}

struct Words {
    std::string a, b;
    int n = 0;
};

// Their names, and what they answer. None of it asks for memory.
struct Command {
    const char* name;
    std::string (*answer)(const Words& words);
};

const Command kCommands[] = {
    {"up", [](const Words&) { return std::string("1"); }},
    {"secure.set", [](const Words& w) { return bit(quiet([&] { return config().SetSecure(w.a, w.b); })); }},
    {"secure.get", [](const Words& w) { return quiet([&] { return config().GetSecure(w.a); }); }},
    {"secure.delete", [](const Words& w) { return bit(quiet([&] { return config().DeleteSecure(w.a); })); }},
    {"property.set", [](const Words& w) { return bit(quiet([&] { return config().SetProperty(w.a, w.b); })); }},
    {"property.get", [](const Words& w) { return quiet([&] { return config().GetProperty(w.a); }); }},
    {"property.delete", [](const Words& w) { return bit(quiet([&] { return config().DeleteProperty(w.a); })); }},
    {"properties.get", [](const Words&) { return countProperties(); }},
    {"policy.set",
     [](const Words& w) {
         const sd::PolicyMap policy{{w.b, w.n}};
         return bit(quiet([&] { return policies().SetPolicyWithUri(w.a, policy); }));
     }},
    {"policy.set.list",
     [](const Words& w) {
         const sd::PolicyList list{{w.a, {{w.b, w.n}}}, {w.a + ".twin", {{w.b, w.n}}}};
         return bit(quiet([&] { return policies().SetPolicyList(list); }));
     }},
    {"policy.get", [](const Words& w) { return valueOf(quiet([&] { return policies().GetPolicyWithUri(w.a); })); }},
    {"policy.get.list", [](const Words& w) { return getFromList(w.a); }},
    {"policy.list", [](const Words&) { return listPolicies(); }},
    {"policy.delete", [](const Words& w) { return bit(quiet([&] { return policies().DeletePolicyWithUri(w.a); })); }},
    {"policy.clear", [](const Words&) { return bit(quiet([] { return policies().ClearAllKeys(); })); }},
    {"strong.get", [](const Words& w) { return bit(quiet([&] { return policies().isStrongControl(w.a); })); }},
    {"constant.get", [](const Words& w) { return quiet([&] { return config().GetConst(w.a); }); }},
    {"sign.get", [](const Words& w) { return quiet([&] { return config().SignRequest(w.a); }); }},
    {"verify.get", [](const Words& w) { return bit(quiet([&] { return config().VerifyRequest(w.a, w.b); })); }},
    {"listener.set", [](const Words& w) { return askFor(&sd::DMConfig::RegisterListener, w.a); }},
    {"listener.set.list",
     [](const Words& w) {
         const sd::DMConfig::ListenerList list{{w.a, &listenerOf(w.a)}};
         return bit(quiet([&] { return policies().RegisterListenersWithList(list, true); }));
     }},
    {"listener.get",
     [](const Words& w) {
         const std::vector<std::string> keys{w.a};
         return bit(quiet([&] { return policies().IsAllConfigsAlreadyListened(keys); }));
     }},
    {"listener.delete", [](const Words& w) { return askFor(&sd::DMConfig::UnRegisterListener, w.a); }},
    {"event.get", [](const Words& w) { return listenerOf(w.a).heard(w.b); }},
    {"events.get", [](const Words& w) { return listenerOf(w.a).told(); }},
    {"threads.get",
     [](const Words& w) { return std::to_string(callFromThreads(std::stoi(w.a), std::stoi(w.b), w.n > 0)); }},
    {"fork.get", [](const Words&) { return callFromChild(); }},
    {"seal", [](const Words& w) { return inRing(w.a, w.b, true); }},
    {"open", [](const Words& w) { return inRing(w.a, w.b, false); }},
    {"last", [](const Words& w) { return callAtTheEnd(w.a); }},
};

std::string answer(const char* line) {
    std::istringstream words(line);
    std::string name;
    Words w;
    words >> name >> w.a >> w.b >> w.n;
    for (const Command& command : kCommands)
        if (name == command.name) return command.answer(w);
    return "no such command";
}

}  // namespace

int main() {
    // Streams end at the first allocation that fails; these ask for none. A value that fills a disk has 3 MB.
    static char line[4 << 20], input[1 << 16], output[1 << 16];
    std::setvbuf(stdin, input, _IOFBF, sizeof input);
    std::setvbuf(stdout, output, _IOFBF, sizeof output);
    velmarLogSetSecretsShown(false);
    while (std::fgets(line, sizeof line, stdin)) {
        if (std::strchr(line, '\n') == nullptr) {
            std::fputs("a command is too long\n", stderr);
            return 2;
        }
        try {
            std::puts(answer(line).c_str());
        } catch (const std::bad_alloc&) {
            std::puts("no answer");
        }
        std::fflush(stdout);
    }
    return 0;
}
