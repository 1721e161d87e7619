// What typed settings cost above the facade: the same calls of both in turn, client and service on one cpu, where a
// call costs its processor time alone.
//     typed EXTENT SDCONFIGD
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "bench/comparison.h"
#include "bench/echo.h"
#include "bench/service.h"
#include "libsdconfig/sdconfig_settings.h"
#include "platform/velmarlog/velmarlog.h"

namespace bench {

namespace {

using Milliseconds = std::chrono::milliseconds;

constexpr double kMostMicroseconds = 2;

constexpr sd::Key<int> kPort{"bench.proxy.port", sd::Store::Property, 8080, {1, 65535}};
constexpr sd::Key<std::string> kName{"bench.printer.name", sd::Store::Secure, {}, {}};
constexpr sd::Key<std::vector<Milliseconds>> kPauses{"bench.update.pauses", sd::Store::Secure, "[]", {}};

void compare(const std::string& what, const std::string& facade, const std::function<void()>& typed,
             const std::function<void()>& bare, const Extent& extent) {
    const int calls = extent.calls(8000);
    const auto samples = alternate(
        extent.rounds(), {[&] { return p50Microseconds(calls, typed); }, [&] { return p50Microseconds(calls, bare); }});
    Samples added;
    for (std::size_t i = 0; i < samples[0].size(); ++i) added.push_back(samples[0][i] - samples[1][i]);
    report({what + ", p50, on one cpu", facade, "us"}, samples[0], samples[1]);
    report({"what " + what + " adds", "wanted", "us", Wanted::AtMost, 1}, added,
           Samples(added.size(), kMostMicroseconds));
}

void measure(const Extent& extent) {
    const sd::Settings settings;
    sd::SDConfig& config = *sd::SDConfig::GetInstance();
    const std::string name =
        "Gr\xc3\xb6\xc3\x9f"
        "e im B\xc3\xbcro";
    const std::vector<Milliseconds> pauses{Milliseconds(0), Milliseconds(1500), Milliseconds(5'400'000)};
    require(settings.set(kPort, 3128) && settings.set(kName, name) && settings.set(kPauses, pauses), "set");

    const std::string portName(kPort.name), nameName(kName.name), pausesName(kPauses.name);
    compare(
        "Settings::get of a number", "GetProperty", [&] { require(settings.get(kPort) == 3128, "get"); },
        [&] { require(config.GetProperty(portName) == "3128", "GetProperty"); }, extent);
    compare(
        "Settings::get of a text beyond ASCII", "GetSecure", [&] { require(settings.get(kName) == name, "get"); },
        [&] { require(!config.GetSecure(nameName).empty(), "GetSecure"); }, extent);
    compare(
        "Settings::get of a list of 3 durations", "GetSecure", [&] { require(settings.get(kPauses) == pauses, "get"); },
        [&] { require(!config.GetSecure(pausesName).empty(), "GetSecure"); }, extent);
    compare(
        "Settings::set of a number", "SetProperty", [&] { require(settings.set(kPort, 3128), "set"); },
        [&] { require(config.SetProperty(portName, "3128"), "SetProperty"); }, extent);
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
    const bench::Extent extent(argc, argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: typed full|short|smoke SDCONFIGD\n");
        return 2;
    }
    velmarLogSetLevel(8);
    const bench::Workplace place;
    const bench::OnCpu onCpu(bench::kOneCpu.caller);
    const auto service = bench::Process::start(bench::serviceCommand(argv[2], place.path("data")), bench::kReady);
    bench::measure(extent);
    return 0;
}
