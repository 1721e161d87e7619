// What a call over the bus layer costs, beside the kernel's floor, bare sd-bus and brokers: the time of one call, calls
// a second of many threads and processes, and the price of clients that only stay connected.
//     bus EXTENT SDCONFIGD
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "bench/comparison.h"
#include "bench/echo.h"
#include "bench/service.h"
#include "libsdconfig/sdconfig.h"
#include "platform/velmarlog/velmarlog.h"

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

const std::string kText(128, 'x');

// ---- GetProperty of the service itself ----

class GetPropertyCaller : public Caller {
public:
    void call(const std::string& text) override {
        if (text != mStored) require(mConfig->SetProperty("bench", mStored = text), "SetProperty");
        require(mConfig->GetProperty("bench") == text, "GetProperty");
    }

private:
    sd::SDConfig* const mConfig = sd::SDConfig::GetInstance();
    std::string mStored;
};

Echo getProperty(const Workplace& place, const std::string& sdconfigd, const Cpus& cpus) {
    const OnCpu onCpu(cpus.server);
    Echo echo{"GetProperty", {}, [] { return std::make_unique<GetPropertyCaller>(); }};
    echo.servers.push_back(Process::start(serviceCommand(sdconfigd, place.path("data")), kReady));
    return echo;
}

// ---- One call ----

struct Peer {
    Echo echo;
    Wanted wanted;
    double bound;  // of the bus layer's time by this one's
};

// `own` against each of the peers; all take turns.
void measureCall(const std::string& what, Echo own, std::vector<Peer> peers, const Extent& extent) {
    std::vector<std::unique_ptr<Caller>> callers;
    callers.push_back(own.connect());
    for (const Peer& peer : peers) callers.push_back(peer.echo.connect());
    std::vector<std::function<double()>> measures;
    for (const auto& caller : callers) {
        p50Microseconds(extent.calls(500), [&] { caller->call(kText); });  // warms up
        measures.emplace_back([&] { return p50Microseconds(extent.calls(4000), [&] { caller->call(kText); }); });
    }
    const std::vector<Samples> samples = alternate(extent.rounds(), measures);
    for (std::size_t i = 0; i < peers.size(); ++i)
        report({what, peers[i].echo.name, "us", peers[i].wanted, peers[i].bound}, samples[0], samples[i + 1]);
}

struct Mode {
    std::string where;
    const Cpus& cpus;
    // Of the ratios; 0: none.
    double raw, bySdBus, byDaemon, byBroker;
};

void measureCalls(const Workplace& place, const std::string& sdconfigd, const Extent& extent) {
    const auto peer = [](Echo echo, double bound) {
        return Peer{std::move(echo), bound > 0 ? Wanted::AtMost : Wanted::Nothing, bound};
    };
    for (const Mode& mode :
         {Mode{", on two cpus", kTwoCpus, 1.5, 1.1, 0.6, 0.85}, Mode{", on one cpu", kOneCpu, 1.6, 1.1, 0.4, 0.4}}) {
        std::vector<Peer> peers;
        peers.push_back(peer(rawSocket(kText.size(), mode.cpus), mode.raw));
        peers.push_back(peer(bareSdBus(place, mode.cpus), 0));
        if (auto daemon = throughDBusDaemon(place, mode.cpus)) peers.push_back(peer(std::move(*daemon), mode.byDaemon));
        if (auto broker = throughDBusBroker(place, mode.cpus)) peers.push_back(peer(std::move(*broker), mode.byBroker));
        const OnCpu onCpu(mode.cpus.caller);
        measureCall("bus call of 128 bytes, p50" + mode.where, busLayer(mode.cpus), std::move(peers), extent);

        std::vector<Peer> echo;
        echo.push_back(peer(bareSdBus(place, mode.cpus), mode.bySdBus));
        measureCall("GetProperty of 128 bytes, p50" + mode.where, getProperty(place, sdconfigd, mode.cpus),
                    std::move(echo), extent);
    }
}

void measureSizes(const Extent& extent) {
    const OnCpu onCpu(kTwoCpus.caller);
    const Echo layer = busLayer(kTwoCpus);
    const auto layerCaller = layer.connect();
    for (const int size : {64, 1 << 10, 1 << 14, 1 << 17, 1 << 20}) {
        const std::string text(static_cast<std::size_t>(size), 'x');
        const Echo raw = rawSocket(text.size(), kTwoCpus);
        const auto rawCaller = raw.connect();
        const int calls = extent.calls(size > 1 << 14 ? 100 : 1000);
        const auto samples =
            alternate(extent.rounds(), {[&] { return p50Microseconds(calls, [&] { layerCaller->call(text); }); },
                                        [&] { return p50Microseconds(calls, [&] { rawCaller->call(text); }); }});
        report({"bus call of " + std::to_string(size) + " bytes, p50", raw.name, "us", Wanted::Nothing, 0, "size",
                static_cast<double>(size)},
               samples[0], samples[1]);
    }
}

// ---- Calls a second ----

double fromThreads(const Echo& echo, int threads, int callsEach) {
    std::vector<std::unique_ptr<Caller>> callers;
    for (int i = 0; i < threads; ++i) {
        callers.push_back(echo.connect());
        callers.back()->call(kText);
    }
    std::vector<std::thread> running;
    running.reserve(callers.size());
    const auto start = Clock::now();
    for (const auto& caller : callers)
        running.emplace_back([&caller, callsEach] {
            for (int i = 0; i < callsEach; ++i) caller->call(kText);
        });
    for (std::thread& thread : running) thread.join();
    return threads * callsEach / std::chrono::duration<double>(Clock::now() - start).count();
}

// The processes connect, then wait for the start together.
double fromProcesses(const Echo& echo, int processes, int callsEach) {
    std::array<int, 2> go{};
    require(::pipe(go.data()) == 0, "pipe");
    std::vector<Process> running;
    running.reserve(static_cast<std::size_t>(processes));
    for (int i = 0; i < processes; ++i)
        running.push_back(Process::fork([&](int ready, int) {
            ::close(go[1]);
            const auto caller = echo.connect();
            caller->call(kText);
            tellReady(ready);
            waitForEnd(go[0]);
            for (int call = 0; call < callsEach; ++call) caller->call(kText);
        }));
    const auto start = Clock::now();
    ::close(go[1]);
    for (Process& process : running) require(process.wait() == 0, "a calling process");
    ::close(go[0]);
    return processes * callsEach / std::chrono::duration<double>(Clock::now() - start).count();
}

void measureThroughput(const Workplace& place, const Extent& extent) {
    const Echo layer = busLayer(kAnyCpus);
    const Echo bare = bareSdBus(place, kAnyCpus);
    using Callers = double (*)(const Echo&, int, int);
    for (const auto& [name, callers] : {std::pair<std::string, Callers>{"threads", fromThreads},
                                        std::pair<std::string, Callers>{"processes", fromProcesses}}) {
        for (const int count : {1, 4, 16}) {
            const int each = extent.calls(40'000) / count + 1;
            const auto samples = alternate(extent.rounds(), {[&, run = callers] { return run(layer, count, each); },
                                                             [&, run = callers] { return run(bare, count, each); }});
            report({"calls from " + name + ": " + std::to_string(count), bare.name, "/s", Wanted::AtLeast, 0.85,
                    "calls from " + name, static_cast<double>(count)},
                   samples[0], samples[1]);
        }
    }
}

// ---- Idle clients ----

Process holdIdleClients(const std::string& socket, int count) {
    return Process::fork([&](int ready, int end) {
        allowDescriptors(count);
        std::vector<std::unique_ptr<Caller>> clients;
        for (int i = 0; i < count; ++i) {
            clients.push_back(connectSdBus(socket));
            clients.back()->call(kText);
        }
        tellReady(ready);
        waitForEnd(end);
        std::_Exit(0);  // the kernel closes them faster
    });
}

// Two services: one has those clients alone that call, the other one idle ones as well.
void measureIdleClients(const Workplace& place, const Extent& extent) {
    constexpr int kThreads = 4;
    const int each = extent.calls(5000);
    const Echo alone = busLayer(kAnyCpus, "bench.alone");
    for (const int full : {1000, 5000}) {
        const int count = extent.size(full, 10);
        const Echo crowded = busLayer(kAnyCpus, "bench.crowded");
        const double before = crowded.servers.back().residentKiB();
        const Process idle = holdIdleClients(place.path("sdbus/bench.crowded"), count);
        const double after = crowded.servers.back().residentKiB();
        const auto samples = alternate(extent.rounds(), {[&] { return fromThreads(crowded, kThreads, each); },
                                                         [&] { return fromThreads(alone, kThreads, each); }});
        const std::string beside = " beside " + std::to_string(count) + " idle clients";
        report({"calls of 4 threads" + beside, "without them", "/s", Wanted::AtLeast, 0.95}, samples[0], samples[1]);
        report({"the service's memory for each of " + std::to_string(count) + " idle clients", "wanted", "KiB",
                Wanted::AtMost, 1},
               {(after - before) / count}, {8});
    }
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
    const bench::Extent extent(argc, argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: bus full|short|smoke SDCONFIGD\n");
        return 2;
    }
    velmarLogSetLevel(8);  // the start-up tasks tell of every setting that a desktop would have
    const bench::Workplace place;
    bench::measureCalls(place, argv[2], extent);
    bench::measureThroughput(place, extent);
    if (extent.isFull() || extent.isSmoke()) {
        bench::measureIdleClients(place, extent);
        bench::measureSizes(extent);
    }
    return 0;
}
