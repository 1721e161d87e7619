// What policies of the machine cost: the start, a look-up, the time until a change is in force, and how long it keeps
// other calls waiting.
//     policies EXTENT SDCONFIGD
#include <semaphore.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "bench/comparison.h"
#include "bench/measuring_process.h"
#include "bench/service.h"
#include "libsdconfig/sdconfig.h"
#include "platform/sdbus/sdbus.h"
#include "src/sdconfig_protocol.h"

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kFiles = 20;
constexpr int kStored = 100;
constexpr std::chrono::microseconds kBetweenLookUps{200};

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

std::string uriOf(int index) {
    return "bench.governed.by.the.machine." + std::to_string(100'000 + index);
}

// The machine's policies, in files of as many each.
class PolicyFolder {
public:
    PolicyFolder(std::string folder, int policies) : mFolder(std::move(folder)), mPolicies(policies) {
        std::filesystem::create_directory(mFolder);
        writeAll(0);
    }

    const std::string& path() const { return mFolder; }
    int policies() const { return mPolicies; }
    int firstOf(int file) const { return mPolicies / kFiles * file; }
    std::string last() const { return uriOf(mPolicies - 1); }

    static std::string valueOf(int turn) { return storedValue() + std::to_string(turn); }

    // In one step, as a tool that governs a machine does it.
    void write(int file, int turn) const {
        writeAside(file, turn);
        rename(file);
    }

    // All of them likewise, as a package's are: when each is whole.
    void writeAll(int turn) const {
        for (int file = 0; file < kFiles; ++file) writeAside(file, turn);
        for (int file = 0; file < kFiles; ++file) rename(file);
    }

private:
    std::string pathOf(int file) const { return mFolder + "/" + std::to_string(10 + file) + "-bench.json"; }

    void writeAside(int file, int turn) const {
        std::ofstream text(pathOf(file) + ".new");
        for (int i = firstOf(file); i < firstOf(file + 1); ++i)
            text << (i == firstOf(file) ? "{" : ",") << "\n    \"" << uriOf(i) << R"(": {"value": ")" << valueOf(turn)
                 << R"(", "priority": 10})";
        text << "\n}\n";
        text.close();
        require(text.good(), "writing policies");
    }

    void rename(int file) const { std::filesystem::rename(pathOf(file) + ".new", pathOf(file)); }

    const std::string mFolder;
    const int mPolicies;
};

std::string in(const PolicyFolder& folder) {
    return std::to_string(folder.policies()) + " policies of the machine in " + std::to_string(kFiles) + " files";
}

// ---- The start ----

double startMilliseconds(const std::string& sdconfigd, const std::string& dataFolder, const std::string& policies) {
    std::vector<std::string> command = serviceCommand(sdconfigd, dataFolder);
    command.insert(command.end(), {"--policy-dir", policies});
    const auto start = Clock::now();
    const Process service = Process::start(command, kReady);
    return millisecondsSince(start);
}

void measureStart(const Workplace& place, const std::string& sdconfigd, const PolicyFolder& folder,
                  const PolicyFolder& none, const Extent& extent) {
    makeData(place.path("start"), sdconfigd, kStored);
    Samples with;
    Samples without;
    Samples added;
    for (int round = 0; round < extent.rounds() * 3; ++round) {
        with.push_back(startMilliseconds(sdconfigd, place.path("start"), folder.path()));
        without.push_back(startMilliseconds(sdconfigd, place.path("start"), none.path()));
        added.push_back(with.back() - without.back());
    }
    report({"a start with " + in(folder), "without them", "ms"}, with, without);
    report({"what they add to a start", "wanted", "ms", Wanted::AtMost, 1}, added, Samples(added.size(), 25));
}

// ---- A look-up ----

MeasuringProcess::Measures lookUp(const Service& service, int calls) {
    service.join();
    return {[calls, turn = 0]() mutable {
        return p50Microseconds(calls, [&] {
            require(sd::SDConfig::GetInstance()->GetSecure(keyOf(turn = (turn + 7) % kStored)) == storedValue(),
                    "GetSecure");
        });
    }};
}

void measureLookUp(const Service& with, const Service& without, const PolicyFolder& folder, const Extent& extent) {
    const MeasuringProcess beside([&] { return lookUp(with, extent.calls(4000)); });
    const MeasuringProcess alone([&] { return lookUp(without, extent.calls(4000)); });
    const auto samples = alternate(extent.rounds() * 3, {[&] { return beside.run(0); }, [&] { return alone.run(0); }});
    report({"GetSecure beside " + in(folder) + ", p50", "without them", "us", Wanted::AtMost, 1.05}, samples[0],
           samples[1]);
}

// ---- A change ----

// Waits for the event of a URI.
class Watcher {
public:
    Watcher()
        : mProxy(SDBusSerivceManager::initSync(-1)->getServiceProxyInterface(sd::protocol::kServiceName, SDBusSameUser,
                                                                             1)) {
        ::sem_init(&mCame, 0, 0);
        auto* callback = new SDBusEventCallback([this](const std::shared_ptr<SDBusMessage>& event) {
            const std::lock_guard lock(mMutex);
            if (event->getString(0) == mUri && event->getString(1) == mValue) ::sem_post(&mCame);
        });
        require(mProxy->addEventListener(sd::protocol::kPolicyChanged, callback, SDBusSameUser), "addEventListener");
    }
    void expect(const std::string& uri, const std::string& value) {
        const std::lock_guard lock(mMutex);
        mUri = uri;
        mValue = value;
    }
    void wait() { ::sem_wait(&mCame); }

private:
    std::mutex mMutex;
    std::string mUri;
    std::string mValue;
    sem_t mCame{};
    std::shared_ptr<SDBusProxyInterface> mProxy;  // ends its thread first
};

// Reads until told to stop. Returns the longest wait, in milliseconds.
double longestWait(const std::atomic<bool>& stop) {
    double longest = 0;
    for (int turn = 0; !stop; ++turn) {
        const auto start = Clock::now();
        require(sd::SDConfig::GetInstance()->GetSecure(keyOf(turn % kStored)) == storedValue(), "GetSecure");
        longest = std::max(longest, millisecondsSince(start));
    }
    return longest;
}

// In turn: until a look-up gives what files that all changed say; until the last of their policies was told of; the
// longest wait of a caller meanwhile. Each ends when everything was told of.
MeasuringProcess::Measures change(const Service& service, const PolicyFolder& folder) {
    service.join();
    const auto watcher = std::make_shared<Watcher>();
    const auto turn = std::make_shared<int>(0);
    const auto changeAll = [&folder, watcher, turn](const std::function<void()>& inForce) {
        watcher->expect(folder.last(), PolicyFolder::valueOf(++*turn));
        folder.writeAll(*turn);
        const auto start = Clock::now();
        if (inForce) inForce();
        const double sample = millisecondsSince(start);
        watcher->wait();
        return inForce ? sample : millisecondsSince(start);
    };
    return {[&folder, changeAll, turn] {
                return changeAll([&] {
                    const std::string wanted = PolicyFolder::valueOf(*turn);
                    while (sd::SDConfig::GetInstance()->GetSecure(folder.last()) != wanted)
                        std::this_thread::sleep_for(kBetweenLookUps);
                });
            },
            [changeAll] { return changeAll(nullptr); },
            [changeAll] {
                std::atomic<bool> stop{false};
                double longest = 0;
                std::thread caller([&] { longest = longestWait(stop); });
                changeAll(nullptr);
                stop = true;
                caller.join();
                return longest;
            }};
}

void measureChange(const Service& service, const PolicyFolder& folder, const Extent& extent) {
    const MeasuringProcess process([&] { return change(service, folder); });
    const auto samples =
        alternate(extent.isFull() ? 100 : extent.rounds(),
                  {[&] { return process.run(0); }, [&] { return process.run(1); }, [&] { return process.run(2); }});
    const std::string all = "all of " + in(folder);
    report(
        {"from the last rename of " + all + " until a look-up gives the new value", "wanted", "ms", Wanted::AtMost, 1},
        samples[0], Samples(samples[0].size(), 50));
    report("the same until the last policy was told of", "ms", samples[1]);
    report({"longest wait of another caller while " + all + " change", "wanted", "ms", Wanted::AtMost, 1}, samples[2],
           Samples(samples[2].size(), 20));
}

// ---- A change, as several clients learn of it ----

constexpr int kClients = 3;
constexpr int kFirstTurn = 1'000'000;  // no value that was there before

// When the last policy of the next turn was told of, on the clock that all processes share.
MeasuringProcess::Measures learn(const Service& service, const PolicyFolder& folder) {
    service.join();
    const auto watcher = std::make_shared<Watcher>();
    watcher->expect(folder.last(), PolicyFolder::valueOf(kFirstTurn));
    return {[&folder, watcher, turn = kFirstTurn]() mutable {
        watcher->wait();
        const double time = millisecondsSince({});
        watcher->expect(folder.last(), PolicyFolder::valueOf(++turn));
        return time;
    }};
}

void measureLearning(const Service& service, const PolicyFolder& folder, const Extent& extent) {
    std::vector<std::unique_ptr<MeasuringProcess>> clients;
    clients.reserve(kClients);
    for (int i = 0; i < kClients; ++i)
        clients.push_back(std::make_unique<MeasuringProcess>([&] { return learn(service, folder); }));
    const int rounds = extent.isFull() ? 1000 : extent.rounds();
    Samples samples;
    for (int round = 0; round < rounds; ++round) {
        folder.write(kFiles - 1, kFirstTurn + round);
        const double start = millisecondsSince({});
        double last = 0;
        for (const auto& client : clients) last = std::max(last, client->run(0));
        samples.push_back(last - start);
    }
    report({"from the rename of one file of " + in(folder) + " until " + std::to_string(kClients) +
                " clients were told of the last policy of it, p99",
            "wanted", "ms", Wanted::AtMost, 1},
           {quantile(samples, 0.99)}, {100});
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
    const bench::Extent extent(argc, argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: policies full|short|smoke SDCONFIGD\n");
        return 2;
    }
    const bench::Workplace place;
    const bench::PolicyFolder folder(place.path("policies"), extent.size(10'000, 100));
    const bench::PolicyFolder none(place.path("none"), 0);
    bench::measureStart(place, argv[2], folder, none, extent);
    const bench::Service with(place, "with", argv[2], bench::kStored, {"--policy-dir", folder.path()});
    const bench::Service without(place, "without", argv[2], bench::kStored, {"--policy-dir", none.path()});
    bench::measureLookUp(with, without, folder, extent);
    bench::measureChange(with, folder, extent);
    bench::measureLearning(with, folder, extent);
    return 0;
}
