// Listens to a key and outlives restarts of the service: prints its value at the start and after each change.
//     policy_listener KEY [SECONDS]        for so many seconds; for ever untold
// Set a policy for KEY, kill sdconfigd with -9, start it again, set another: both are told.
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "libsdconfig/dmconfig.h"
#include "libsdconfig/sdconfig.h"
#include "libsdconfig/sdconfig_text.h"

namespace {

using Clock = std::chrono::steady_clock;

// The value that was printed last. Events come on a thread of the library's own.
class Printer : public sd::DMConfig::Listener {
public:
    // An event of a deletion has no value, whatever shows from under it: so the value is read again.
    void onChanged(const std::string& key, const std::string&, bool) override { readAgain(key); }

    void readAgain(const std::string& key) {
        const std::lock_guard lock(mMutex);
        const std::string value = sd::textAsSet(sd::SDConfig::GetInstance()->GetSecure(key));
        if (mPrinted && value == mValue) return;
        mPrinted = true;
        mValue = value;
        std::printf("%s: %s\n", key.c_str(), value.empty() ? "(not set)" : value.c_str());
        std::fflush(stdout);
    }

private:
    std::mutex mMutex;
    bool mPrinted = false;
    std::string mValue;
};

// A restarted service knows of no registration: takes this process's back and makes it again. True where the listener
// is registered.
bool keepRegistered(const std::string& key, Printer& printer) {
    sd::DMConfig& policies = *sd::DMConfig::GetInstance();
    if (policies.IsAllConfigsAlreadyListened({key})) return true;
    policies.UnRegisterListener(key, &printer, true);  // else the library would call it twice
    return policies.RegisterListenersWithList({{key, &printer}}, true);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: policy_listener KEY [SECONDS]\n");
        return 2;
    }
    const std::string key = argv[1];
    const auto end = argc > 2 ? Clock::now() + std::chrono::seconds(std::stoi(argv[2])) : Clock::time_point::max();
    Printer printer;
    while (Clock::now() < end) {
        // Reading each second, too: a change while the service was away is told to nobody.
        if (keepRegistered(key, printer)) printer.readAgain(key);
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    sd::DMConfig::GetInstance()->UnRegisterListener(key, &printer, true);
    return 0;
}
