// What reading and storing costs through the facades: secure values beside a desktop's secret service, durable writes
// beside bare SQLite, and how both grow with the size and the number of values.
//     stores EXTENT SDCONFIGD SDCONFIG [BEFORE]
// BEFORE: sdconfigd of another build, whose storing is measured beside.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <future>
#include <memory>
#include <optional>

#include "bench/bare_database.h"
#include "bench/comparison.h"
#include "bench/desktop_session.h"
#include "bench/measuring_process.h"
#include "bench/secret_items.h"
#include "bench/service.h"
#include "libsdconfig/dmconfig.h"
#include "libsdconfig/sdconfig.h"

namespace bench {

namespace {

// The place of the next look-up among `count` keys: far from the last, so that no cache of pages helps.
int nextOf(int& turn, int count) {
    constexpr int kStride = 7919;  // a prime: every key comes once before one comes again
    turn = (turn + kStride) % count;
    return turn;
}

std::string valueOf(int turn) {
    return storedValue() + std::to_string(turn);
}

std::string among(int count) {
    return " among " + std::to_string(count);
}

// The two ends of each call are kept apart, as bench/echo.h tells why; what the desktop runs is left to the scheduler.
constexpr int kClientCpu = 0;
constexpr int kServiceCpu = 1;

Service startService(const Workplace& place, const std::string& name, const std::string& sdconfigd, int secureValues) {
    const OnCpu onCpu(kServiceCpu);
    return {place, name, sdconfigd, secureValues};
}

// ---- Reading a secure value ----

// A store of so many values, and a process that looks them up.
struct Lookups {
    Lookups(int values, const std::function<MeasuringProcess::Measures()>& prepare) : count(values), process(prepare) {}

    const int count;
    const MeasuringProcess process;

    std::function<double()> measure(std::size_t which = 0) const {
        return [this, which] { return process.run(which); };
    }
};

constexpr char kWeaklyGoverned[] = "bench.weakly.governed";

// In turn: of a stored value; of a key without one, under a policy that would give way to one, so that the service has
// to find out whether there is one.
MeasuringProcess::Measures getSecure(const Service& service, int count, int calls) {
    service.join();
    require(sd::DMConfig::GetInstance()->SetPolicyWithUri(kWeaklyGoverned, {{storedValue(), 5}}), "SetPolicyWithUri");
    sd::SDConfig& config = *sd::SDConfig::GetInstance();
    return {[&config, count, calls, turn = 0]() mutable {
                return p50Microseconds(calls, [&] {
                    require(config.GetSecure(keyOf(nextOf(turn, count))) == storedValue(), "GetSecure");
                });
            },
            [&config, calls] {
                return p50Microseconds(
                    calls, [&] { require(config.GetSecure(kWeaklyGoverned) == storedValue(), "a weak policy"); });
            }};
}

MeasuringProcess::Measures lookUpItems(const DesktopSession& session, int count, int calls) {
    session.join();
    for (int i = 0; i < count; ++i) storeSecretItem(keyOf(i), storedValue());
    return {[count, calls, turn = 0]() mutable {
        return p50Microseconds(
            calls, [&] { require(lookUpSecretItem(keyOf(nextOf(turn, count))) == storedValue(), "libsecret"); });
    }};
}

// A session of the desktop with a keyring, for items by libsecret; nothing where one of the three isn't installed.
std::optional<DesktopSession> startKeyring(const Workplace& place, const std::string& name) {
    if (!haveLibsecret()) return std::nullopt;
    const OnCpu onAll(kAnyCpu);
    auto session = DesktopSession::start(place, name);
    if (!session || !session->startKeyring()) return std::nullopt;
    return session;
}

// Keyrings of so many items. `sessions` keeps them.
void startPeers(const Workplace& place, const Extent& extent, std::deque<DesktopSession>& sessions,
                std::deque<Lookups>& peers) {
    for (const int count : {10, 1000}) {
        if (count == 1000 && !extent.isFull()) return;  // its filling takes longer than all else
        auto session = startKeyring(place, "session" + std::to_string(count));
        if (!session) return;
        sessions.push_back(std::move(*session));
        peers.emplace_back(count, [&] { return lookUpItems(sessions.back(), count, extent.calls(200)); });
    }
}

std::vector<int> storeSizes(const Extent& extent) {
    return extent.isSmoke() ? std::vector{10, 100} : std::vector{10, 100, 1000, 100'000};
}

// Each store against the largest keyring that has no more items. The samples: the stores', then the peers'.
void reportBesidePeers(const std::deque<Lookups>& stores, const std::deque<Lookups>& peers,
                       const std::vector<Samples>& samples) {
    for (std::size_t i = 0; i < stores.size(); ++i)
        for (std::size_t j = peers.size(); j-- > 0;) {
            if (peers[j].count > stores[i].count) continue;
            report({"GetSecure" + among(stores[i].count) + ", p50",
                    "secret_password_lookup_sync" + among(peers[j].count), "us", Wanted::AtMost, 0.2},
                   samples[i], samples[stores.size() + j]);
            break;
        }
}

// The growth is told against the store of 100.
void reportGrowth(const std::string& what, const std::string& series, const std::deque<Lookups>& stores,
                  const std::vector<Samples>& samples) {
    constexpr std::size_t kBase = 1;
    for (std::size_t i = 0; i < stores.size(); ++i)
        report({what + among(stores[i].count) + ", p50", "the same" + among(stores[kBase].count), "us",
                i > kBase ? Wanted::AtMost : Wanted::Nothing, 1.3, series, static_cast<double>(stores[i].count)},
               samples[i], samples[kBase]);
}

void measureWeaklyGoverned(const std::deque<Lookups>& stores, const Extent& extent) {
    std::vector<std::function<double()>> measures;
    measures.reserve(stores.size());
    for (const Lookups& store : stores) measures.push_back(store.measure(1));
    reportGrowth("GetSecure of a key without a value, under a policy of priority 5,",
                 "GetSecure under a weak policy by number of values", stores, alternate(extent.rounds(), measures));
}

void measureGetSecure(const Workplace& place, const std::string& sdconfigd, const Extent& extent) {
    std::deque<Service> services;
    std::deque<Lookups> stores;
    for (const int count : storeSizes(extent)) {
        services.push_back(startService(place, "store" + std::to_string(count), sdconfigd, count));
        stores.emplace_back(count, [&] { return getSecure(services.back(), count, extent.calls(2000)); });
    }
    std::deque<DesktopSession> sessions;
    std::deque<Lookups> peers;
    startPeers(place, extent, sessions, peers);

    std::vector<std::function<double()>> measures;
    measures.reserve(stores.size() + peers.size());
    for (const Lookups& store : stores) measures.push_back(store.measure());
    for (const Lookups& peer : peers) measures.push_back(peer.measure());
    const std::vector<Samples> samples = alternate(extent.rounds(), measures);

    reportBesidePeers(stores, peers, samples);
    reportGrowth("GetSecure", "GetSecure by number of values", stores, samples);
    measureWeaklyGoverned(stores, extent);
}

// ---- Storing ----

constexpr int kPolicies = 100;
constexpr int kShortTurns = 4;  // a disk's pace drifts: those that wait for it take turns more often

sd::PolicyList somePolicies(int turn) {
    sd::PolicyList policies;
    for (int i = 0; i < kPolicies; ++i) policies["bench.policy." + std::to_string(i)] = {{valueOf(turn), 6}};
    return policies;
}

MeasuringProcess::Measures storeThroughFacades(const Service& service, const Extent& extent) {
    service.join();
    const auto setSecure = [calls = extent.calls(25), turn = 0]() mutable {
        return p50Microseconds(
            calls, [&] { require(sd::SDConfig::GetInstance()->SetSecure(keyOf(0), valueOf(++turn)), "SetSecure"); });
    };
    const auto setPolicies = [calls = extent.calls(3), turn = 0]() mutable {
        const sd::PolicyList policies = somePolicies(++turn);
        return p50Microseconds(calls,
                               [&] { require(sd::DMConfig::GetInstance()->SetPolicyList(policies), "SetPolicyList"); });
    };
    sd::DMConfig::GetInstance()->SetPolicyList(somePolicies(0));  // the first time there is nothing to delete
    return {setSecure, setPolicies};
}

// One commit: the old row goes, the new one comes.
void replaceRow(BareDatabase& database, const std::string& key, const std::string& value) {
    database.run("BEGIN IMMEDIATE");
    database.remove(key);
    database.insert(key, value);
    database.run("COMMIT");
}

void fillBareDatabase(BareDatabase& database, int count, const std::string& value) {
    database.run("BEGIN");
    for (int i = 0; i < count; ++i) database.insert(keyOf(i), value);
    database.run("COMMIT");
}

void compareWithSecretService(const Workplace& place, const Extent& extent, const MeasuringProcess& facades) {
    const auto session = startKeyring(place, "session");
    if (!session) return;
    const MeasuringProcess libsecret([&]() -> MeasuringProcess::Measures {
        session->join();
        return {[calls = extent.calls(25), turn = 0]() mutable {
            return p50Microseconds(calls, [&] { storeSecretItem(keyOf(0), valueOf(++turn)); });
        }};
    });
    const auto samples = alternate(extent.rounds(), {[&] { return facades.run(0); }, [&] { return libsecret.run(0); }});
    report({"SetSecure, p50", "secret_password_store_sync", "us"}, samples[0], samples[1]);
}

constexpr int kRows = 100;

// What a change of the stores saves, or costs: the same calls to the services of two builds.
void compareWithBuildBefore(const Workplace& place, const std::string& before, const Extent& extent,
                            const MeasuringProcess& facades) {
    const Service service = startService(place, "before", before, kRows);
    const MeasuringProcess earlier([&] { return storeThroughFacades(service, extent); });
    const auto compare = [&](const char* what, std::size_t measure, int rounds) {
        const auto samples =
            alternate(rounds, {[&] { return facades.run(measure); }, [&] { return earlier.run(measure); }});
        report({what, "the build before", "us"}, samples[0], samples[1]);
    };
    compare("SetSecure, p50", 0, kShortTurns * extent.rounds());
    compare("SetPolicyList of 100, p50", 1, extent.rounds());
}

void measureStoring(const Workplace& place, const std::string& sdconfigd, const std::string& before,
                    const Extent& extent) {
    const std::string envelope(138, 'e');  // as long as what the store keeps of a valueOf
    const Service service = startService(place, "storing", sdconfigd, kRows);
    const MeasuringProcess facades([&] { return storeThroughFacades(service, extent); });
    BareDatabase bare(place.path("bare.db"));
    fillBareDatabase(bare, kRows, envelope);

    // Where the service waits for the disk, too: its interrupts don't come to both cpus alike.
    const auto one = [&] {
        const OnCpu onCpu(kServiceCpu);
        return p50Microseconds(extent.calls(25), [&] { replaceRow(bare, keyOf(0), envelope); });
    };
    const auto list = [&] {
        const OnCpu onCpu(kServiceCpu);
        return p50Microseconds(extent.calls(3), [&] {
            for (int i = 0; i < kPolicies; ++i) replaceRow(bare, keyOf(i), envelope);
        });
    };
    const auto ones = alternate(kShortTurns * extent.rounds(), {[&] { return facades.run(0); }, one});
    const auto lists = alternate(extent.rounds(), {[&] { return facades.run(1); }, list});
    const std::string floor = " by bare SQLite, of a DELETE and an INSERT of one row";
    report({"SetSecure, p50", "1 commit" + floor, "us", Wanted::AtMost, 1.3}, ones[0], ones[1]);
    report({"SetPolicyList of 100, p50", "100 commits" + floor, "us", Wanted::AtMost, 1.2}, lists[0], lists[1]);
    if (!before.empty()) compareWithBuildBefore(place, before, extent, facades);
    compareWithSecretService(place, extent, facades);
}

// ---- By the size of a value, by the number of properties ----

// In turn: SetProperty, GetProperty, SetSecure, GetSecure.
MeasuringProcess::Measures callsBySize(const Service& service, const std::string& value, int calls) {
    service.join();
    sd::SDConfig& config = *sd::SDConfig::GetInstance();
    const std::string key = "bench.size." + std::to_string(value.size());
    const auto p50 = [calls](std::function<void()> call) { return [=] { return p50Microseconds(calls, call); }; };
    require(config.SetProperty(key, value) && config.SetSecure(key, value), "storing by size");
    return {p50([=, &config] { require(config.SetProperty(key, value), "SetProperty"); }),
            p50([=, &config] { require(config.GetProperty(key) == value, "GetProperty"); }),
            p50([=, &config] { require(config.SetSecure(key, value), "SetSecure"); }),
            p50([=, &config] { require(config.GetSecure(key) == value, "GetSecure"); })};
}

void measureSizes(const Workplace& place, const std::string& sdconfigd, const Extent& extent) {
    const Service service = startService(place, "sizes", sdconfigd, 0);
    for (const int size : {64, 1 << 10, 1 << 14, 1 << 17, 1 << 20}) {
        const std::string value(static_cast<std::size_t>(size), 'x');
        const MeasuringProcess process(
            [&] { return callsBySize(service, value, extent.calls(size > 1 << 14 ? 20 : 200)); });
        std::vector<std::function<double()>> measures;
        const std::vector<std::string> calls{"SetProperty", "GetProperty", "SetSecure", "GetSecure"};
        for (std::size_t i = 0; i < calls.size(); ++i) measures.emplace_back([&process, i] { return process.run(i); });
        const auto samples = alternate(extent.rounds(), measures);
        for (std::size_t i = 0; i < calls.size(); ++i)
            report(calls[i] + " of " + std::to_string(size) + " bytes, p50", "us", samples[i],
                   calls[i] + " by size of the value", size);
    }
}

void measureProperties(const Workplace& place, const std::string& sdconfigd, const Extent& extent) {
    const Service service = startService(place, "properties", sdconfigd, 0);
    int stored = 0;
    for (const int count : {10, 1000, 100'000}) {
        if (extent.isSmoke() && count > 1000) break;
        const MeasuringProcess process([&]() -> MeasuringProcess::Measures {
            service.join();
            sd::SDConfig& config = *sd::SDConfig::GetInstance();
            for (int i = stored; i < count; ++i) require(config.SetProperty(keyOf(i), storedValue()), "SetProperty");
            return {[&config, count, calls = extent.calls(2000), turn = 0]() mutable {
                return p50Microseconds(calls, [&] {
                    require(config.GetProperty(keyOf(nextOf(turn, count))) == storedValue(), "GetProperty");
                });
            }};
        });
        stored = count;
        const auto samples = alternate(extent.rounds(), {[&] { return process.run(0); }});
        report("GetProperty" + among(count) + ", p50", "us", samples[0], "GetProperty by number of properties", count);
    }
}

// ---- Sealing anew ----

constexpr int kCallers = 4;

enum CallerMeasure { kRate, kLongest };

// Reads secure values without a pause for so many seconds: calls a second; and the longest of them, in milliseconds.
MeasuringProcess::Measures readWithoutPause(const Service& service, int count, double seconds) {
    service.join();
    const auto longest = std::make_shared<double>(0);
    const auto rate = [=, turn = 0]() mutable {
        using Clock = std::chrono::steady_clock;
        sd::SDConfig& config = *sd::SDConfig::GetInstance();
        const auto began = Clock::now();
        const auto passed = [&] { return std::chrono::duration<double>(Clock::now() - began).count(); };
        int calls = 0;
        *longest = 0;
        for (double before = 0; before < seconds; ++calls) {
            require(config.GetSecure(keyOf(nextOf(turn, count))) == storedValue(), "GetSecure");
            const double after = passed();
            *longest = std::max(*longest, 1000 * (after - before));
            before = after;
        }
        return calls / passed();
    };
    return {rate, [longest] { return *longest; }};
}

struct Calls {
    double rate;     // of all callers together
    double longest;  // of any
};

// All callers at once.
Calls callAll(const std::deque<MeasuringProcess>& callers) {
    std::vector<std::future<double>> results;
    results.reserve(callers.size());
    for (const MeasuringProcess& caller : callers)
        results.push_back(std::async(std::launch::async, [&] { return caller.run(kRate); }));
    Calls calls{};
    for (auto& result : results) calls.rate += result.get();
    for (const MeasuringProcess& caller : callers) calls.longest = std::max(calls.longest, caller.run(kLongest));
    return calls;
}

double resealSeconds(const Workplace& place, const std::string& sdconfig) {
    const auto began = std::chrono::steady_clock::now();
    Process command = Process::start({"env", "XDG_RUNTIME_DIR=" + place.path("resealing"), "sh", "-c",
                                      "exec \"$0\" key rotate --reseal >/dev/null", sdconfig});
    require(command.wait() == 0, "key rotate --reseal");
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
}

// `key rotate --reseal` beside callers: how long it takes, and what it leaves them.
void measureResealing(const Workplace& place, const std::string& sdconfigd, const std::string& sdconfig,
                      const Extent& extent) {
    const int count = extent.isSmoke() ? 1000 : 100'000;
    const double seconds = extent.isSmoke() ? 0.1 : 3;
    const OnCpu onAll(kAnyCpu);
    const Service service(place, "resealing", sdconfigd, count);
    std::deque<MeasuringProcess> callers;
    for (int i = 0; i < kCallers; ++i) callers.emplace_back([&] { return readWithoutPause(service, count, seconds); });
    (void)callAll(callers);  // the first time a new database is slower to read
    Samples alone;
    Samples beside;
    Samples longestAlone;
    Samples longestBeside;
    Samples took;
    const auto sample = [&](Samples& rates, Samples& longest) {
        const Calls calls = callAll(callers);
        rates.push_back(calls.rate);
        longest.push_back(calls.longest);
    };
    for (int round = 0; round < (extent.isFull() ? 5 : 2); ++round) {
        sample(alone, longestAlone);
        auto resealing = std::async(std::launch::async, [&] { return resealSeconds(place, sdconfig); });
        sample(beside, longestBeside);
        while (resealing.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
            (void)callAll(callers);  // so that all of it is beside callers
        took.push_back(resealing.get());
    }
    report({"GetSecure of 4 processes while " + std::to_string(count) + " values are sealed anew", "the same without",
            "1/s", Wanted::AtLeast, 0.7},
           beside, alone);
    report("the longest of these calls", "ms", longestBeside);
    report("the longest of those without", "ms", longestAlone);
    report("key rotate --reseal of " + std::to_string(count) + " values beside them", "s", took);
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
    const bench::Extent extent(argc, argv);
    if (argc != 4 && argc != 5) {
        std::fprintf(stderr, "usage: stores full|short|smoke SDCONFIGD SDCONFIG [BEFORE]\n");
        return 2;
    }
    const bench::Workplace place;
    const bench::OnCpu onCpu(bench::kClientCpu);
    bench::measureGetSecure(place, argv[2], extent);
    bench::measureStoring(place, argv[2], argc == 5 ? argv[4] : "", extent);
    bench::measureResealing(place, argv[2], argv[3], extent);
    if (extent.isFull() || extent.isSmoke()) {
        bench::measureSizes(place, argv[2], extent);
        bench::measureProperties(place, argv[2], extent);
    }
    return 0;
}
