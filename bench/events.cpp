// How long a change takes to those who listen, beside a bare loop of sends; and what one slow call does to everybody
// else.
//     events EXTENT SDCONFIGD
#include <semaphore.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

#include "bench/comparison.h"
#include "bench/service.h"
#include "libsdconfig/dmconfig.h"
#include "libsdconfig/sdconfig.h"
#include "platform/sdbus/sdbus.h"
#include "src/sdconfig_protocol.h"

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kKey[] = "bench.watched";
constexpr std::size_t kEventBytes = 128;

double milliseconds(Clock::duration time) {
    return std::chrono::duration<double, std::milli>(time).count();
}

// Waits until everyone has arrived who was expected.
class Arrivals {
public:
    Arrivals() { ::sem_init(&mAll, 0, 0); }
    ~Arrivals() { ::sem_destroy(&mAll); }
    Arrivals(const Arrivals&) = delete;
    Arrivals& operator=(const Arrivals&) = delete;

    void expect(int count) { mMissing = count; }
    void arrive() {
        if (--mMissing == 0) ::sem_post(&mAll);
    }
    void wait() { ::sem_wait(&mAll); }

private:
    std::atomic<int> mMissing{0};
    sem_t mAll{};
};

// ---- The service's fan-out: one listener of the facade, and subscribers that stand for other processes ----

class Watchers : public sd::DMConfig::Listener {
public:
    explicit Watchers(int others) {
        // Not RegisterListener, which tells the service of a key once in the life of a process.
        require(sd::DMConfig::GetInstance()->RegisterListenersWithList({{kKey, this}}, false),
                "RegisterListenersWithList");
        for (int i = 0; i < others; ++i) {
            mProxies.push_back(SDBusSerivceManager::initSync(-1)->getServiceProxyInterface(sd::protocol::kServiceName,
                                                                                           SDBusSameUser, 1));
            auto* callback = new SDBusEventCallback([this](std::shared_ptr<SDBusMessage> event) {
                if (event->getString(0) == kKey) mArrivals.arrive();
            });
            require(mProxies.back()->addEventListener(sd::protocol::kDmChanged, callback, SDBusSameUser),
                    "addEventListener");
        }
    }
    ~Watchers() override { sd::DMConfig::GetInstance()->UnRegisterListener(kKey, this, false); }
    Watchers(const Watchers&) = delete;
    Watchers& operator=(const Watchers&) = delete;

    void onChanged(const std::string&, const std::string&, bool) override { mArrivals.arrive(); }

    // From the beginning of the call that changes the value until the last one has heard of it, in microseconds.
    double change() {
        const std::string value(kEventBytes, static_cast<char>('a' + mChanges++ % 26));
        mArrivals.expect(static_cast<int>(mProxies.size()) + 1);
        const auto start = Clock::now();
        require(sd::SDConfig::GetInstance()->SetProperty(kKey, value), "SetProperty");
        mArrivals.wait();
        return milliseconds(Clock::now() - start) * 1000;
    }

private:
    Arrivals mArrivals;
    int mChanges = 0;
    std::vector<std::shared_ptr<SDBusProxyInterface>> mProxies;
};

// ---- The bare fan-out: a process that sends the same bytes to as many sockets, each read by a thread of its own ----

using SocketPair = std::array<int, 2>;

SocketPair connectedSockets() {
    SocketPair sockets{};
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()) == 0, "socketpair");
    return sockets;
}

class BareWatchers {
public:
    explicit BareWatchers(int count)
        : mTrigger(connectedSockets()), mReaders(makeReaders(count)), mSender(Process::fork([&](int ready, int) {
              tellReady(ready);
              send();
          })) {
        for (const SocketPair& reader : mReaders)
            mThreads.emplace_back([this, socket = reader[0]] {
                std::array<char, kEventBytes> bytes;
                while (::recv(socket, bytes.data(), bytes.size(), MSG_WAITALL) == kEventBytes) mArrivals.arrive();
            });
    }
    ~BareWatchers() {
        for (const SocketPair& reader : mReaders) ::shutdown(reader[0], SHUT_RDWR);
        for (std::thread& thread : mThreads) thread.join();
        for (const SocketPair& reader : mReaders) closeBoth(reader);
        closeBoth(mTrigger);
    }
    BareWatchers(const BareWatchers&) = delete;
    BareWatchers& operator=(const BareWatchers&) = delete;

    double change() {
        const std::string value(kEventBytes, 'x');
        std::array<char, 1> answer{};
        mArrivals.expect(static_cast<int>(mReaders.size()));
        const auto start = Clock::now();
        require(::write(mTrigger[0], value.data(), value.size()) == kEventBytes, "write");
        require(::read(mTrigger[0], answer.data(), answer.size()) == 1, "read");
        mArrivals.wait();
        return milliseconds(Clock::now() - start) * 1000;
    }

private:
    static std::vector<SocketPair> makeReaders(int count) {
        std::vector<SocketPair> readers(static_cast<std::size_t>(count));
        for (SocketPair& reader : readers) reader = connectedSockets();
        return readers;
    }
    static void closeBoth(const SocketPair& sockets) {
        ::close(sockets[0]);
        ::close(sockets[1]);
    }

    // Like the service, it answers the change when everybody has been sent to.
    void send() const {
        std::array<char, kEventBytes> bytes;
        while (::recv(mTrigger[1], bytes.data(), bytes.size(), MSG_WAITALL) == kEventBytes) {
            for (const SocketPair& reader : mReaders) (void)!::write(reader[1], bytes.data(), bytes.size());
            (void)!::write(mTrigger[1], "k", 1);
        }
    }

    Arrivals mArrivals;
    const SocketPair mTrigger;
    const std::vector<SocketPair> mReaders;
    const Process mSender;
    std::vector<std::thread> mThreads;
};

void measureFanOut(const Extent& extent) {
    allowDescriptors(4000);
    for (const int others : {1, 100, 1000}) {
        const int count = extent.size(others, std::min(others, 5));
        BareWatchers bare(count + 1);  // before the other threads, since it forks
        Watchers watchers(count);
        const int changes = extent.calls(others == 1000 ? 20 : 200);
        const auto p50 = [changes](auto& of) {
            Samples times;
            for (int i = 0; i < changes; ++i) times.push_back(of.change());
            return median(times);
        };
        const auto samples = alternate(extent.rounds(), {[&] { return p50(watchers); }, [&] { return p50(bare); }});
        report({"a change until the last of " + std::to_string(count) + " other subscribers heard of it, p50",
                "a bare loop of sends", "us", Wanted::AtMost, 1.5, "subscribers", static_cast<double>(count)},
               samples[0], samples[1]);
    }
}

// ---- One slow call ----

constexpr std::chrono::milliseconds kLockTime{500};
constexpr std::chrono::milliseconds kRunTime{1500};

// What quick clients meet while it runs.
struct Waits {
    std::atomic<int> calls{0};
    std::atomic<double> longest{0};

    void add(double wait) {
        ++calls;
        double known = longest;
        while (wait > known && !longest.compare_exchange_weak(known, wait)) {
        }
    }
};

void callQuickly(int threads, std::chrono::milliseconds runTime, Waits& waits) {
    std::vector<std::thread> running;
    running.reserve(static_cast<std::size_t>(threads));
    for (int i = 0; i < threads; ++i)
        running.emplace_back([&waits, runTime] {
            const auto end = Clock::now() + runTime;
            while (Clock::now() < end) {
                const auto start = Clock::now();
                (void)sd::SDConfig::GetInstance()->GetProperty(kKey);
                waits.add(milliseconds(Clock::now() - start));
            }
        });
    for (std::thread& thread : running) thread.join();
}

// The write lock of the database, as another program that has it open could hold it.
class HeldLock {
public:
    explicit HeldLock(const std::string& database) {
        require(sqlite3_open(database.c_str(), &mDatabase) == SQLITE_OK &&
                    sqlite3_busy_timeout(mDatabase, 5000) == SQLITE_OK &&
                    sqlite3_exec(mDatabase, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK,
                "the database's lock");
    }
    ~HeldLock() { sqlite3_close(mDatabase); }
    HeldLock(const HeldLock&) = delete;
    HeldLock& operator=(const HeldLock&) = delete;

private:
    sqlite3* mDatabase = nullptr;
};

void measureSlowCall(const std::string& database, const Extent& extent) {
    const int clients = extent.size(100, 5);
    Samples longest[2];
    Samples rate[2];
    for (int round = 0; round < extent.rounds(); ++round)
        for (const bool slow : {false, true}) {
            Waits waits;
            std::thread holder;
            std::thread writer;
            if (slow) {
                auto lock = std::make_unique<HeldLock>(database);
                holder = std::thread([held = std::move(lock)]() mutable {
                    std::this_thread::sleep_for(kLockTime);
                    held.reset();
                });
                writer = std::thread([] { (void)sd::SDConfig::GetInstance()->SetSecure("bench.slow", "value"); });
            }
            callQuickly(clients, kRunTime, waits);
            if (slow) {
                holder.join();
                writer.join();
            }
            longest[slow].push_back(waits.longest);
            rate[slow].push_back(waits.calls / (milliseconds(kRunTime) / 1000));
        }
    const std::string beside = std::to_string(clients) + " quick clients beside a write that waits " +
                               std::to_string(kLockTime.count()) + " ms for a database's lock";
    report({"longest wait of " + beside, "without it", "ms"}, longest[true], longest[false]);
    report({"calls of " + beside, "without it", "/s"}, rate[true], rate[false]);
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
    const bench::Extent extent(argc, argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: events full|short|smoke SDCONFIGD\n");
        return 2;
    }
    const bench::Workplace place;
    const bench::Service service(place, "events", argv[2], 0);
    service.join();
    bench::measureFanOut(extent);
    bench::measureSlowCall(service.dataFolder() + "/sdconfig.db", extent);
    return 0;
}
