// Has the n-th allocation, descriptor, thread or mapping of the service, or of a client, fail, for one n after the
// other, over one script of calls, and tells what did not hold.
//     scarcity service|killed|client memory|descriptor|thread|mapping SEED LIVES SCARCE SDCONFIGD CLIENT SDCONFIG-DATA
// killed: the start of a service after one that was killed. LIVES: how many n are tried, spread over all there are, and
// those as a service gets ready; I/N for a share of all, from the I-th on each N-th; -N for the N-th alone; FROM-TO for
// each of those. It prints how many lives there were, and a line each, with a count before it, of whom something was
// refused. SCARCE: the library to preload; it tells the file $SCARCE_TRACE, where that is set, where it refused.
// CLIENT: torture_client.
//
// Holds: no crash and no hang; a wrong answer or event never, a right one or a failure; no step fails before something
// is refused, and one after it; a service that serves goes on, and one that can't start, or end, says so; when nothing
// is scarce any more, the same process, or the next one of a service that ended, does all of the script; what was
// acknowledged is there, and the trail without a fault and with each change of it. A client's threads and its child
// share one count.
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <thread>

#include "platform/velmarlog/velmarlog.h"
#include "tests/torture/scarce.h"
#include "tests/torture/scarce_script.h"
#include "tests/torture/service_life.h"
#include "trail/reader.h"

namespace torture {
namespace {

namespace fs = std::filesystem;

constexpr int kAnswerMs = 20000;                   // of a client that works
constexpr std::chrono::seconds kMachineLimit{20};  // until a changed policy of the machine is in force
constexpr std::chrono::seconds kLineLimit{5};      // until the log tells of a call that was not answered
constexpr int kClientEndingMs = 15000;             // it waits for a listener that runs, 5 s at most
constexpr int kMeasuredLives = 3;
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

    std::vector<std::string> variables(const std::string& library) const {
        return {"LD_PRELOAD=" + library, "SCARCE=" + mPath};
    }

private:
    const std::string mPath;
    Scarcity* mShared;
};

void putText(const std::string& path, const std::string& text) {
    const sd::UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (::write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) throw Failed("no room");
}

// What both kinds of lives begin with.
class Lives {
public:
    Lives(const Arguments& arguments, const std::string& place)
        : mArguments(arguments), mLife(place), mWatched(place + "/scarce") {
        putText(mLife.place() + "/constants", kConstants);
        makeFolder("policies");
        putMachinePolicies(kMachineValue);
    }

    std::string said() const { return mLife.said(); }

    // Of the latest life.
    std::uint64_t asked() const { return mWatched.asked(); }
    bool hasFailed() const { return mWatched.hasFailed(); }
    std::string refusedTo() const { return mWatched.refusedTo(); }

protected:
    // Each life has values of its own, equally long: a longer text asks for memory where a shorter one does not.
    std::string nextRound() { return std::to_string(++mRound); }

    std::string makeFolder(const std::string& name) const {
        std::string path = mLife.place() + "/" + name;
        fs::create_directory(path);
        fs::permissions(path, fs::perms::owner_all);
        return path;
    }

    std::vector<std::string> service(const std::string& data) const {
        const std::string& place = mLife.place();
        return {mArguments.sdconfigd, "--data-dir",         data,           "--product-dir",    data,
                "--constants",        place + "/constants", "--policy-dir", place + "/policies"};
    }

    // In one step, as those who keep them do.
    void putMachinePolicies(const std::string& value) const {
        putText(mLife.place() + "/policies/.new", machinePolicies(value));
        fs::rename(mLife.place() + "/policies/.new", mLife.place() + "/policies/machine.json");
    }

    const Arguments& mArguments;
    ServiceLife mLife;
    Watched mWatched;

private:
    int mRound = 100000;
};

// ---- The service ----

// An end by itself: told by its exit code, and by a line behind the one that it is ready.
void expectTold(int status, const ServiceLife& life, const std::string& crashedIn) {
    bool isTold = false;
    std::istringstream text(textOf(life.log()));
    for (std::string line; std::getline(text, line);)
        if (line.compare(0, 11, "sdconfigd: ") == 0) isTold = line.compare(11, 9, "ready on ") != 0;
    if (!isTold || !WIFEXITED(status) || WEXITSTATUS(status) != 1)
        throw Failed("it ended with status " + std::to_string(status) + " in \"" + crashedIn + "\"");
}

class ServiceLives : public Lives {
public:
    ServiceLives(const Arguments& arguments, const std::string& place) : Lives(arguments, place) {
        // Values of an earlier life.
        if (!mLife.start(service(makeFolder("template")))) throw Failed("no service: " + mLife.said());
        ServiceCaller caller;
        for (const std::string kind : {"secure", "policy"}) {
            const ScriptStep step{kind + ".set", "kept", "kept." + kind};
            const auto answer = caller.run(step);
            tell(step, answer, false, mKept, mToldOfKept);
            weigh(step, answer, false, mKept);
        }
        const bool isKilled = mArguments.whose == "killed";
        if (mLife.end(isKilled ? SIGKILL : SIGTERM) != (isKilled ? SIGKILL : 0))
            throw Failed("the first service did not end as told: " + mLife.said());
    }

    int endedInSettingUp() const { return mEndedInSettingUp; }
    std::uint64_t askedBeforeReady() const { return mAskedBeforeReady; }

    void live(std::uint64_t at) {
        const std::string data = mLife.place() + "/data", round = nextRound();
        fs::remove_all(data);
        fs::copy(mLife.place() + "/template", data, fs::copy_options::recursive);
        fs::permissions(data, fs::perms::owner_all);
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
        const int status = mLife.end(hasBegun ? SIGTERM : 0);
        if (!hasBegun || status != 0) weighEnd(status, hasBegun, !hasFailedBefore && mWatched.hasFailed());
        mWatched.end();
        if (!mLife.start(service(data))) throw Failed("the next one doesn't start: " + mLife.said());
        play(round + ".3", false, allowed);
        (void)mLife.end(SIGKILL);
        verifyTrail(data);
    }

private:
    // Of a start, or an end, that failed. isRefused: whether something was refused to it.
    void weighEnd(int status, bool hasBegun, bool isRefused) {
        if (!isRefused) throw Failed("it ended with status " + std::to_string(status) + " though nothing was scarce");
        if (!hasBegun && isOfSettingUp(status))
            ++mEndedInSettingUp;
        else
            expectTold(status, mLife, mWatched.crashedIn());
    }

    // OpenSSL, and the C library where it looks up users, may go on without memory that they did not get while they set
    // themselves up, which nobody above them can mend: they crash. A start does both before it says that it is ready:
    // later no signal is forgiven, nor is a crash in other code, whoever found no memory.
    bool isOfSettingUp(int status) const {
        if (!WIFSIGNALED(status)) return false;
        const std::string place = mWatched.crashedIn();
        return (WTERMSIG(status) == SIGSEGV && place.find("libcrypto") == 0) || place == kUsersLookUp;
    }

    // Throws Failed where the service ends meanwhile.
    void play(const std::string& round, bool mayFail, Allowed& allowed) {
        ServiceCaller caller;
        putMachinePolicies(round);
        for (const char* const key : kMachineKeys) allowed[{"machine", key}].insert(round);
        Losses losses;
        for (const ScriptStep& step : script(Whose::Service, round)) {
            const std::size_t said = textOf(mLife.log()).size();
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
        const auto limit = std::chrono::steady_clock::now() + kLineLimit;
        while (!hasComplaint(textOf(mLife.log()).substr(said))) {
            if (mLife.endsWithin(1)) throw Failed("it ended over " + step.command + " " + step.key);
            if (std::chrono::steady_clock::now() > limit)
                throw Failed(step.command + " " + step.key + " failed without a line in the log");
        }
    }

    // A warning or an error, or that there was no memory for one.
    static bool hasComplaint(const std::string& lines) {
        constexpr std::size_t kLevelAt = sizeof "00:00:00.000" - 1;
        std::istringstream text(lines);
        for (std::string line; std::getline(text, line);)
            if (line.compare(0, 10, "velmarlog:") == 0 ||
                (line.size() > kLevelAt &&
                 (line.compare(kLevelAt, 3, " W ") == 0 || line.compare(kLevelAt, 3, " E ") == 0)))
                return true;
        return false;
    }

    // They are read beside the calls.
    static void awaitMachinePolicy(ServiceCaller& caller, const std::string& key, const std::string& value) {
        const auto limit = std::chrono::steady_clock::now() + kMachineLimit;
        while (caller.run({"machine.get", key}) != value) {
            if (std::chrono::steady_clock::now() > limit) throw Failed("a policy of the machine is not taken up");
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    void verifyTrail(const std::string& data) const {
        const std::string log = mLife.place() + "/verified";
        const pid_t process = spawn({mArguments.sdconfigData, "log", "verify", "--data-dir", data}, {}, log);
        int status = 0;
        ::waitpid(process, &status, 0);
        if (status != 0) throw Failed("the trail: " + textOf(log));
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
    int mEndedInSettingUp = 0;
    std::uint64_t mAskedBeforeReady = 0;
};

// ---- A client ----

// torture_client, asked line by line. The pipes have names, for spawn.
class Client {
public:
    Client(const std::string& program, const std::string& place, const std::vector<std::string>& variables)
        : mLog(place + "/client"), mInput(pipeOf(place + "/input")), mOutput(pipeOf(place + "/output")) {
        mProcess = spawn({program}, variables, mLog, place + "/input", place + "/output");
        mEnded = sd::UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, mProcess, 0)));
    }
    ~Client() {
        if (mProcess != 0) end(0);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Nothing where it has ended, which end() tells more of.
    std::optional<std::string> ask(const std::string& line) {
        const std::string text = line + "\n";
        if (::write(mInput.get(), text.data(), text.size()) < 0) throw Failed("the client can't be asked");
        std::string answer;
        pollfd waits[] = {{mOutput.get(), POLLIN, 0}, {mEnded.get(), POLLIN, 0}};
        while (answer.empty() || answer.back() != '\n') {
            if (::poll(waits, 2, kAnswerMs) <= 0) throw Failed("the client hangs at " + line.substr(0, 60));
            if ((waits[0].revents & POLLIN) == 0) return std::nullopt;
            char bytes[65536];
            const ssize_t length = ::read(mOutput.get(), bytes, sizeof bytes);
            answer.append(bytes, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        }
        answer.pop_back();
        return answer;
    }

    // Its status once it has no more input.
    int end(int patienceMs = kClientEndingMs) {
        mInput.reset();
        pollfd wait{mEnded.get(), POLLIN, 0};
        const bool hasEnded = ::poll(&wait, 1, patienceMs) > 0;
        if (!hasEnded) ::kill(mProcess, SIGKILL);
        int status = 0;
        ::waitpid(std::exchange(mProcess, 0), &status, 0);
        if (!hasEnded && patienceMs != 0) throw Failed("the client does not end: " + said());
        return status;
    }

    std::string said() const { return textOf(mLog).substr(0, 3000); }

private:
    // Both ends, so that neither process waits for the other to open it.
    static sd::UniqueFd pipeOf(const std::string& path) {
        (void)::mkfifo(path.c_str(), 0600);
        return sd::UniqueFd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    }

    const std::string mLog;
    sd::UniqueFd mInput, mOutput, mEnded;
    pid_t mProcess = 0;
};

class ClientLives : public Lives {
public:
    ClientLives(const Arguments& arguments, const std::string& place) : Lives(arguments, place) {
        if (!mLife.start(service(makeFolder("data")))) throw Failed("no service: " + mLife.said());
        mAnother.emplace();
    }
    ~ClientLives() {
        mAnother.reset();
        (void)mLife.end(SIGTERM);
    }
    ClientLives(const ClientLives&) = delete;
    ClientLives& operator=(const ClientLives&) = delete;

    int endedInSettingUp() const { return 0; }
    std::uint64_t askedBeforeReady() const { return 0; }

    void live(std::uint64_t at) {
        const std::string round = nextRound();
        mWatched.begin(mArguments.kind, at);
        Client client(mArguments.client, mLife.place(), mWatched.variables(mArguments.library));
        const bool hasBegun = client.ask("up").has_value();
        bool isUp = hasBegun && play(client, round + ".1", true);
        mWatched.end();
        if (isUp && mWatched.hasFailed()) isUp = play(client, round + ".2", false);
        // A deletion that failed is asked for again; one that was done asks the service for nothing.
        for (const char* const turn : {".1", ".2"})
            if (isUp) isUp = client.ask("listener.delete listened." + round + turn).has_value();
        const int status = client.end();
        if (hasBegun ? !isUp || status != 0 : !couldNotBegin(status))
            throw Failed("the client ended with status " + std::to_string(status) + ": " + client.said());
        // What it alone listened to: it has taken that back, and what failed was never counted.
        for (const char* const turn : {".1", ".2"})
            if (mAnother->run({"listener.get", "listened." + round + turn}) != "0")
                throw Failed("a listener is counted too many");
    }

private:
    // The loader ends a program whose libraries can't be loaded, and the C++ library one whose first objects can't be
    // made.
    static bool couldNotBegin(int status) {
        return WIFEXITED(status) ? WEXITSTATUS(status) == 127 : WTERMSIG(status) == SIGABRT;
    }

    bool play(Client& client, const std::string& round, bool mayFail) {
        Losses losses;
        for (const ScriptStep& step : script(Whose::Client, round)) {
            if (step.isAnothers) {
                weigh(step, mAnother->run(step), false, mAllowed);
                continue;
            }
            const auto answer = client.ask(lineOf(step));
            if (!answer) return false;
            const auto told = plain(step, *answer);
            const bool mayHaveFailed = mayFail && mWatched.hasFailed();
            if (!weigh(step, told, mayHaveFailed, mAllowed, isAsFailed(step, told))) losses.add(step);
        }
        return true;
    }

    static std::string lineOf(const ScriptStep& step) {
        static const std::map<std::string, std::string> kNames{
            {"secure.set", "set"},         {"secure.get", "get"}, {"secure.delete", "delete"},
            {"machine.get", "policy.get"}, {"sign.get", "sign"},  {"threads.get", "threads"},
            {"fork.get", "fork"}};
        const auto name = kNames.find(step.command);
        std::string line = name == kNames.end() ? step.command : name->second;
        line += std::string(" ") + prefixOf(step) + step.key + " " + step.value;
        if (step.command == "event.get") line += " 5000";
        return line + (step.command.compare(0, 10, "policy.set") == 0 ? " 9" : "");
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

    // What the client prints, as the service has it; nothing for what says that it failed. A policy's priority comes
    // first. Calls from several threads are told by how many were right, wrong and failed.
    static std::optional<std::string> plain(const ScriptStep& step, std::string answer) {
        const bool hasNoList =
            answer.empty() && (step.command == "policy.get.list" || step.command == "properties.get");
        if (answer == "no memory" || answer == "-" || hasNoList) return std::nullopt;
        if (step.command == "policy.get" || step.command == "machine.get")
            answer = answer.substr(std::min(answer.size(), answer.find(' ') + 1));
        if (step.command == "threads.get" || step.command == "fork.get") {
            std::istringstream counts(answer);
            int right = 0, wrong = 0, failed = 0, allRight = 0, allWrong = 0;
            for (; counts >> right >> wrong >> failed; allRight += right) allWrong += wrong;
            if (allWrong == 0 && counts.eof()) return std::to_string(allRight);
        }
        return answer == "null_value" ? "" : answer;
    }

    Allowed mAllowed = answersFromTheStart();
    std::optional<ServiceCaller> mAnother;
};

// ---- All ----

// Numbers from 1 to `all`: so many of them, in each part of the range one, and those about `ready`, where a start turns
// into serving; or those that are named.
std::vector<std::uint64_t> numbers(std::uint64_t all, std::uint64_t ready, const std::string& lives,
                                   std::uint64_t seed) {
    if (const std::size_t dash = lives.find('-'); dash != std::string::npos) {
        const std::uint64_t last = std::min<std::uint64_t>(std::stoull(lives.substr(dash + 1)), all);
        std::vector<std::uint64_t> named;
        for (std::uint64_t n = dash == 0 ? last : std::stoull(lives); n <= last; ++n) named.push_back(n);
        return named;
    }
    std::vector<std::uint64_t> chosen;
    if (const std::size_t slash = lives.find('/'); slash != std::string::npos) {
        const std::uint64_t step = std::stoull(lives.substr(slash + 1));
        for (std::uint64_t n = std::stoull(lives); n <= all; n += step) chosen.push_back(n);
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

template <class Kind>
int liveAll(const Arguments& arguments, const std::string& place) {
    Kind lives(arguments, place);
    // A slow life connects more often, and who connects is looked at: the least is what the others ask for, too.
    std::uint64_t all = UINT64_MAX;
    for (int life = 0; life < kMeasuredLives; ++life) {
        lives.live(0);
        all = std::min(all, lives.asked());
    }
    if (all == 0) throw Failed("nothing is asked for: is " + arguments.library + " preloaded?");
    int failures = 0;
    std::map<std::string, int> refused;  // by the file of who asked
    const auto chosen = numbers(all, lives.askedBeforeReady(), arguments.lives, arguments.seed);
    for (const std::uint64_t at : chosen) {
        try {
            lives.live(at);
            if (mustBeRefused(at, all) && !lives.hasFailed())
                throw Failed("only " + std::to_string(lives.asked()) + " were asked for, and nobody was refused any");
        } catch (const std::exception& failure) {  // whatever it is, the number tells how to see it again
            ++failures;
            std::cout << "the service: " << lives.said() << "\nnumber " << at << " of " << all << ", asked by "
                      << lives.refusedTo() << ": " << failure.what() << "\nagain: scarcity " << arguments.whose << " "
                      << arguments.what << " " << arguments.seed << " -" << at << std::endl;
        }
        ++refused[lives.refusedTo()];
    }
    std::cout << chosen.size() << " lives, each without another one of " << all << "\n";
    for (const auto& [file, count] : refused) std::cout << count << " " << (file.empty() ? "nobody" : file) << "\n";
    std::cout << lives.endedInSettingUp() << " ended in a library's own setting up" << std::endl;
    return failures == 0 ? 0 : 1;
}

Arguments parsed(int count, char** words) {
    static const std::map<std::string, Scarcity::Kind> kKinds{{"memory", Scarcity::Memory},
                                                              {"descriptor", Scarcity::Descriptor},
                                                              {"thread", Scarcity::Thread},
                                                              {"mapping", Scarcity::Mapping}};
    if (count != 9 || kKinds.count(words[2]) == 0)
        throw Failed(
            "scarcity service|killed|client memory|descriptor|thread|mapping SEED LIVES SCARCE SDCONFIGD CLIENT "
            "SDCONFIG-DATA");
    return {words[1], words[2], kKinds.at(words[2]), std::stoull(words[3]), words[4], words[5], words[6],
            words[7], words[8]};
}

}  // namespace
}  // namespace torture

int main(int count, char** words) {
    using namespace torture;  // NOLINT(google-build-using-namespace)
    velmarLogSetLevel(8);
    try {
        const Arguments arguments = parsed(count, words);
        char place[] = "/dev/shm/scarcity-XXXXXX";
        if (!::mkdtemp(place)) throw Failed("no room in /dev/shm");
        return arguments.whose == "client" ? liveAll<ClientLives>(arguments, place)
                                           : liveAll<ServiceLives>(arguments, place);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "scarcity: %s\n", failure.what());
        return 2;
    }
}
