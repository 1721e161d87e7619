// Replays what power_recorder noted, cuts the power at places of its choice, starts the real service on each disk that
// may be left, and compares what it answers with what was acknowledged.
//     power_cut LOG ROOT SEED STATES SDCONFIGD SDCONFIG [--only NUMBER FOLDER] [-- OPTION...]
//     power_cut --legacy FILE        makes a database of an earlier version
// ROOT: what was recorded below; its "data" is the data folder. SEED and NUMBER make one state of a log, which --only
// leaves in FOLDER. OPTION: of the service, with ROOT written as @. The marks of the log: see model.h.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <nlohmann/json.hpp>

#include "base/unique_fd.h"
#include "platform/sdbus/sdbus.h"
#include "platform/velmarlog/velmarlog.h"
#include "tests/support/legacy_database.h"
#include "tests/torture/power/disk.h"
#include "tests/torture/power/model.h"
#include "tests/torture/service_life.h"

namespace power {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

constexpr int kCallLimitMs = 10000;
constexpr int kLookEach = 16;  // states between two that are looked at as a whole

using torture::Failed;

struct Arguments {
    std::string program, log, root, sdconfigd, sdconfig;
    std::uint64_t seed = 0;
    long states = 0;
    long only = -1;
    std::string folder;
    std::vector<std::string> options;
};

// What all workers have done, in memory that they share.
class Told {
public:
    // Whether nobody started on such a disk yet. A crowd at one place of the table has one started on once more.
    bool isNew(std::uint64_t digest) {
        for (std::size_t i = 0; i < 64; ++i) {
            std::uint64_t found = 0;
            if (mKnown[(digest + i) % mKnown.size()].compare_exchange_strong(found, digest)) return true;
            if (found == digest) return false;
        }
        return true;
    }

    std::atomic<std::size_t> taken{0};  // of the states, by the place of their cuts
    std::atomic<long> done{0};
    std::atomic<long> distinct{0};
    std::atomic<long> looks{0};
    std::atomic<bool> failed{false};

private:
    std::array<std::atomic<std::uint64_t>, std::size_t{1} << 20> mKnown{};
};

// A folder of its own, and the service on each state in it.
class Worker {
public:
    Worker(const Arguments& arguments, const std::string& place) : mArguments(arguments), mLife(place) {}

    std::string disk() const { return mLife.place() + "/disk"; }

    void put(const Files& files) const {
        fs::remove_all(disk());
        makeFolder(disk());
        for (const auto& [path, content] : files) {  // a folder comes before what is in it
            const std::string target = disk() + "/" + path;
            if (path.back() == '/') {
                makeFolder(target);
                continue;
            }
            const sd::UniqueFd file(::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
            if (::write(file.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size()))
                throw Failed("no room for a state");
        }
    }

    void check(Model model, const Files& files, bool lookWhole) {
        model.checkFiles(files);
        if (lookWhole) lookAhead();
        if (lookWhole && !model.upgrade().empty()) upgradeAgain(model);
        if (!mLife.start(command())) throw Failed("the service doesn't start: " + mLife.said());
        try {
            const Values found = ask(model);
            model.checkValues(found);
            const int status = mLife.end(lookWhole ? SIGTERM : SIGKILL);
            if (lookWhole && status != 0) throw Failed("the service ends with " + std::to_string(status));
            if (lookWhole) look(model, found);
        } catch (const Failed& failure) {
            throw Failed(failure.what() + ("; the service said: " + mLife.said()));
        }
    }

private:
    static void makeFolder(const std::string& path) {
        fs::create_directory(path);
        fs::permissions(path, fs::perms::owner_all);
    }

    std::vector<std::string> command() const {
        std::vector<std::string> words{mArguments.sdconfigd, "--data-dir", disk() + "/data"};
        for (std::string option : mArguments.options) {
            if (option[0] == '@') option.replace(0, 1, disk());
            words.push_back(std::move(option));
        }
        return words;
    }

    Values ask(const Model& model) {
        if (!mProxy) mProxy = SDBusSerivceManager::initSync(-1)->getServiceProxyInterface("sdconfig", SDBusSameUser, 1);
        std::vector<std::shared_ptr<SDBusMessage>> calls;
        for (const auto& [kind, name] : model.keys()) {
            calls.push_back(mProxy->makeMethodCallMessage(kind == "secure" ? "GET_SECURE" : "GET_POLICY"));
            calls.back()->appendString(name);
        }
        const auto answers = mProxy->callsWithRepliesBlocking(calls, kCallLimitMs);
        Values found;
        auto answer = answers.begin();
        for (const Key& key : model.keys()) {
            if ((*answer)->type() != 2) throw Failed(key.second + ": no answer");
            found[key] = (*answer++)->getString(0);
        }
        return found;
    }

    struct Ran {
        int status;
        std::string text;  // what it printed
        std::string said;  // and what else
    };

    Ran run(std::vector<std::string> words) const {
        words.insert(words.begin(), mArguments.sdconfig);
        const std::string output = mLife.place() + "/output", log = mLife.place() + "/said";
        const pid_t process = torture::spawn(words, {}, log, "/dev/null", output);
        int status = 0;
        ::waitpid(process, &status, 0);
        return {status, torture::textOf(output), torture::textOf(log)};
    }

    std::string ran(const std::vector<std::string>& words) const {
        const Ran told = run(words);
        if (told.status != 0)
            throw Failed("sdconfig " + words[0] + " ends with " + std::to_string(told.status) + ": " + told.text +
                         told.said);
        return told.text;
    }

    // Whatever a cut left, a look at it ends well; what it finds is the next start's to mend.
    void lookAhead() const {
        const Ran told = run({"check", disk() + "/data"});
        constexpr int kWrongUse = 2;  // as where the folder is not there yet
        if (!WIFEXITED(told.status) || WEXITSTATUS(told.status) > kWrongUse)
            throw Failed("sdconfig check, before the start, ends with " + std::to_string(told.status) + ": " +
                         told.said);
    }

    // One that was cut finds all again, and carries it over.
    void upgradeAgain(Model& model) const {
        const Ran told = run({"upgrade", "--force", "--json", disk() + "/data"});
        if (told.status != 0)
            throw Failed("sdconfig upgrade, done again, ends with " + std::to_string(told.status) + ": " + told.said);
        const Json rows = Json::parse(told.text).at("rows");
        const std::string found = rows.at("config").dump() + " " + rows.at("secure").dump();
        if (found != model.upgrade()) throw Failed("an earlier version's tables have " + found + " rows");
        model.settleAll();
    }

    // After an end by itself the folder is sound, and has what was written and nothing else, each with its entry.
    void look(const Model& model, const Values& found) const {
        const std::string data = disk() + "/data";
        (void)ran({"check", data});
        const Json listing = Json::parse(ran({"list", "--data-dir", data, "--show", "--json"}));
        Values stored;
        for (const Json& row : listing.at("secure")) stored[{"secure", row.at("key")}] = row.at("value");
        for (const Json& row : listing.at("policies")) stored[{"policy", row.at("uri")}] = row.at("value");
        model.checkStored(stored);
        model.checkTrail(readTrail(ran({"log", "--reverse", "--json", "--data-dir", data})), found);
    }

    static TrailRead readTrail(const std::string& text) {
        static const std::set<std::string> kChanges{"SET_SECURE", "DEL_SECURE", "SET_POLICY", "SET_POLICYLIST",
                                                    "DELETE_POLICY"};
        TrailRead trail;
        std::istringstream lines(text);
        bool isFirst = true;
        for (std::string line; std::getline(lines, line); isFirst = false) {
            const Json entry = Json::parse(line);
            if (isFirst) trail.isWhole = entry.at("seq") == 1;
            if (kChanges.count(entry.at("what")) != 0) trail.keys.push_back(entry.at("key"));
        }
        return trail;
    }

    const Arguments& mArguments;
    torture::ServiceLife mLife;
    std::shared_ptr<SDBusProxyInterface> mProxy;
};

std::mt19937_64 randomOf(std::uint64_t seed, long number) {
    std::seed_seq sequence{seed >> 32U, seed & 0xffffffffU, static_cast<std::uint64_t>(number)};
    return std::mt19937_64(sequence);
}

// By the place of a cut: how many marks are before it. Cuts between two marks compare with the same model.
std::vector<std::size_t> marksBefore(const std::vector<Entry>& log) {
    std::vector<std::size_t> marks(log.size() + 1);
    for (std::size_t i = 0; i < log.size(); ++i) marks[i + 1] = marks[i] + (log[i].kind == Kind::Mark ? 1 : 0);
    return marks;
}

// The states and the places of their cuts, the first ones first.
std::vector<std::pair<std::size_t, long>> cuts(const Arguments& arguments, std::size_t places) {
    std::vector<std::pair<std::size_t, long>> all;
    for (long number = 0; number < arguments.states; ++number) {
        if (arguments.only >= 0 && number != arguments.only) continue;
        auto random = randomOf(arguments.seed, number);
        all.emplace_back(std::uniform_int_distribution<std::size_t>(1, places)(random), number);
    }
    std::sort(all.begin(), all.end());
    return all;
}

std::size_t digestOf(std::size_t model, const Files& files) {
    std::size_t digest = model;
    for (const auto& [path, content] : files)
        digest = digest * 1099511628211U + std::hash<std::string>()(path) * 31U + std::hash<std::string>()(content);
    return digest;
}

// The path where the entry marks that of a file written whole.
std::optional<std::string> fileIn(const Entry& entry, const std::string& what) {
    const std::string mark = what + "\tfile\t";
    if (entry.kind != Kind::Mark || entry.data.compare(0, mark.size(), mark) != 0) return std::nullopt;
    return entry.data.substr(mark.size(), entry.data.find('\t', mark.size()) - mark.size());
}

// Plays a state again.
std::string commandOf(const Arguments& arguments, long number) {
    std::string text = arguments.program;
    for (const std::string& word :
         {arguments.log, arguments.root, std::to_string(arguments.seed), std::to_string(arguments.states),
          arguments.sdconfigd, arguments.sdconfig, std::string("--only"), std::to_string(number),
          "/tmp/state-" + std::to_string(number)})
        text += " " + word;
    if (!arguments.options.empty()) text += " --";
    for (const std::string& option : arguments.options) text += " " + option;
    return text;
}

// The log as it is played: a disk and the model of what it may hold.
class Replay {
public:
    Replay(const std::string& root, const std::vector<Entry>& log) : mDisk(root) {
        Disk whole(root);
        for (const Entry& entry : log) {
            whole.apply(entry);
            if (const auto path = fileIn(entry, "ack")) mDone[*path].push_back(contentIn(whole.asSeen(), *path));
        }
    }

    void apply(const Entry& entry) {
        mDisk.apply(entry);
        if (entry.kind != Kind::Mark) return;
        mModel.apply(entry.data, [this](const std::string& path) { return contentIn(mDisk.asSeen(), path); });
        if (const auto path = fileIn(entry, "begin")) {
            mModel.foresee(*path, mDone.at(*path).front());
            mDone.at(*path).pop_front();
        }
    }

    const Disk& disk() const { return mDisk; }
    const Model& model() const { return mModel; }

private:
    Disk mDisk;
    Model mModel;
    std::map<std::string, std::deque<Content>> mDone;  // what files written whole will be, one after the other
};

// calls: how many came before the cut; marks: as many of them were marks.
void tryState(const Arguments& arguments, long number, const Replay& replay, std::size_t calls, std::size_t marks,
              Worker& worker, Told& told) {
    ++told.done;
    auto random = randomOf(arguments.seed, number);
    (void)random();  // the place of the cut
    const Files files = replay.disk().afterCut(random);
    if (arguments.only < 0 && !told.isNew(digestOf(marks, files))) return;
    ++told.distinct;
    const bool isLooked = arguments.only >= 0 || number % kLookEach == 0;
    told.looks += isLooked ? 1 : 0;
    try {
        worker.put(files);
        if (!arguments.folder.empty()) fs::copy(worker.disk(), arguments.folder, fs::copy_options::recursive);
        worker.check(replay.model(), files, isLooked);
    } catch (const Failed& failure) {
        told.failed = true;
        std::cout << "state " << number << " of seed " << arguments.seed << ", cut after call " << calls << ": "
                  << failure.what() << "\nagain: " << commandOf(arguments, number) << std::endl;
    }
}

// Takes states, whose cuts come one after the other, until none is left or one failed.
void work(const Arguments& arguments, const std::vector<Entry>& log,
          const std::vector<std::pair<std::size_t, long>>& states, Worker& worker, Told& told) {
    const std::vector<std::size_t> marks = marksBefore(log);
    Replay replay(arguments.root, log);
    std::size_t played = 0;
    for (std::size_t next; !told.failed && (next = told.taken++) < states.size();) {
        const auto [calls, number] = states[next];
        while (played < calls) replay.apply(log[played++]);
        tryState(arguments, number, replay, calls, marks[calls], worker, told);
    }
}

Arguments parsed(int count, char** words) {
    if (count < 7)
        throw Failed("power_cut LOG ROOT SEED STATES SDCONFIGD SDCONFIG [--only NUMBER FOLDER] [-- OPTION...]");
    Arguments arguments{words[0], words[1], words[2], words[5], words[6], std::stoull(words[3]), std::stol(words[4]),
                        -1,       "",       {}};
    int next = 7;
    if (next + 2 < count && std::string(words[next]) == "--only") {
        arguments.only = std::stol(words[next + 1]);
        arguments.folder = words[next + 2];
        next += 3;
    }
    if (next < count && std::string(words[next]) == "--") arguments.options.assign(words + next + 1, words + count);
    return arguments;
}

int run(const Arguments& arguments) {
    const std::vector<Entry> log = readLog(arguments.log);
    if (log.empty()) throw Failed("nothing was recorded");
    char place[] = "/dev/shm/power-XXXXXX";
    if (!::mkdtemp(place)) throw Failed("no room in /dev/shm");
    void* const shared = ::mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    Told& told = *new (shared) Told;
    const std::vector<std::pair<std::size_t, long>> states = cuts(arguments, log.size());
    // They wait as long as they compute.
    const std::size_t workers = arguments.only >= 0 ? 1 : 2 * std::max(1U, std::thread::hardware_concurrency());
    const auto begin = std::chrono::steady_clock::now();
    std::vector<pid_t> processes;
    for (std::size_t i = 0; i < workers; ++i) {
        processes.push_back(::fork());
        if (processes.back() != 0) continue;
        try {
            Worker worker(arguments, std::string(place) + "/" + std::to_string(i));
            work(arguments, log, states, worker, told);
        } catch (const std::exception& failure) {
            told.failed = true;
            std::cout << failure.what() << std::endl;
        }
        ::_exit(0);
    }
    for (const pid_t process : processes) {
        int status = 0;
        if (process > 0 && ::waitpid(process, &status, 0) == process && status == 0) continue;
        told.failed = true;
        std::cout << (process > 0 ? "a worker ended with " + std::to_string(status) : "a worker could not begin")
                  << std::endl;
    }
    fs::remove_all(place);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    std::printf("%ld states, %ld of them distinct, %ld looked at as a whole, of %zu calls, in %.0f s\n",
                told.done.load(), told.distinct.load(), told.looks.load(), log.size(), took.count());
    const bool areAll = told.done == static_cast<long>(states.size());
    if (!areAll) std::printf("%zu states were asked for\n", states.size());
    return told.failed || !areAll ? 1 : 0;
}

}  // namespace
}  // namespace power

int main(int count, char** words) {
    velmarLogSetLevel(7);
    try {
        if (count == 3 && std::string(words[1]) == "--legacy") {
            test::makeLegacyDatabase(words[2]);
            return 0;
        }
        return power::run(power::parsed(count, words));
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "power_cut: %s\n", failure.what());
        return 2;
    }
}
