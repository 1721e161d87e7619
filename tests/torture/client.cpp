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

// No operation of the facades throws, not even for want of memory.
template <class Operation>
auto quiet(Operation operation) -> decltype(operation()) {
    try {
        return operation();
    } catch (...) {
        std::fputs("a facade threw\n", stderr);
        ::_exit(3);
    }
}

// Counts the events; calls the service from inside each, and counts the answers, and the events, that are not its own.
class Listener : public sd::DMConfig::Listener {
public:
    explicit Listener(std::string key = "") : mKey(std::move(key)) {}

    void onChanged(const std::string& key, const std::string& value, bool /*flag*/) override {
        const std::string text = "from listener " + value;
        const std::string answer = quiet([&] { return config().SignRequest(text); });
        const bool isAnothers = !mKey.empty() && key != mKey;
        if (isAnothers || (!answer.empty() && answer != text)) ++mWrong;
        const std::lock_guard lock(mMutex);
        ++mCount;
        mLast = value;
        mCame.notify_all();
    }
    std::string told() {
        const std::lock_guard lock(mMutex);
        return std::to_string(mCount) + " " + std::to_string(mWrong) + " " + mLast;
    }
    // The last value, as soon as it is the one that is waited for.
    std::string heard(const std::string& value, std::chrono::milliseconds most) {
        std::unique_lock lock(mMutex);
        mCame.wait_for(lock, most, [&] { return mLast == value; });
        return mWrong == 0 ? mLast : "what is another's";
    }

private:
    const std::string mKey;  // "" for any
    std::mutex mMutex;
    std::condition_variable mCame;
    std::atomic<int> mWrong{0};
    int mCount = 0;
    std::string mLast = "-";
};
Listener sListener;

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

// Each call asks for a text of its own. Returns how many came back: "right wrong failed". Where there is no thread, or
// no memory for what is asked, that has failed.
std::string callFromThreads(int threads, int calls, bool interrupted) {
    std::atomic<int> right{0}, wrong{0};
    const auto callOnce = [&](int number, int i) {
        const std::string text = std::to_string(::getpid()) + "." + std::to_string(number) + "." + std::to_string(i);
        const std::string answer = quiet([&] { return config().SignRequest(text); });
        if (!answer.empty()) ++(answer == text ? right : wrong);
    };
    const auto work = [&](int number) {
        std::atomic<bool> storming{interrupted};
        std::thread storm;
        if (interrupted) storm = interrupter(pthread_self(), storming);
        for (int i = 0; i < calls; ++i) {
            try {
                callOnce(number, i);
            } catch (const std::bad_alloc&) {  // of the texts
            }
        }
        storming = false;
        if (storm.joinable()) storm.join();
    };
    std::vector<std::thread> running;
    running.reserve(static_cast<size_t>(threads));
    try {
        for (int i = 0; i < threads; ++i) running.emplace_back(work, i);
    } catch (const std::exception&) {  // none is left
    }
    for (std::thread& thread : running) thread.join();
    const int failed = threads * calls - right - wrong;
    return std::to_string(right) + " " + std::to_string(wrong) + " " + std::to_string(failed);
}

// In a child: tells its parent. An exception must not lead back into what the parent does.
[[noreturn]] void tellFromChild(int pipe) {
    constexpr unsigned kPatience = 15;
    ::alarm(kPatience);
    try {
        const std::string told = callFromThreads(4, 5, false);
        ::_exit(::write(pipe, told.data(), told.size()) == static_cast<ssize_t>(told.size()) ? 0 : 1);
    } catch (const std::bad_alloc&) {
        ::_exit(0);
    }
}

// A child that calls from four threads, while the parent calls too: what both say, "right wrong failed" each.
std::string callFromChild() {
    int pipe[2];
    if (::pipe(pipe) != 0) return "";
    const pid_t child = ::fork();
    if (child == 0) tellFromChild(pipe[1]);
    ::close(pipe[1]);
    char text[64] = {};
    int status = 0;
    const auto awaitChild = [&] {
        (void)!::read(pipe[0], text, sizeof text - 1);
        ::close(pipe[0]);
        if (child > 0) ::waitpid(child, &status, 0);
    };
    std::string own;
    try {
        own = callFromThreads(2, 5, false);
    } catch (const std::bad_alloc&) {
        awaitChild();
        if (status == 0) throw;
    }
    awaitChild();
    return status == 0 ? own + " " + text : "child ended with " + std::to_string(status);
}

std::string bit(bool value) {
    return value ? "1" : "0";
}

std::string priorityAndValue(const sd::PolicyMap& policy) {
    return policy.empty() ? "-" : std::to_string(policy.begin()->second) + " " + policy.begin()->first;
}

// A restarted service has forgotten who listens.
std::string listenAgain(const std::string& key) {
    if (policies().IsAllConfigsAlreadyListened({key})) return "1";
    return bit(policies().RegisterListenersWithList({{key, &sListener}}, true));
}

std::string inRing(const std::string& folder, const std::string& text, bool seal) {
    sd::SDSecurity& security = *sd::SDSecurity::GetInstance();
    security.SetKeyRingFolder(folder);
    return seal ? security.FastEncrypt(text) : security.FastDecrypt(text);
}

// "key=value;" for each; nothing where there is no list.
std::string listPolicies() {
    sd::PolicyList list;
    if (!quiet([&] { return policies().GetAllKeys(&list); })) throw std::bad_alloc();
    std::string text;
    for (const auto& [uri, policy] : list) text += uri + "=" + policy.begin()->first + ";";
    return text;
}

std::string getFromList(const std::string& uri) {
    const std::vector<std::string> uris{uri};
    sd::PolicyList list;
    (void)quiet([&] { return policies().GetPoliciesWithUris(uris, &list); });
    return list.empty() ? "" : list.begin()->second.begin()->first;
}

std::string countProperties() {
    std::map<std::string, std::string> all;
    return quiet([&] { return config().GetAllProperties(&all); }) ? std::to_string(all.size()) : "";
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
    {"set", [](const Words& w) { return bit(quiet([&] { return config().SetSecure(w.a, w.b); })); }},
    {"get", [](const Words& w) { return quiet([&] { return config().GetSecure(w.a); }); }},
    {"delete", [](const Words& w) { return bit(quiet([&] { return config().DeleteSecure(w.a); })); }},
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
    {"policy.get",
     [](const Words& w) { return priorityAndValue(quiet([&] { return policies().GetPolicyWithUri(w.a); })); }},
    {"policy.get.list", [](const Words& w) { return getFromList(w.a); }},
    {"policy.list", [](const Words&) { return listPolicies(); }},
    {"policy.delete", [](const Words& w) { return bit(quiet([&] { return policies().DeletePolicyWithUri(w.a); })); }},
    {"policy.clear", [](const Words&) { return bit(quiet([] { return policies().ClearAllKeys(); })); }},
    {"strong.get", [](const Words& w) { return bit(quiet([&] { return policies().isStrongControl(w.a); })); }},
    {"constant.get", [](const Words& w) { return quiet([&] { return config().GetConst(w.a); }); }},
    {"sign", [](const Words& w) { return quiet([&] { return config().SignRequest(w.a); }); }},
    {"verify.get", [](const Words& w) { return bit(quiet([&] { return config().VerifyRequest(w.a, w.b); })); }},
    {"listen", [](const Words& w) { return listenAgain(w.a); }},
    {"listener.set",
     [](const Words& w) {
         Listener* const listener = &listenerOf(w.a);
         return bit(quiet([&] { return policies().RegisterListener(w.a, listener, true); }));
     }},
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
    {"listener.delete",
     [](const Words& w) {
         Listener* const listener = &listenerOf(w.a);
         return bit(quiet([&] { return policies().UnRegisterListener(w.a, listener, true); }));
     }},
    {"event.get", [](const Words& w) { return listenerOf(w.a).heard(w.b, std::chrono::milliseconds(w.n)); }},
    {"events", [](const Words&) { return sListener.told(); }},
    {"threads", [](const Words& w) { return callFromThreads(std::stoi(w.a), std::stoi(w.b), w.n > 0); }},
    {"fork", [](const Words&) { return callFromChild(); }},
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
            std::puts("no memory");
        }
        std::fflush(stdout);
    }
    return 0;
}
