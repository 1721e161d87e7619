// What the programs cost as processes: the service's start, one `sdconfig get`, the first call of a process, resident
// memory.
//     processes EXTENT SDCONFIGD SDCONFIG EMPTY_PROGRAM CLIENT_PROGRAM
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "bench/bare_database.h"
#include "bench/comparison.h"
#include "bench/desktop_session.h"
#include "bench/measuring_process.h"
#include "bench/service.h"
#include "libsdconfig/sdconfig.h"
#include "platform/sdbus/sdbus.h"
#include "platform/velmarlog/velmarlog.h"

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;
using Command = std::vector<std::string>;

struct Programs {
    std::string sdconfigd;
    std::string sdconfig;
    std::string empty;
    std::string client;
};

double millisecondsOf(const std::function<void()>& work) {
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

std::vector<int> storeSizes(const Extent& extent) {
    return extent.isSmoke() ? std::vector{10} : std::vector{10, 100'000};
}

// ---- Start ----

// Without the time that it takes to end.
double startToReady(const Command& command) {
    const auto start = Clock::now();
    const Process process = Process::start(command, kReady);
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// What the store has to read when it is opened: the keys of all its secure values.
double scanRows(const std::string& dataFolder) {
    return millisecondsOf([&] {
        BareDatabase database(dataFolder + "/sdconfig.db");
        require(!database.run("SELECT key FROM secure_v3").empty(), "a row of the store");
    });
}

void measureStart(const Workplace& place, const Programs& programs, const Extent& extent) {
    for (const int rows : storeSizes(extent)) {
        const std::string data = place.path("start" + std::to_string(rows));
        makeData(data, programs.sdconfigd, rows);
        std::filesystem::copy(data, data + ".scanned", std::filesystem::copy_options::recursive);
        scanRows(data + ".scanned");  // opening it for the first time changes it
        const auto samples =
            alternate(extent.rounds(), {[&] { return startToReady(serviceCommand(programs.sdconfigd, data)); },
                                        [&] {
                                            return startToReady({programs.empty, "stay"}) + scanRows(data + ".scanned");
                                        }});
        report({"sdconfigd with " + std::to_string(rows) + " secure values, start to ready",
                "an empty program, and a scan of the same rows by bare SQLite", "ms", Wanted::AtMost, 1.5,
                "start by number of values", static_cast<double>(rows)},
               samples[0], samples[1]);
    }
}

// ---- One `sdconfig get` ----

double wholeRun(const Command& command) {
    return millisecondsOf([&] { require(Process::start(command).wait() == 0, command.front().c_str()); });
}

void run(const Command& command) {
    wholeRun(command);
}

struct Peer {
    std::string name;
    Command command;
    Wanted wanted;
    double bound;  // of the time of `sdconfig get` by this one's
};

// The same value in dconf; gsettings reads it through a schema.
void addDconf(const Workplace& place, std::vector<Peer>& peers) {
    if (!isInstalled("dconf") || !isInstalled("gsettings") || !isInstalled("glib-compile-schemas")) return;
    std::ofstream(place.path("bench.gschema.xml")) << "<schemalist><schema id='bench' path='/bench/'><key name='key' "
                                                      "type='s'><default>''</default></key></schema></schemalist>";
    run({"glib-compile-schemas", place.path("")});
    ::setenv("GSETTINGS_SCHEMA_DIR", place.path("").c_str(), 1);
    ::setenv("GSETTINGS_BACKEND", "dconf", 1);
    run({"dconf", "write", "/bench/key", "'" + storedValue() + "'"});
    peers.push_back({"dconf read", {"dconf", "read", "/bench/key"}, Wanted::AtMost, 2});
    peers.push_back({"gsettings get", {"gsettings", "get", "bench", "key"}, Wanted::AtMost, 1});
}

void addSecretTool(const Workplace& place, std::vector<Peer>& peers) {
    if (!isInstalled("secret-tool")) return;
    std::ofstream(place.path("secret")) << storedValue();
    run({"sh", "-c", "secret-tool store --label=bench key bench < \"$0\"", place.path("secret")});
    peers.push_back({"secret-tool lookup", {"secret-tool", "lookup", "key", "bench"}, Wanted::AtMost, 1});
}

// The peers that are installed. The rest of the measurement takes place in their session.
std::vector<Peer> startPeers(const Workplace& place, std::optional<DesktopSession>& session) {
    std::vector<Peer> peers;
    if (!session) return peers;
    session->join();
    if (session->startDconf()) addDconf(place, peers);
    if (session->startKeyring()) addSecretTool(place, peers);
    return peers;
}

void measureGet(const Workplace& place, const Programs& programs, const Extent& extent) {
    auto session = DesktopSession::start(place, "session");
    std::vector<Peer> peers = startPeers(place, session);
    peers.push_back({"an empty program", {programs.empty}, Wanted::Nothing, 0});
    const Process service = Process::start(serviceCommand(programs.sdconfigd, place.path("get")), kReady);
    run({programs.sdconfig, "set", "bench", storedValue()});

    const int calls = extent.calls(20);
    const auto p50 = [calls](const Command& command) {
        return [&command, calls] { return p50Microseconds(calls, [&] { run(command); }) / 1000; };
    };
    const Command get{programs.sdconfig, "get", "bench"};
    std::vector<std::function<double()>> measures{p50(get)};
    for (const Peer& peer : peers) measures.emplace_back(p50(peer.command));
    const auto samples = alternate(extent.rounds(), measures);
    for (std::size_t i = 0; i < peers.size(); ++i)
        report({"sdconfig get, a whole process, p50", peers[i].name, "ms", peers[i].wanted, peers[i].bound}, samples[0],
               samples[i + 1]);
}

// ---- The first call of a process ----

// Of the start-up tasks: two properties, two requests for the old lock screen's data, and six settings of power.
constexpr int kStartUpCalls = 10;

// A process that makes its first call, through the facade, over the bus layer; the time of that alone.
double inNewProcess(const std::function<void()>& firstCall) {
    const MeasuringProcess process(
        [&]() -> MeasuringProcess::Measures { return {[&] { return millisecondsOf(firstCall); }}; });
    return process.run(0);
}

// As many as the facade's first call makes of itself and for the start-up tasks.
void makeBareCalls(SDBusProxyInterface& proxy) {
    constexpr int kTimeoutMs = 5000;
    for (int i = 0; i < kStartUpCalls + 1; ++i) {
        const auto call = proxy.makeMethodCallMessage("GET_PROPERTY");
        call->appendString("bench");
        require(proxy.callWithReplyBlocking(call, kTimeoutMs)->getErrorType() == SDBusNoError, "GET_PROPERTY");
    }
}

std::shared_ptr<SDBusProxyInterface> connectBare() {
    return SDBusSerivceManager::initSync(-1)->getServiceProxyInterface("sdconfig", SDBusSameUser, 1);
}

void callBare() {
    makeBareCalls(*connectBare());
}

// A subscription is a thread and a connection more; the facade needs one for its listeners.
void subscribeAndCallBare() {
    const auto proxy = connectBare();
    auto* const ignore = new SDBusEventCallback([](const std::shared_ptr<SDBusMessage>&) {});  // the proxy takes it
    require(proxy->addEventListener("bench", ignore, SDBusSameUser), "addEventListener");
    makeBareCalls(*proxy);
}

void callFacade() {
    sd::SDConfig::GetInstance()->GetProperty("bench");
}

void measureFirstCall(const Workplace& place, const Programs& programs, const Extent& extent) {
    const Process service = Process::start(serviceCommand(programs.sdconfigd, place.path("first")), kReady);
    inNewProcess(callFacade);  // the very first sets what the start-up tasks find missing
    const auto p50 = [calls = extent.calls(40)](void (*firstCall)()) {
        return [=] {
            Samples times;
            for (int i = 0; i < calls; ++i) times.push_back(inNewProcess(firstCall));
            return median(times);
        };
    };
    const auto samples = alternate(extent.rounds(), {p50(callFacade), p50(callBare), p50(subscribeAndCallBare)});
    const std::string what = "first facade call of a process, p50";
    const std::string floor = "connecting and " + std::to_string(kStartUpCalls + 1) + " bare calls";
    report({what, floor, "ms", Wanted::AtMost, 1.5}, samples[0], samples[1]);
    report({what, floor + ", and a subscription", "ms"}, samples[0], samples[2]);
}

// ---- Memory ----

void measureMemory(const Workplace& place, const Programs& programs, const Extent& extent) {
    const Process empty = Process::start({programs.empty, "stay"}, kReady);
    const Samples floor{empty.residentKiB()};
    for (const int rows : storeSizes(extent)) {
        const std::string data = place.path("memory" + std::to_string(rows));
        makeData(data, programs.sdconfigd, rows);
        const Process service = Process::start(serviceCommand(programs.sdconfigd, data), kReady);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));  // it gives back what it took to start
        report(
            {"sdconfigd with " + std::to_string(rows) + " secure values, resident memory", "an empty program", "KiB"},
            {service.residentKiB()}, floor);
    }
    const Process service = Process::start(serviceCommand(programs.sdconfigd, place.path("memory10")), kReady);
    const Process client = Process::start({programs.client}, kReady);
    report({"a client after its first call, resident memory", "an empty program", "KiB"}, {client.residentKiB()},
           floor);
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
    const bench::Extent extent(argc, argv);
    if (argc != 6) {
        std::fprintf(stderr, "usage: processes full|short|smoke SDCONFIGD SDCONFIG EMPTY_PROGRAM CLIENT_PROGRAM\n");
        return 2;
    }
    velmarLogSetLevel(8);  // the start-up tasks tell of every setting that a desktop would have
    const bench::Programs programs{argv[2], argv[3], argv[4], argv[5]};
    const bench::Workplace place;
    bench::measureStart(place, programs, extent);
    bench::measureFirstCall(place, programs, extent);
    bench::measureMemory(place, programs, extent);
    bench::measureGet(place, programs, extent);
    return 0;
}
