// Has the n-th allocation, descriptor or thread of the service, or of a client, fail, for one n after the other, over
// one script of calls, and tells what did not hold.
//     scarcity service|client memory|descriptor|thread SEED LIVES SCARCE SDCONFIGD CLIENT
// LIVES: how many n are tried, spread over all there are; 0 for each n; -N for the N-th alone.
// SCARCE: the library to preload; with $SCARCE_TRACE set it shows where it refused. CLIENT: torture_client.
// Holds: no crash; a wrong answer never, a right one or a failure; when nothing is scarce any more, the same process
// does all of the script, or has ended with a line, and the next one does; what was acknowledged is there.
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>

#include "platform/sdbus/sdbus.h"
#include "platform/velmarlog/velmarlog.h"
#include "tests/torture/scarce.h"
#include "tests/torture/service_life.h"

namespace torture {
namespace {

namespace fs = std::filesystem;

constexpr int kCallLimitMs = 700;  // no answer is how a handler that failed tells
constexpr int kEndingMs = 3000;    // of a service that is about to end
constexpr int kFailuresMost = 3;   // of a client's calls, when one thing was refused

struct Arguments {
    std::string whose, library, sdconfigd, client;
    Scarcity::Kind kind;
    std::uint64_t seed;
    std::int64_t lives;
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
        mShared->place[0] = 0;
        mShared->isCounting = 1;
    }
    std::uint64_t asked() const { return mShared->asked; }
    bool hasFailed() const { return mShared->asked >= mShared->at; }
    bool wasRefusedTo(const char* file) const { return std::strstr(mShared->place, file) != nullptr; }

    std::vector<std::string> variables(const std::string& library) const {
        return {"LD_PRELOAD=" + library, "SCARCE=" + mPath};
    }

private:
    const std::string mPath;
    Scarcity* mShared;
};

// What each key may hold, by its kind and name: after a failure the old value or the new one.
using Allowed = std::map<std::pair<std::string, std::string>, std::set<std::string>>;

struct Step {
    std::string command, key, value;
};

// Of each operation one, over values that are there and that are not.
std::vector<Step> script(const std::string& round) {
    std::vector<Step> steps;
    for (const std::string kind : {"secure", "policy"})
        steps.insert(steps.end(), {{kind + ".set", "a", round + ".a"},
                                   {kind + ".set", "big", round + std::string(20000, 'x')},
                                   {kind + ".get", "a", ""},
                                   {kind + ".get", "kept", ""},
                                   {kind + ".get", "absent", ""},
                                   {kind + ".delete", "big", ""},
                                   {kind + ".set", "b", round + ".b"}});
    steps.insert(steps.end(), {{"property.set", "p", round + ".p"}, {"property.get", "p", ""}, {"sign", "text", ""}});
    return steps;
}

std::string shown(const std::string& value) {
    return "\"" + value.substr(0, 40) + "\"";
}

// Weighs an answer; nothing for none. Policies have names of their own, so that none outweighs a secure value.
void weigh(const Step& step, const std::optional<std::string>& answer, bool mayFail, Allowed& allowed) {
    const std::string what = step.command + " " + step.key;
    const std::size_t dot = step.command.find('.');
    const std::string kind = step.command.substr(0, dot);
    const std::string operation = dot == std::string::npos ? "" : step.command.substr(dot + 1);
    if (!answer && !mayFail) throw Failed(what + ": no answer, though nothing is scarce");
    if (kind == "sign") {
        if (answer && *answer != step.key && !(mayFail && answer->empty()))
            throw Failed(what + " was answered with " + shown(*answer));
        return;
    }
    std::set<std::string>& values = allowed[{kind, step.key}];
    if (values.empty()) values.insert("");
    if (operation == "get") {
        if (!answer || values.count(*answer) != 0 || (mayFail && answer->empty())) return;
        throw Failed(what + " was answered with " + shown(*answer));
    }
    const bool done = answer && *answer == "1";
    if (!done && !mayFail) throw Failed(what + " failed, though nothing is scarce");
    if (done) values.clear();
    values.insert(step.value);
}

// ---- The service ----

class ServiceScript {
public:
    std::optional<std::string> run(const Step& step) {
        static const std::map<std::string, const char*> kMethods{
            {"secure.set", "SET_SECURE"},     {"secure.get", "GET_SECURE"},     {"secure.delete", "DEL_SECURE"},
            {"policy.set", "SET_POLICY"},     {"policy.get", "GET_POLICY"},     {"policy.delete", "DELETE_POLICY"},
            {"property.set", "SET_PROPERTY"}, {"property.get", "GET_PROPERTY"}, {"sign", "SIGN_REQUEST"}};
        if (!mProxy) mProxy = SDBusSerivceManager::initSync(-1)->getServiceProxyInterface("sdconfig", SDBusSameUser, 1);
        const auto call = mProxy->makeMethodCallMessage(kMethods.at(step.command));
        call->appendString((step.command[0] == 'p' && step.command[1] == 'o' ? "policy." : "") + step.key);
        const bool isSet = step.command.size() > 4 && step.command.substr(step.command.size() - 4) == ".set";
        if (isSet) call->appendString(step.value);
        if (step.command == "policy.set") call->appendInt8(9);
        const auto answer = mProxy->callWithReplyBlocking(call, kCallLimitMs);
        if (answer->type() != 2) return std::nullopt;
        const bool isText = step.command == "sign" || step.command.find(".get") != std::string::npos;
        return isText ? answer->getString(0) : answer->getBool(0) ? "1" : "0";
    }

private:
    std::shared_ptr<SDBusProxyInterface> mProxy;
};

// An end by itself: told by a line, with its exit code.
void expectTold(int status, const ServiceLife& life) {
    const std::string said = life.said();
    const std::size_t last = said.rfind("sdconfigd: ");
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 1 || last == std::string::npos)
        throw Failed("it ended with status " + std::to_string(status) + ": " + said);
}

class ServiceLives {
public:
    ServiceLives(const Arguments& arguments, const std::string& place)
        : mArguments(arguments), mLife(place), mWatched(place + "/scarce") {
        // Values of an earlier life.
        fs::create_directory(mLife.place() + "/template");
        fs::permissions(mLife.place() + "/template", fs::perms::owner_all);
        if (!mLife.start({mArguments.sdconfigd, "--data-dir", mLife.place() + "/template"}))
            throw Failed("no service: " + mLife.said());
        for (const std::string kind : {"secure", "policy"}) {
            const Step step{kind + ".set", "kept", "kept." + kind};
            weigh(step, mScript.run(step), false, mKept);
        }
        if (mLife.end(SIGTERM) != 0) throw Failed("the first service did not end as told: " + mLife.said());
    }

    std::string said() const { return mLife.said(); }

    // OpenSSL may go on without memory that it did not get while it sets itself up, which nobody above it can mend.
    int endedInOpenSsl() const { return mEndedInOpenSsl; }

    // How many times were counted in a life in which nothing failed.
    std::uint64_t all() {
        live(UINT64_MAX);
        return mWatched.asked();
    }

    void live(std::uint64_t at) {
        const std::string data = mLife.place() + "/data";
        fs::remove_all(data);
        fs::copy(mLife.place() + "/template", data, fs::copy_options::recursive);
        fs::permissions(data, fs::perms::owner_all);
        const std::vector<std::string> command{mArguments.sdconfigd, "--data-dir", data, "--product-dir", data};
        Allowed allowed = mKept;
        mWatched.begin(mArguments.kind, at);
        bool ended = !mLife.start(command, mWatched.variables(mArguments.library));
        for (const Step& step : script("1"))
            if (!ended) weigh(step, mScript.run(step), true, allowed);
        ended = ended || mLife.endsWithin(0);
        if (!ended && mWatched.hasFailed()) ended = !isWell(allowed);
        const bool failedBefore = mWatched.hasFailed();
        const int status = mLife.end(ended ? 0 : SIGTERM);
        if (WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV && mWatched.wasRefusedTo("libcrypto"))
            ++mEndedInOpenSsl;
        else if (ended || (status != 0 && !failedBefore))
            expectTold(status, mLife);
        else if (status != 0)
            throw Failed("it did not end as told: " + mLife.said());
        if (!mLife.start(command)) throw Failed("the next one doesn't start: " + mLife.said());
        for (const Step& step : script("3")) weigh(step, mScript.run(step), false, allowed);
        (void)mLife.end(SIGKILL);
    }

private:
    // Whether it does all of the script, now that nothing is scarce; false where it has ended.
    bool isWell(Allowed& allowed) {
        try {
            for (const Step& step : script("2")) weigh(step, mScript.run(step), false, allowed);
        } catch (const Failed&) {
            if (!mLife.endsWithin(kEndingMs)) throw;
            return false;
        }
        return true;
    }

    const Arguments& mArguments;
    ServiceLife mLife;
    Watched mWatched;
    ServiceScript mScript;
    Allowed mKept;
    int mEndedInOpenSsl = 0;
};

// ---- A client ----

class ClientLives {
public:
    ClientLives(const Arguments& arguments, const std::string& place)
        : mArguments(arguments), mLife(place), mWatched(place + "/scarce") {
        fs::create_directory(mLife.place() + "/data");
        fs::permissions(mLife.place() + "/data", fs::perms::owner_all);
        if (!mLife.start({mArguments.sdconfigd, "--data-dir", mLife.place() + "/data"}))
            throw Failed("no service: " + mLife.said());
    }
    ~ClientLives() { (void)mLife.end(SIGTERM); }
    ClientLives(const ClientLives&) = delete;
    ClientLives& operator=(const ClientLives&) = delete;

    std::string said() const { return mLife.said(); }
    int endedInOpenSsl() const { return 0; }

    std::uint64_t all() {
        live(UINT64_MAX);
        return mWatched.asked();
    }

    // The client's script twice. What fails besides has to be done at the next try.
    void live(std::uint64_t at) {
        mWatched.begin(mArguments.kind, at);
        const std::string input = mLife.place() + "/input", output = mLife.place() + "/output";
        std::vector<Step> steps = script("1");
        for (const Step& step : script("2")) steps.push_back(step);
        put(input, steps);
        const std::string log = mLife.place() + "/client";
        const pid_t process = spawn({mArguments.client}, mWatched.variables(mArguments.library), log, input, output);
        int status = 0;
        ::waitpid(process, &status, 0);
        std::istringstream answers(textOf(output));
        if (answers.peek() == EOF) return;  // it could not even begin
        int failures = 0;
        for (const Step& step : steps) {
            std::string answer;
            if (!std::getline(answers, answer)) break;
            weigh(step, plain(step, answer), true, mAllowed);
            failures += answer == "no memory" || (answer == "0" && isChange(step)) ? 1 : 0;
        }
        if (status != 0 || failures > kFailuresMost)
            throw Failed("the client ended with status " + std::to_string(status) + " and " + std::to_string(failures) +
                         " failures: " + textOf(log).substr(0, 3000));
    }

private:
    static bool isChange(const Step& step) {
        return step.command.find(".set") != std::string::npos || step.command.find(".delete") != std::string::npos;
    }

    // What the client prints, as the service has it. A policy's priority comes first.
    static std::optional<std::string> plain(const Step& step, std::string answer) {
        if (answer == "no memory") return std::nullopt;
        if (step.command == "policy.get") answer = answer.substr(std::min(answer.size(), answer.find(' ') + 1));
        return answer == "null_value" || answer == "-" ? "" : answer;
    }

    static void put(const std::string& path, const std::vector<Step>& steps) {
        std::ostringstream text;
        for (const Step& step : steps) {
            const bool isSecure = step.command.compare(0, 7, "secure.") == 0;
            const bool isPolicy = step.command.compare(0, 7, "policy.") == 0;
            text << (isSecure ? step.command.substr(7) : step.command) << " " << (isPolicy ? "policy." : "") << step.key
                 << " " << step.value << (step.command == "policy.set" ? " 9" : "") << "\n";
        }
        const sd::UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        const std::string all = text.str();
        if (::write(file.get(), all.data(), all.size()) != static_cast<ssize_t>(all.size())) throw Failed("no room");
    }

    const Arguments& mArguments;
    ServiceLife mLife;
    Watched mWatched;
    Allowed mAllowed;
};

// ---- All ----

// Numbers from 1 to `all`: each, or so many of them, in each part of the range one.
std::vector<std::uint64_t> numbers(std::uint64_t all, std::int64_t lives, std::uint64_t seed) {
    if (lives < 0) return {static_cast<std::uint64_t>(-lives)};
    std::vector<std::uint64_t> chosen;
    std::mt19937_64 random(seed);
    const std::uint64_t count = lives == 0 ? all : std::min(static_cast<std::uint64_t>(lives), all);
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::uint64_t from = all * i / count + 1;
        const std::uint64_t to = all * (i + 1) / count;
        chosen.push_back(std::uniform_int_distribution<std::uint64_t>(from, std::max(from, to))(random));
    }
    return chosen;
}

template <class Lives>
int liveAll(const Arguments& arguments, const std::string& place) {
    Lives lives(arguments, place);
    const std::uint64_t all = lives.all();
    int failures = 0;
    const auto chosen = numbers(all, arguments.lives, arguments.seed);
    for (const std::uint64_t at : chosen) {
        try {
            lives.live(at);
        } catch (const Failed& failure) {
            ++failures;
            std::cout << "number " << at << " of " << all << ": " << failure.what()
                      << "\n  the service: " << lives.said() << std::endl;
        }
    }
    std::cout << chosen.size() << " lives, each without another one of " << all;
    if (lives.endedInOpenSsl() > 0) std::cout << "; " << lives.endedInOpenSsl() << " ended in OpenSSL's own setting up";
    std::cout << std::endl;
    return failures == 0 ? 0 : 1;
}

Arguments parsed(int count, char** words) {
    static const std::map<std::string, Scarcity::Kind> kKinds{
        {"memory", Scarcity::Memory}, {"descriptor", Scarcity::Descriptor}, {"thread", Scarcity::Thread}};
    if (count != 8 || kKinds.count(words[2]) == 0)
        throw Failed("scarcity service|client memory|descriptor|thread SEED LIVES SCARCE SDCONFIGD CLIENT");
    return {words[1], words[5], words[6], words[7], kKinds.at(words[2]), std::stoull(words[3]), std::stoll(words[4])};
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
        return arguments.whose == "service" ? liveAll<ServiceLives>(arguments, place)
                                            : liveAll<ClientLives>(arguments, place);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "scarcity: %s\n", failure.what());
        return 2;
    }
}
