// What the programs cost as processes: the service's start, one `sdconfig get`, a program that only links the library,
// the first call of a process, resident memory.
//     processes EXTENT SDCONFIGD SDCONFIG EMPTY_PROGRAM CLIENT_PROGRAM [BEFORE]
// BEFORE: a folder with the programs sdconfigd and sdconfig of another build, and its libraries in lib/. What they cost
// is measured beside.
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
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
    std::string before;  // "" for none

    bool hasBefore() const { return !before.empty(); }
    std::string librariesBefore() const { return before + "/lib"; }
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

enum class End { AsTold, Killed };

// Without the time that it takes to end.
double startToReady(const Command& command, End end = End::AsTold) {
    const auto start = Clock::now();
    Process process = Process::start(command, kReady);
    const double time = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    if (end == End::Killed) process.kill();
    return time;
}

// All keys, which is the least that looking at each value once takes.
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
        for (const char* copy : {".killed", ".scanned"})
            std::filesystem::copy(data, data + copy, std::filesystem::copy_options::recursive);
        scanRows(data + ".scanned");  // opening it for the first time changes it
        const auto command = [&](const std::string& folder) { return serviceCommand(programs.sdconfigd, folder); };
        startToReady(command(data));  // what was filled in behind the service's back is looked through once
        const auto samples =
            alternate(extent.rounds(), {[&] { return startToReady(command(data)); },
                                        [&] { return startToReady(command(data + ".killed"), End::Killed); },
                                        [&] {
                                            return startToReady({programs.empty, "stay"}) + scanRows(data + ".scanned");
                                        }});
        const std::string what = "sdconfigd with " + std::to_string(rows) + " secure values, start to ready";
        const char* const floor = "an empty program, and a scan of the same rows by bare SQLite";
        report({what + " after a clean end", floor, "ms", Wanted::AtMost, 1.5, "start by number of values",
                static_cast<double>(rows)},
               samples[0], samples[2]);
        report({what + " after a kill", floor, "ms", Wanted::Nothing, 0, "start after a kill by number of values",
                static_cast<double>(rows)},
               samples[1], samples[2]);
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
    std::string libraries{};
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
    peers.push_back({"dconf read", {"dconf", "read", "/bench/key"}, Wanted::AtMost, 1.3});
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

std::function<double()> p50OfRuns(int calls, const Command& command, const std::string& libraries = "") {
    return [=] {
        const WithLibraries with(libraries);
        return p50Microseconds(calls, [&] { run(command); }) / 1000;
    };
}

void measureGet(const Workplace& place, const Programs& programs, const Extent& extent) {
    auto session = DesktopSession::start(place, "session");
    std::vector<Peer> peers = startPeers(place, session);
    peers.push_back({"an empty program", {programs.empty}, Wanted::Nothing, 0});
    const Process service = Process::start(serviceCommand(programs.sdconfigd, place.path("get")), kReady);
    run({programs.sdconfig, "set", "bench", storedValue()});
    run({programs.sdconfig, "secure", "set", "bench", storedValue()});
    if (programs.hasBefore())
        peers.push_back({"the build before",
                         {programs.before + "/sdconfig", "get", "bench"},
                         Wanted::Nothing,
                         0,
                         programs.librariesBefore()});

    const int calls = extent.calls(20);
    std::vector<std::function<double()>> measures{p50OfRuns(calls, {programs.sdconfig, "get", "bench"}),
                                                  p50OfRuns(calls, {programs.sdconfig, "secure", "get", "bench"})};
    for (const Peer& peer : peers) measures.push_back(p50OfRuns(calls, peer.command, peer.libraries));
    const auto samples = alternate(extent.rounds(), measures);
    const std::array gets{"sdconfig get, a whole process, p50", "sdconfig secure get, a whole process, p50"};
    for (std::size_t get = 0; get < gets.size(); ++get)
        for (std::size_t i = 0; i < peers.size(); ++i)
            report({gets[get], peers[i].name, "ms", peers[i].wanted, peers[i].bound}, samples[get],
                   samples[gets.size() + i]);
}

// ---- A program that makes no call ----

void measureLinked(const Programs& programs, const Extent& extent) {
    if (!programs.hasBefore()) return;
    const int calls = extent.calls(20);
    const auto samples = alternate(extent.rounds(), {p50OfRuns(calls, {programs.empty}),
                                                     p50OfRuns(calls, {programs.empty}, programs.librariesBefore())});
    report({"a program that is linked to libsdconfig and makes no call, p50", "with the libraries before", "ms",
            Wanted::AtMost, 0.5},
           samples[0], samples[1]);
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

struct BareCall {
    const char* method;
    std::string key;
};

// Over the bus layer alone, by one connection: connecting, and the calls, each after the answer to the one before.
void callBare(const std::vector<BareCall>& calls) {
    constexpr int kTimeoutMs = 5000;
    const auto proxy = SDBusSerivceManager::initSync(-1)->getServiceProxyInterface("sdconfig", SDBusSameUser, 1);
    for (const auto& [method, key] : calls) {
        const auto call = proxy->makeMethodCallMessage(method);
        call->appendString(key);
        require(proxy->callWithReplyBlocking(call, kTimeoutMs)->getErrorType() == SDBusNoError, method);
    }
}

// As many as the facade's first call makes of itself and for the start-up tasks, of the cheapest kind.
void callCheaply() {
    callBare(std::vector<BareCall>(kStartUpCalls + 1, {"GET_PROPERTY", "bench"}));
}

// The very ones, most of which have the service look into its databases.
void callTheSame() {
    std::vector<BareCall> calls{{"GET_PROPERTY", "ro.sd.build.version"},
                                {"GET_PROPERTY", "ro.sd.product.mode"},
                                {"GET_SECURE", "ro.sd.user.lockscreen.data"},
                                {"DEL_SECURE", "ro.sd.user.lockscreen.data"}};
    for (const char* power : {"batteryBrightness", "chargeBrightness", "chargeDimDisplayTime", "batteryDimDisplayTime",
                              "chargeLidCloseAction", "batteryLidCloseAction"})
        calls.push_back({"GET_SECURE", std::string("config.device.") + power});
    calls.push_back({"GET_PROPERTY", "bench"});
    callBare(calls);
}

void callFacade() {
    sd::SDConfig::GetInstance()->GetProperty("bench");
}

// The client runs on the first cpu. serviceCpu: the other one, or the same.
void measureFirstCall(const Workplace& place, const Programs& programs, const Extent& extent, int serviceCpu) {
    const auto startService = [&] {
        const OnCpu onCpu(serviceCpu);
        return Process::start(serviceCommand(programs.sdconfigd, place.path("first")), kReady);
    };
    const Process service = startService();
    const OnCpu onCpu(0);
    inNewProcess(callFacade);  // the very first sets what the start-up tasks find missing
    const auto p50 = [calls = extent.calls(40)](void (*firstCall)()) {
        return [=] {
            Samples times;
            for (int i = 0; i < calls; ++i) times.push_back(inNewProcess(firstCall));
            return median(times);
        };
    };
    const auto samples = alternate(extent.rounds(), {p50(callFacade), p50(callCheaply), p50(callTheSame)});
    const std::string what =
        std::string("first facade call of a process, p50, on ") + (serviceCpu == 0 ? "one cpu" : "two cpus");
    const std::string count = std::to_string(kStartUpCalls + 1);
    report({what, "connecting and " + count + " bare calls", "ms", Wanted::AtMost, 1.2}, samples[0], samples[1]);
    report({what, "connecting and the same " + count + " calls, bare", "ms"}, samples[0], samples[2]);
}

// ---- Memory ----

// A service that has come to rest: it gives back what it took to start.
Process startResting(const std::string& sdconfigd, const std::string& data) {
    Process service = Process::start(serviceCommand(sdconfigd, data), kReady);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    return service;
}

// wanted: of the figure by that of the build before.
void reportMemory(const std::string& what, double figure, double empty, std::optional<double> before, double wanted) {
    const std::string named = what + ", resident memory";
    report({named, "an empty program", "KiB"}, {figure}, {empty});
    if (before) report({named, "the build before", "KiB", Wanted::AtMost, wanted}, {figure}, {*before});
}

void measureMemory(const Workplace& place, const Programs& programs, const Extent& extent) {
    const double empty = Process::start({programs.empty, "stay"}, kReady).residentKiB();
    for (const int rows : storeSizes(extent)) {
        const std::string data = place.path("memory" + std::to_string(rows));
        makeData(data, programs.sdconfigd, rows);
        const double figure = startResting(programs.sdconfigd, data).residentKiB();
        std::optional<double> before;
        if (programs.hasBefore()) {
            makeData(data + ".before", programs.before + "/sdconfigd", rows);
            before = startResting(programs.before + "/sdconfigd", data + ".before").residentKiB();
        }
        reportMemory("sdconfigd with " + std::to_string(rows) + " secure values", figure, empty, before, 0.8);
    }
    const Process service = Process::start(serviceCommand(programs.sdconfigd, place.path("memory10")), kReady);
    const auto clientWith = [&](const std::string& libraries) {
        const WithLibraries with(libraries);
        return Process::start({programs.client}, kReady).residentKiB();
    };
    const double figure = clientWith("");
    std::optional<double> before;
    if (programs.hasBefore()) before = clientWith(programs.librariesBefore());
    reportMemory("a client after its first call", figure, empty, before, 0.7);
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
    const bench::Extent extent(argc, argv);
    if (argc != 6 && argc != 7) {
        std::fprintf(stderr,
                     "usage: processes full|short|smoke SDCONFIGD SDCONFIG EMPTY_PROGRAM CLIENT_PROGRAM [BEFORE]\n");
        return 2;
    }
    velmarLogSetLevel(8);  // the start-up tasks tell of every setting that a desktop would have
    const bench::Programs programs{argv[2], argv[3], argv[4], argv[5], argc == 7 ? argv[6] : ""};
    const bench::Workplace place;
    bench::measureStart(place, programs, extent);
    for (const int serviceCpu : {1, 0}) bench::measureFirstCall(place, programs, extent, serviceCpu);
    bench::measureMemory(place, programs, extent);
    bench::measureLinked(programs, extent);
    bench::measureGet(place, programs, extent);
    return 0;
}
