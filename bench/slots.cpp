// What a slot of the machine costs the service's start: until it is ready, and until its first secure value is read.
//     slots EXTENT SDCONFIGD SDCONFIG_SEAL
// Needs root, who alone may have the machine seal, and measures nothing without.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <thread>

#include "base/unique_fd.h"
#include "bench/comparison.h"
#include "bench/measuring_process.h"
#include "bench/service.h"
#include "platform/sdbus/sdbus.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "src/sdconfig_protocol.h"

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kStored = 10;

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// ---- The machine ----

// A TPM in software. Every run begins with the same state: systemd-creds 252 closes no session, so that one run opens
// no more than three times, and a chip takes each end with sessions for an attack.
class Chip {
public:
    explicit Chip(const std::string& folder) : mState(folder + "/state"), mKept(folder + "/kept") {
        std::filesystem::create_directories(mState);
    }
    ~Chip() { stop(); }
    Chip(const Chip&) = delete;
    Chip& operator=(const Chip&) = delete;

    std::string option() const { return "--tpm2-device=swtpm:path=" + mSocket; }

    void start() {
        if (std::filesystem::exists(mKept)) {
            std::filesystem::remove_all(mState);
            std::filesystem::copy(mKept, mState);
        }
        mProcess.emplace(Process::start({"swtpm", "socket", "--tpm2", "--tpmstate", "dir=" + mState, "--server",
                                         "type=unixio,path=" + mSocket, "--ctrl", "type=unixio,path=" + mControl,
                                         "--flags", "not-need-init,startup-clear", "--log", "file=-"}));
        int left = 5000;
        while (!answers() && --left > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        require(left > 0, "swtpm");
    }
    void stop() {
        mProcess.reset();
        for (const std::string& socket : {mSocket, mControl}) std::filesystem::remove(socket);
    }
    // Later runs begin as this one ends.
    void keepState() {
        stop();
        std::filesystem::copy(mState, mKept);
    }

private:
    bool answers() const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        mSocket.copy(address.sun_path, sizeof address.sun_path - 1);
        const sd::UniqueFd end(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        return ::connect(end.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }

    const std::string mState;
    const std::string mKept;
    const std::string mSocket = mState + ".tpm";
    const std::string mControl = mSocket + ".ctrl";  // where the library looks for it
    std::optional<Process> mProcess;
};

// sdconfig-seal as systemd starts it: a process for each connection. Its machine has a key of its own, and a chip or
// none.
class Machine {
public:
    Machine(const std::string& folder, const std::string& sdconfigSeal, const Chip* chip)
        : mFolder(folder), mChip(chip), mProcess(Process::start(listening(sdconfigSeal), "Listening on ")) {}

    std::string socket() const { return mFolder + "/seal"; }

    // Past sdconfig-seal, for openAlone.
    void sealAlone() const {
        std::ofstream(mFolder + "/text") << storedValue();
        runCreds({"encrypt", withKey(), "--name=bench", mFolder + "/text", mFolder + "/credential"});
    }
    // What systemd-creds takes by itself, in milliseconds.
    double openAlone() const {
        const auto start = Clock::now();
        runCreds({"decrypt", "--name=bench", mFolder + "/credential", mFolder + "/opened"});
        return millisecondsSince(start);
    }

private:
    std::string withKey() const { return mChip ? "--with-key=host+tpm2" : "--with-key=host"; }
    std::string secret() const { return "SYSTEMD_CREDENTIAL_SECRET=" + mFolder + "/secret"; }
    std::vector<std::string> listening(const std::string& sdconfigSeal) const {
        std::filesystem::create_directory(mFolder);
        std::vector<std::string> all{"systemd-socket-activate",
                                     "--accept",
                                     "--inetd",
                                     "--listen=" + socket(),
                                     "--setenv=" + secret(),
                                     "--setenv=RUNTIME_DIRECTORY=" + mFolder,
                                     sdconfigSeal,
                                     withKey()};
        if (mChip) all.push_back(mChip->option());
        return all;
    }
    void runCreds(const std::vector<std::string>& arguments) const {
        std::vector<std::string> all{"env", secret(), "SYSTEMD_LOG_LEVEL=err", "systemd-creds"};
        if (mChip) all.push_back(mChip->option());
        all.insert(all.end(), arguments.begin(), arguments.end());
        require(Process::start(all).wait() == 0, "systemd-creds");
    }

    const std::string mFolder;
    const Chip* const mChip;
    const Process mProcess;
};

// ---- A start ----

// A service that is started over and over; with a machine, its ring is wrapped and opens by that alone.
struct Candidate {
    std::string name;
    std::string dataFolder;
    std::unique_ptr<Chip> chip{};
    std::unique_ptr<Machine> machine{};

    std::vector<std::string> command(const std::string& sdconfigd) const {
        std::vector<std::string> all = serviceCommand(sdconfigd, dataFolder);
        if (machine) all.insert(all.end(), {"--seal-socket", machine->socket()});
        return all;
    }
};

// A process of its own, because a process has one key ring.
void wrap(const Candidate& candidate) {
    Process wrapping = Process::fork([&](int ready, int) {
        using Security = sd::SDSecurity;
        Security& security = *Security::GetInstance();
        security.SetSealSocket(candidate.machine->socket());
        security.SetKeyRingFolder(candidate.dataFolder);
        std::string key;
        const auto made = security.MakeSlotKey(Security::SlotKind::Recovery, Security::SlotUse::Fresh,
                                               Security::MakeRecoveryCode(), key);
        require(made.outcome == Security::SlotOutcome::Done, "a recovery code");
        const auto wrapped = security.Protect(Security::SlotKind::Host, {key, ""});
        if (wrapped.outcome != Security::SlotOutcome::Done) std::fprintf(stderr, "%s\n", wrapped.reason.c_str());
        require(wrapped.outcome == Security::SlotOutcome::Done, "a slot of the machine");
        tellReady(ready);
    });
    require(wrapping.wait() == 0, "wrapping a key ring");
}

std::string readFirstValue() {
    const auto proxy =
        SDBusSerivceManager::initSync(-1)->getServiceProxyInterface(sd::protocol::kServiceName, SDBusSameUser, 1);
    const auto call = proxy->makeMethodCallMessage(sd::protocol::kGetSecure);
    call->appendString(keyOf(0));
    return proxy->callWithReplyBlocking(call, sd::protocol::kCallTimeoutMs)->getString(0);
}

// Of one start, in milliseconds from its begin.
struct Times {
    double ready;
    double firstValue;
};

// The client is there before the service is, and connects once that is ready.
Times start(const Candidate& candidate, const std::string& sdconfigd) {
    if (candidate.chip) candidate.chip->start();
    enum Step : std::size_t { Ready, FirstValue };
    const MeasuringProcess client([&]() -> MeasuringProcess::Measures {
        const auto service = std::make_shared<std::optional<Process>>();
        const auto began = std::make_shared<Clock::time_point>();
        return {[&candidate, &sdconfigd, service, began] {
                    *began = Clock::now();
                    service->emplace(Process::start(candidate.command(sdconfigd), kReady));
                    return millisecondsSince(*began);
                },
                [service, began] {
                    require(readFirstValue() == storedValue(), "the first value");
                    const double time = millisecondsSince(*began);
                    service->reset();
                    return time;
                }};
    });
    const double ready = client.run(Ready);
    const Times times{ready, client.run(FirstValue)};
    if (candidate.chip) candidate.chip->stop();
    return times;
}

// ---- The comparison ----

std::vector<Candidate> prepare(const Workplace& place, const std::string& sdconfigd, const std::string& sdconfigSeal) {
    std::vector<Candidate> all;
    all.push_back({"a plain key ring", place.path("plain")});
    all.push_back({"a slot of the machine's key", place.path("key")});
    all[1].machine = std::make_unique<Machine>(place.path("machine"), sdconfigSeal, nullptr);
    if (isInstalled("swtpm")) {
        all.push_back({"a slot of the machine's key and a TPM in software", place.path("tpm")});
        all[2].chip = std::make_unique<Chip>(place.path("chip"));
        all[2].machine = std::make_unique<Machine>(place.path("machine-tpm"), sdconfigSeal, all[2].chip.get());
    }
    for (const Candidate& candidate : all) {
        makeData(candidate.dataFolder, sdconfigd, kStored);
        if (candidate.chip) candidate.chip->start();
        if (candidate.machine) {
            wrap(candidate);
            candidate.machine->sealAlone();
        }
        if (candidate.chip) candidate.chip->keepState();
        start(candidate, sdconfigd);  // what was filled in behind the service's back is looked through once
    }
    return all;
}

double openAlone(const Candidate& candidate) {
    if (candidate.chip) candidate.chip->start();
    const double time = candidate.machine->openAlone();
    if (candidate.chip) candidate.chip->stop();
    return time;
}

// Of one candidate, a sample a round.
struct Figures {
    Samples ready;
    Samples firstValue;
    Samples alone;  // systemd-creds
};

Samples combined(const Samples& left, const Samples& right, double (*combine)(double, double)) {
    Samples all(left.size());
    std::transform(left.begin(), left.end(), right.begin(), all.begin(), combine);
    return all;
}

void reportAdded(const std::string& until, const Candidate& candidate, const Candidate& plain, const Samples& figures,
                 const Samples& plainFigures) {
    report({"a start with " + candidate.name + ", until " + until, "with " + plain.name, "ms"}, figures, plainFigures);
    const auto less = [](double with, double without) { return with - without; };
    report({"what " + candidate.name + " adds until " + until, "wanted", "ms", Wanted::AtMost, 1},
           combined(figures, plainFigures, less), Samples(figures.size(), 50));
}

void reportAll(const Candidate& candidate, const Candidate& plain, const Figures& figures,
               const Figures& plainFigures) {
    const std::string firstValue = "the first secure value is read";
    reportAdded("ready", candidate, plain, figures.ready, plainFigures.ready);
    reportAdded(firstValue, candidate, plain, figures.firstValue, plainFigures.firstValue);
    const auto sum = [](double start, double alone) { return start + alone; };
    report({"a start with " + candidate.name + ", until " + firstValue,
            "with " + plain.name + ", and systemd-creds by itself", "ms"},
           figures.firstValue, combined(plainFigures.firstValue, figures.alone, sum));
}

void measure(const std::vector<Candidate>& candidates, const std::string& sdconfigd, const Extent& extent) {
    std::vector<Figures> all(candidates.size());
    const std::size_t rounds = static_cast<std::size_t>(extent.rounds()) * 3;
    for (std::size_t round = 0; round < rounds; ++round)
        for (std::size_t turn = 0; turn < candidates.size(); ++turn) {
            const std::size_t at = (round + turn) % candidates.size();  // none always follows the same other
            const Times times = start(candidates[at], sdconfigd);
            all[at].ready.push_back(times.ready);
            all[at].firstValue.push_back(times.firstValue);
            if (candidates[at].machine) all[at].alone.push_back(openAlone(candidates[at]));
        }
    for (std::size_t at = 1; at < candidates.size(); ++at) reportAll(candidates[at], candidates[0], all[at], all[0]);
}

bool canMeasure() {
    if (::geteuid() != 0) std::printf("left out: a slot of the machine, which only root can have sealed here\n");
    return ::geteuid() == 0 && isInstalled("systemd-creds") && isInstalled("systemd-socket-activate");
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
    const bench::Extent extent(argc, argv);
    if (argc != 4) {
        std::fprintf(stderr, "usage: slots full|short|smoke SDCONFIGD SDCONFIG_SEAL\n");
        return 2;
    }
    if (!bench::canMeasure()) return 0;
    const bench::Workplace place;
    bench::measure(bench::prepare(place, argv[2], argv[3]), argv[2], extent);
    return 0;
}
