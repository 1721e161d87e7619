// Has the n-th allocation, descriptor, thread or mapping of the service, or of a client, fail, for one n after the
// other, over one script of calls, and tells what did not hold.
//     scarcity service|killed|client memory|descriptor|thread|mapping SEED LIVES SCARCE SDCONFIGD CLIENT SDCONFIG-DATA
// killed: the start of a service after one that was killed. LIVES: how many n are tried, spread over all there are, and
// those as a service gets ready; or I/N for a share of all, from the I-th on each N-th. SCARCE: the library to preload;
// it tells the file $SCARCE_TRACE, where that is set, where it refused. CLIENT: torture_client.
//
// Holds: no crash and no hang; a wrong answer or event never, a right one or a failure; no step fails before something
// is refused, and one after it; a service that serves goes on, and one that can't start, or end, says so; when nothing
// is scarce any more, the same process, or the next one of a service that ended, does all of the script; what was
// acknowledged is there, and the trail without a fault and with each change of it. A client's threads and its child
// share one count.
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <regex>

#include "tests/torture/scarce.h"
#include "tests/torture/scarce_script.h"
#include "tests/torture/service_life.h"
#include "trail/reader.h"

namespace torture {
namespace {

namespace fs = std::filesystem;

constexpr int kAnswerMs = 20000;        // of a client that works
constexpr int kMachineMs = 20000;       // until a changed policy of the machine is in force
constexpr int kLineMs = 5000;           // until the log tells of a call that was not answered
constexpr int kClientEndingMs = 15000;  // it waits for a listener that runs, 5 s at most
constexpr int kMeasuredLives = 3;
constexpr int kSignal = 128;         // the code of what was ended by a signal is this and its number
constexpr std::uint64_t kTurn = 20;  // a service asks for less than that while it says that it is ready

struct Arguments {
    std::string whose, what;
    Scarcity::Kind kind;
    std::uint64_t seed;
    std::string lives;
    std::string library, sdconfigd, client, sdconfigData;
};

// The numbers that both sides share.
class Watched {
public:
    explicit Watched(const std::string& path) : mPath(path) {
        const sd::UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        void* mapped = MAP_FAILED;
        if (::ftruncate(file.get(), sizeof(Scarcity)) == 0)
            mapped = ::mmap(nullptr, sizeof(Scarcity), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
        if (mapped == MAP_FAILED) throw Failed("no room for what is shared");
        mShared = static_cast<Scarcity*>(mapped);
    }
    void begin(Scarcity::Kind kind, std::uint64_t at) {
        mShared->kind = kind;
        mShared->at = at;
        mShared->asked = 0;
        mShared->place[0] = mShared->crashPlace[0] = 0;
        mShared->isCounting = 1;
    }
    void end() { mShared->isCounting = 0; }
    std::uint64_t asked() const { return mShared->asked; }
    bool hasFailed() const { return mShared->at != 0 && mShared->asked >= mShared->at; }
    std::string refusedTo() const { return fs::path(mShared->place).filename(); }
    std::string crashedIn() const { return fs::path(mShared->crashPlace).filename(); }

    test::Environment variables(const std::string& library) const {
        return {{"LD_PRELOAD", library}, {"SCARCE", mPath}};
    }

private:
    const std::string mPath;
    Scarcity* mShared;
};

// What both kinds of lives have.
class Lives {
public:
    explicit Lives(const Arguments& arguments) : mArguments(arguments), mWatched(mLife.place() + "/scarce") {
        test::writeFile(mLife.place() + "/constants", kConstants);
        (void)mLife.makeFolder("policies");
        putMachinePolicies(kMachineValue);
    }
    virtual ~Lives() = default;
    Lives(const Lives&) = delete;
    Lives& operator=(const Lives&) = delete;

    // In which the `at`-th is refused; 0 for none.
    virtual void live(std::uint64_t at) = 0;

    std::string said() const { return mLife.said(); }
    int endedInSettingUp() const { return mEndedInSettingUp; }

    // Of the latest life.
    const Watched& watched() const { return mWatched; }
    std::uint64_t askedBeforeReady() const { return mAskedBeforeReady; }

protected:
    // Each life has values of its own, equally long: a longer text asks for memory where a shorter one does not.
    std::string nextRound() { return std::to_string(++mRound); }

    std::vector<std::string> service(const std::string& data) const {
        const std::string& place = mLife.place();
        return {mArguments.sdconfigd, "--data-dir",         data,           "--product-dir",    data,
                "--constants",        place + "/constants", "--policy-dir", place + "/policies"};
    }

    // In one step, as those who keep them do.
    void putMachinePolicies(const std::string& value) const {
        test::writeFile(mLife.place() + "/policies/.new", machinePolicies(value));
        fs::rename(mLife.place() + "/policies/.new", mLife.place() + "/policies/machine.json");
    }

    const Arguments& mArguments;
    ServiceLife mLife;
    Watched mWatched;
    int mEndedInSettingUp = 0;
    std::uint64_t mAskedBeforeReady = 0;

private:
    int mRound = 100000;
};

// ---- The service ----

// An end by itself: told by its exit code, and by a line behind the one that it is ready.
void expectTold(int code, const std::string& log, const std::string& crashedIn) {
    constexpr char kBegin[] = "\nsdconfigd: ", kReady[] = "\nsdconfigd: ready on ";
    const std::string lines = "\n" + log;
    const std::size_t last = lines.rfind(kBegin);
    if (code != 1 || last == std::string::npos || last == lines.rfind(kReady))
        throw Failed("it ended with " + std::to_string(code) + " in \"" + crashedIn + "\"");
}

class ServiceLives : public Lives {
public:
    explicit ServiceLives(const Arguments& arguments) : Lives(arguments) {
        // Values of an earlier life.
        if (!mLife.start(service(mLife.makeFolder("template")))) throw Failed("no service: " + mLife.said());
        ServiceCaller caller;
        for (const std::string kind : {"secure", "policy"}) {
            const ScriptStep step{kind + ".set", "kept", "kept." + kind};
            const auto answer = caller.run(step);
            tell(step, answer, false, mKept, mToldOfKept);
            weigh(step, answer, false, mKept);
        }
        const bool isKilled = mArguments.whose == "killed";
        if (mLife.end(isKilled ? SIGKILL : SIGTERM) != (isKilled ? kSignal + SIGKILL : 0))
            throw Failed("the first service did not end as told: " + mLife.said());
    }

    void live(std::uint64_t at) override {
        const std::string data = mLife.place() + "/data", round = nextRound();
        fs::remove_all(data);
        fs::copy(mLife.place() + "/template", data, fs::copy_options::recursive);
        Allowed allowed = mKept;
        mTold = mToldOfKept;
        putMachinePolicies(kMachineValue);
        mWatched.begin(mArguments.kind, at);
        const bool hasBegun = mLife.start(service(data), mWatched.variables(mArguments.library));
        mAskedBeforeReady = mWatched.asked();
        if (mArguments.whose == "killed") mWatched.end();
        if (hasBegun) play(round + ".1", true, allowed);
        if (hasBegun && mWatched.hasFailed()) play(round + ".2", false, allowed);
        const bool hasFailedBefore = hasBegun && mWatched.hasFailed();
        const int code = mLife.end(hasBegun ? SIGTERM : 0);
        if (!hasBegun || code != 0) weighEnd(code, hasBegun, !hasFailedBefore && mWatched.hasFailed());
        mWatched.end();
        if (!mLife.start(service(data))) throw Failed("the next one doesn't start: " + mLife.said());
        play(round + ".3", false, allowed);
        (void)mLife.end(SIGKILL);
        verifyTrail(data);
    }

private:
    // Of a start, or an end, that failed. isRefused: whether something was refused to it.
    void weighEnd(int code, bool hasBegun, bool isRefused) {
        if (!isRefused) throw Failed("it ended with " + std::to_string(code) + " though nothing was scarce");
        if (!hasBegun && isOfSettingUp(code))
            ++mEndedInSettingUp;
        else
            expectTold(code, mLife.log(), mWatched.crashedIn());
    }

    // OpenSSL, and the C library where it looks up users, may go on without memory that they did not get while they set
    // themselves up, which nobody above them can mend: they crash. A start does both before it says that it is ready:
    // later no signal is forgiven, nor is a crash in other code, whoever found no memory.
    bool isOfSettingUp(int code) const {
        const std::string place = mWatched.crashedIn();
        return (code == kSignal + SIGSEGV && place.find("libcrypto") == 0) || (code > kSignal && place == kUsersLookUp);
    }

    // Throws Failed where the service ends meanwhile.
    void play(const std::string& round, bool mayFail, Allowed& allowed) {
        ServiceCaller caller;
        putMachinePolicies(round);
        for (const char* const key : kMachineKeys) allowed[{"machine", key}].insert(round);
        Losses losses;
        for (const ScriptStep& step : script(Whose::Service, round)) {
            const std::size_t said = mLife.log().size();
            const auto answer = caller.run(step, mayFail);
            const bool mayHaveFailed = mayFail && mWatched.hasFailed();
            if (mLife.endsWithin(0)) throw Failed("it ended amid its work, at " + step.command + " " + step.key);
            tell(step, answer, mayHaveFailed, allowed, mTold);
            if (!weigh(step, answer, mayHaveFailed, allowed)) losses.add(step);
            if (isFailed(step, answer)) awaitLine(step, said);
        }
        for (const char* const key : kMachineKeys)
            if (!mayFail) awaitMachinePolicy(caller, key, round);
        if (!mayFail) allowed[{"machine", kMachineKeys[0]}] = {round};
    }

    // Of a step that failed the log says so, behind what it said before.
    void awaitLine(const ScriptStep& step, std::size_t said) const {
        if (!test::waitUntil([&] { return hasComplaint(mLife.log().substr(said)); }, kLineMs))
            throw Failed(step.command + " " + step.key + " failed without a line in the log");
    }

    // A warning or an error, or that there was no memory for one.
    static bool hasComplaint(const std::string& lines) {
        static const std::regex kComplaint(R"((^|\n)(velmarlog:|\d\d:\d\d:\d\d\.\d\d\d [WE] ))");
        return std::regex_search(lines, kComplaint);
    }

    // They are read beside the calls.
    static void awaitMachinePolicy(ServiceCaller& caller, const std::string& key, const std::string& value) {
        if (!test::waitUntil([&] { return caller.run({"machine.get", key}) == value; }, kMachineMs))
            throw Failed("a policy of the machine is not taken up");
    }

    void verifyTrail(const std::string& data) const {
        const test::Result told = test::run({mArguments.sdconfigData, "log", "verify", "--data-dir", data});
        if (told.exitCode != 0) throw Failed("the trail: " + told.out + told.err);
        compareTrail(data);
    }

    // Each change that was acknowledged has its entry, and nothing has one that was not asked for.
    void compareTrail(const std::string& data) const {
        std::map<std::pair<std::string, std::string>, int> found;
        sd::trail::Reader reader(data, sd::trail::Order::OldestFirst);
        for (sd::trail::Line line; reader.next(line);)
            if (line.entry.by && line.entry.key && line.entry.came != "failed")
                ++found[{line.entry.what, *line.entry.key}];
        for (const auto& [change, told] : mTold) {
            const int count = found[change];
            found.erase(change);
            if (count < told.least || count > told.most)
                throw Failed("the trail tells of " + change.first + " " + change.second + " " + std::to_string(count) +
                             " times in place of " + std::to_string(told.least) + " to " + std::to_string(told.most));
        }
        if (!found.empty())
            throw Failed("the trail tells of " + found.begin()->first.first + ", which nobody asked for");
    }

    static constexpr const char* kMachineKeys[] = {"machine.key", "machine.mine"};
    Allowed mKept = answersFromTheStart();
    Story mToldOfKept, mTold;  // the latter of the latest life
};

// ---- A client ----

// torture_client, asked line by line.
class Client {
public:
    Client(const std::string& program, const test::Environment& variables) {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) throw Failed("no socket for a client");
        mSocket.reset(ends[0]);
        const sd::UniqueFd its(ends[1]);
        mProcess.emplace(test::Process::start({program}, variables, its.get()));
    }

    // Nothing where it has ended, which end() tells more of.
    std::optional<std::string> ask(const std::string& line) {
        const std::string text = line + "\n";
        (void)::send(mSocket.get(), text.data(), text.size(), MSG_NOSIGNAL);
        std::string answer;
        while (answer.empty() || answer.back() != '\n') {
            pollfd wait{mSocket.get(), POLLIN, 0};
            if (::poll(&wait, 1, kAnswerMs) <= 0) throw Failed("the client hangs at " + line.substr(0, 60));
            char bytes[65536];
            const ssize_t length = ::recv(mSocket.get(), bytes, sizeof bytes, 0);
            if (length <= 0) return std::nullopt;
            answer.append(bytes, static_cast<std::size_t>(length));
        }
        answer.pop_back();
        return answer;
    }

    // Its exit code, or 128 and the number of a signal, once it has no more input.
    int end() {
        (void)::shutdown(mSocket.get(), SHUT_WR);
        const int code = mProcess->wait(kClientEndingMs);
        if (code == test::Process::kRunning) throw Failed("the client does not end: " + said());
        return code;
    }

    std::string said() const { return mProcess->err().substr(0, 3000); }

private:
    sd::UniqueFd mSocket;
    std::optional<test::Process> mProcess;
};

class ClientLives : public Lives {
public:
    explicit ClientLives(const Arguments& arguments) : Lives(arguments) {
        if (!mLife.start(service(mLife.makeFolder("data")))) throw Failed("no service: " + mLife.said());
        mAnother.emplace();
    }

    void live(std::uint64_t at) override {
        const std::string round = nextRound();
        mWatched.begin(mArguments.kind, at);
        Client client(mArguments.client, mWatched.variables(mArguments.library));
        const bool hasBegun = client.ask("up").has_value();
        bool isUp = hasBegun && play(client, round + ".1", true);
        mWatched.end();
        if (isUp && mWatched.hasFailed()) isUp = play(client, round + ".2", false);
        // A deletion that failed is asked for again; one that was done asks the service for nothing.
        for (const char* const turn : {".1", ".2"})
            if (isUp) isUp = client.ask("listener.delete listened." + round + turn).has_value();
        const int code = client.end();
        if (hasBegun ? !isUp || code != 0 : !couldNotBegin(code))
            throw Failed("the client ended with " + std::to_string(code) + ": " + client.said());
        // What it alone listened to: it has taken that back, and what failed was never counted.
        for (const char* const turn : {".1", ".2"})
            if (mAnother->run({"listener.get", "listened." + round + turn}) != "0")
                throw Failed("a listener is counted too many");
    }

private:
    // The loader ends a program whose libraries can't be loaded, and the C++ library one whose first objects can't be
    // made.
    static bool couldNotBegin(int code) { return code == 127 || code == kSignal + SIGABRT; }

    bool play(Client& client, const std::string& round, bool mayFail) {
        Losses losses;
        for (const ScriptStep& step : script(Whose::Client, round)) {
            if (step.isAnothers) {
                weigh(step, mAnother->run(step), false, mAllowed);
                continue;
            }
            auto answer = client.ask(lineOf(step));
            if (!answer) return false;
            if (answer == "no answer") answer.reset();
            const bool mayHaveFailed = mayFail && mWatched.hasFailed();
            if (!weigh(step, answer, mayHaveFailed, mAllowed, isAsFailed(step, answer))) losses.add(step);
        }
        return true;
    }

    static std::string lineOf(const ScriptStep& step) {
        const std::string name = step.command == "machine.get" ? "policy.get" : step.command;
        const std::string line = name + " " + prefixOf(step) + step.key + " " + step.value;
        return line + (name.compare(0, 10, "policy.set") == 0 ? " 9" : "");
    }

    // These facades say the same of what failed as of what is not there: that is their contract. Of calls from several
    // threads less were right, and none was wrong.
    static bool isAsFailed(const ScriptStep& step, const std::optional<std::string>& answer) {
        static const std::map<std::string, std::string> kFailures{
            {"secure.get", ""},  {"property.get", ""}, {"constant.get", ""}, {"sign.get", ""},
            {"strong.get", "0"}, {"verify.get", "0"},  {"listener.get", "0"}};
        const bool isOfMany = step.command == "threads.get" || step.command == "fork.get";
        const auto failure = kFailures.find(step.command);
        return answer && (isOfMany ? answer->size() < 3 : failure != kFailures.end() && *answer == failure->second);
    }

    Allowed mAllowed = answersFromTheStart();
    std::optional<ServiceCaller> mAnother;
};

// ---- All ----

// Numbers from 1 to `all`: so many of them, in each part of the range one, and those about `ready`, where a start turns
// into serving; or a share.
std::vector<std::uint64_t> numbers(std::uint64_t all, std::uint64_t ready, const std::string& lives,
                                   std::uint64_t seed) {
    std::vector<std::uint64_t> chosen;
    if (const std::size_t slash = lives.find('/'); slash != std::string::npos) {
        const std::uint64_t step = std::stoull(lives.substr(slash + 1));
        for (std::uint64_t n = std::min<std::uint64_t>(std::stoull(lives), all); n <= all; n += step)
            chosen.push_back(n);
        return chosen;
    }
    std::mt19937_64 random(seed);
    const std::uint64_t count = std::min<std::uint64_t>(std::stoull(lives), all);
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::uint64_t from = all * i / count + 1;
        const std::uint64_t to = all * (i + 1) / count;
        chosen.push_back(std::uniform_int_distribution<std::uint64_t>(from, std::max(from, to))(random));
    }
    const std::uint64_t end = ready == 0 ? 0 : std::min(ready + kTurn, all);
    for (std::uint64_t n = ready - std::min(ready, kTurn) + 1; n <= end; ++n) chosen.push_back(n);
    return chosen;
}

// Counts vary from life to life, by a sixth at most: the last numbers may be refused to nobody.
bool mustBeRefused(std::uint64_t at, std::uint64_t all) {
    return at + all / 5 + 2 <= all;
}

int liveAll(const Arguments& arguments, Lives&& lives) {
    // A slow life connects more often, and who connects is looked at: the least is what the others ask for, too.
    std::uint64_t all = UINT64_MAX;
    for (int life = 0; life < kMeasuredLives; ++life) {
        lives.live(0);
        all = std::min(all, lives.watched().asked());
    }
    if (all == 0) throw Failed("nothing is asked for: is " + arguments.library + " preloaded?");
    int failures = 0;
    const auto chosen = numbers(all, lives.askedBeforeReady(), arguments.lives, arguments.seed);
    for (const std::uint64_t at : chosen) {
        try {
            lives.live(at);
            if (mustBeRefused(at, all) && !lives.watched().hasFailed())
                throw Failed("only " + std::to_string(lives.watched().asked()) +
                             " were asked for, and nobody was refused any");
        } catch (const std::exception& failure) {  // whatever it is, the number tells how to see it again
            ++failures;
            std::cout << "the service: " << lives.said() << "\nnumber " << at << " of " << all << ", asked by "
                      << lives.watched().refusedTo() << ": " << failure.what() << "\nagain: scarcity "
                      << arguments.whose << " " << arguments.what << " " << arguments.seed << " " << at << "/" << all
                      << " " << arguments.library << " " << arguments.sdconfigd << " " << arguments.client << " "
                      << arguments.sdconfigData << std::endl;
        }
    }
    std::cout << chosen.size() << " lives, each without another one of " << all << ", " << lives.endedInSettingUp()
              << " ended in a library's own setting up" << std::endl;
    return failures == 0 ? 0 : 1;
}

Arguments parsed(int count, char** words) {
    const std::vector<std::string> kinds{"memory", "descriptor", "thread", "mapping"};  // in the order of their numbers
    const auto kind = count == 9 ? std::find(kinds.begin(), kinds.end(), words[2]) : kinds.end();
    if (kind == kinds.end())
        throw Failed(
            "scarcity service|killed|client memory|descriptor|thread|mapping SEED LIVES SCARCE SDCONFIGD CLIENT "
            "SDCONFIG-DATA");
    return {words[1],
            words[2],
            static_cast<Scarcity::Kind>(kind - kinds.begin()),
            std::stoull(words[3]),
            words[4],
            words[5],
            words[6],
            words[7],
            words[8]};
}

}  // namespace
}  // namespace torture

int main(int count, char** words) {
    using namespace torture;  // NOLINT(google-build-using-namespace)
    return perform("scarcity", [&] {
        const Arguments arguments = parsed(count, words);
        return arguments.whose == "client" ? liveAll(arguments, ClientLives(arguments))
                                           : liveAll(arguments, ServiceLives(arguments));
    });
}
