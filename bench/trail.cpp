// What the trail costs: sets with it beside sets without, and a start with many entries beside one with few.
//     trail EXTENT SDCONFIGD
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>

#include "bench/comparison.h"
#include "bench/measuring_process.h"
#include "bench/process.h"
#include "bench/service.h"
#include "libsdconfig/dmconfig.h"
#include "libsdconfig/sdconfig.h"

namespace bench {

namespace {

constexpr char kNoTrail[] = "--no-audit";

// The two ends of each call are kept apart, as bench/echo.h tells why.
constexpr int kServiceCpu = 1;

constexpr int kRows = 100;
constexpr int kShortTurns = 4;  // a disk's pace drifts: those that wait for it take turns more often

Service startService(const Workplace& place, const std::string& name, const std::string& sdconfigd,
                     const std::vector<std::string>& options) {
    const OnCpu onCpu(kServiceCpu);
    return {place, name, sdconfigd, kRows, options};
}

std::string valueOf(int turn) {
    return storedValue() + std::to_string(turn);
}

sd::PolicyList somePolicies(int turn) {
    sd::PolicyList policies;
    for (int i = 0; i < kRows; ++i) policies["bench.policy." + std::to_string(i)] = {{valueOf(turn), 6}};
    return policies;
}

enum Set { kSecure, kPolicies, kProperty };

MeasuringProcess::Measures sets(const Service& service, const Extent& extent) {
    service.join();
    sd::SDConfig& config = *sd::SDConfig::GetInstance();
    return {[&config, turn = 0, calls = extent.calls(50)]() mutable {
                return p50Microseconds(calls,
                                       [&] { require(config.SetSecure(keyOf(0), valueOf(++turn)), "SetSecure"); });
            },
            [turn = 0, calls = extent.calls(3)]() mutable {
                return p50Microseconds(calls, [&] {
                    require(sd::DMConfig::GetInstance()->SetPolicyList(somePolicies(++turn)), "SetPolicyList");
                });
            },
            [&config, turn = 0, calls = extent.calls(1000)]() mutable {
                return p50Microseconds(calls,
                                       [&] { require(config.SetProperty(keyOf(0), valueOf(++turn)), "SetProperty"); });
            }};
}

void measureSets(const Workplace& place, const std::string& sdconfigd, const Extent& extent) {
    const Service with = startService(place, "with", sdconfigd, {});
    const Service without = startService(place, "without", sdconfigd, {kNoTrail});
    const MeasuringProcess kept([&] { return sets(with, extent); });
    const MeasuringProcess none([&] { return sets(without, extent); });
    const auto compare = [&](const char* what, Set set, int rounds, Wanted wanted) {
        const auto samples = alternate(rounds, {[&] { return kept.run(set); }, [&] { return none.run(set); }});
        report({std::string(what) + " with the trail, p50", "without", "us", wanted, 1.15}, samples[0], samples[1]);
    };
    compare("SetSecure", kSecure, kShortTurns * extent.rounds(), Wanted::AtMost);
    compare("SetPolicyList of 100", kPolicies, 2 * extent.rounds(), Wanted::AtMost);
    // Nothing is stored, and no commit waited for: it takes about as long as its line.
    compare("SetProperty", kProperty, extent.rounds(), Wanted::Nothing);
}

double startToReady(const std::vector<std::string>& command) {
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    const Process process = Process::start(command, kReady);
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

// Puts so many entries before those that are there. A start reads the last one: the others need not be in order.
void lengthen(const std::string& file, int entries) {
    std::ifstream in(file, std::ios::binary);
    const std::string trail{std::istreambuf_iterator<char>(in), {}};
    const std::string line = trail.substr(0, trail.find('\n') + 1);
    constexpr int kTogether = 1000;
    std::string lines;
    for (int i = 0; i < kTogether; ++i) lines += line;
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    for (int i = 0; i < entries; i += kTogether) out << lines;
    require(bool(out << trail << std::flush), "lengthening the trail");
}

void measureStart(const Workplace& place, const std::string& sdconfigd, const Extent& extent) {
    const auto command = [&](const std::string& data) {
        std::vector<std::string> words = serviceCommand(sdconfigd, data);
        words.insert(words.end(), {"--audit-size", "65536"});
        return words;
    };
    const int entries = extent.isFull() ? 10'000'000 : extent.size(100'000, 1000);
    const std::string shortOne = place.path("short");
    const std::string longOne = place.path("long");
    for (const std::string& data : {shortOne, longOne}) makeData(data, sdconfigd, kRows);
    lengthen(longOne + "/trail.jsonl", entries);
    for (const std::string& data : {shortOne, longOne})
        startToReady(command(data));  // looks through what was filled in
    const auto samples = alternate(3 * extent.rounds(), {[&] { return startToReady(command(longOne)); },
                                                         [&] { return startToReady(command(shortOne)); }});
    report({"sdconfigd with " + std::to_string(entries) + " entries in its trail, start to ready", "with a few", "ms",
            Wanted::AtMost, 1.1},
           samples[0], samples[1]);
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
    const bench::Extent extent(argc, argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: trail full|short|smoke SDCONFIGD\n");
        return 2;
    }
    const bench::Workplace place;
    bench::measureSets(place, argv[2], extent);
    bench::measureStart(place, argv[2], extent);
    return 0;
}
