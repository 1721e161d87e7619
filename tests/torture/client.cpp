// A client process that does what it reads: a command a line on standard input, an answer a line on standard output.
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <map>
#include <mutex>
#include <new>
#include <sstream>
#include <string>
#include <thread>
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

// Counts the events; calls the service from inside each, and counts the answers that are not its own.
class Listener : public sd::DMConfig::Listener {
public:
    void onChanged(const std::string& /*key*/, const std::string& value, bool /*flag*/) override {
        const std::string answer = config().SignRequest("from listener " + value);
        if (!answer.empty() && answer != "from listener " + value) ++mWrong;
        const std::lock_guard lock(mMutex);
        ++mCount;
        mLast = value;
    }
    std::string told() {
        const std::lock_guard lock(mMutex);
        return std::to_string(mCount) + " " + std::to_string(mWrong) + " " + mLast;
    }

private:
    std::mutex mMutex;
    std::atomic<int> mWrong{0};
    int mCount = 0;
    std::string mLast = "-";
};
Listener sListener;

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

// Each call asks for a text of its own. Returns how many came back: "right wrong failed".
std::string callFromThreads(int threads, int calls, bool interrupted) {
    std::atomic<int> right{0}, wrong{0}, failed{0};
    const auto work = [&](int number) {
        std::atomic<bool> storming{interrupted};
        std::thread storm;
        if (interrupted) storm = interrupter(pthread_self(), storming);
        for (int i = 0; i < calls; ++i) {
            const std::string text =
                std::to_string(::getpid()) + "." + std::to_string(number) + "." + std::to_string(i);
            const std::string answer = config().SignRequest(text);
            ++(answer == text ? right : answer.empty() ? failed : wrong);
        }
        storming = false;
        if (storm.joinable()) storm.join();
    };
    std::vector<std::thread> running;
    running.reserve(static_cast<size_t>(threads));
    for (int i = 0; i < threads; ++i) running.emplace_back(work, i);
    for (std::thread& thread : running) thread.join();
    return std::to_string(right) + " " + std::to_string(wrong) + " " + std::to_string(failed);
}

// A child that calls from four threads, while the parent calls too: what both say, "right wrong failed" each.
std::string callFromChild() {
    int pipe[2];
    if (::pipe(pipe) != 0) return "no pipe";
    const pid_t child = ::fork();
    if (child == 0) {
        const std::string told = callFromThreads(4, 5, false);
        const bool written = ::write(pipe[1], told.data(), told.size()) == static_cast<ssize_t>(told.size());
        ::_exit(written ? 0 : 1);
    }
    ::close(pipe[1]);
    const std::string own = callFromThreads(2, 5, false);
    char text[64] = {};
    const ssize_t length = ::read(pipe[0], text, sizeof text);
    ::close(pipe[0]);
    ::waitpid(child, nullptr, 0);
    return own + " " + std::string(text, length > 0 ? static_cast<size_t>(length) : 0);
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

std::string answer(const std::string& command, const std::string& a, const std::string& b, int n) {
    if (command == "set") return bit(quiet([&] { return config().SetSecure(a, b); }));
    if (command == "get") return quiet([&] { return config().GetSecure(a); });
    if (command == "delete") return bit(quiet([&] { return config().DeleteSecure(a); }));
    if (command == "property.set") return bit(quiet([&] { return config().SetProperty(a, b); }));
    if (command == "property.get") return quiet([&] { return config().GetProperty(a); });
    if (command == "policy.set") {
        const sd::PolicyMap policy{{b, n}};
        return bit(quiet([&] { return policies().SetPolicyWithUri(a, policy); }));
    }
    if (command == "policy.get") return priorityAndValue(quiet([&] { return policies().GetPolicyWithUri(a); }));
    if (command == "policy.delete") return bit(quiet([&] { return policies().DeletePolicyWithUri(a); }));
    if (command == "sign") return quiet([&] { return config().SignRequest(a); });
    if (command == "listen") return listenAgain(a);
    if (command == "events") return sListener.told();
    if (command == "threads") return callFromThreads(std::stoi(a), std::stoi(b), n > 0);
    if (command == "fork") return callFromChild();
    if (command == "seal" || command == "open") return inRing(a, b, command == "seal");
    if (command == "last") return callAtTheEnd(a);
    return "no such command";
}

}  // namespace

int main() {
    velmarLogSetSecretsShown(false);
    std::string line;
    while (std::getline(std::cin, line)) {
        try {
            std::istringstream words(line);
            std::string command, a, b;
            int n = 0;
            words >> command >> a >> b >> n;
            std::cout << answer(command, a, b, n) << std::endl;
        } catch (const std::bad_alloc&) {
            std::cout << "no memory" << std::endl;
        }
    }
    return 0;
}
