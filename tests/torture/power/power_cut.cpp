// Replays what power_recorder noted, cuts the power at places of its choice, starts the real service on each disk that
// may be left, and compares what it answers with what was acknowledged.
//     power_cut LOG ROOT SEED STATES SDCONFIGD SDCONFIG [--only NUMBER FOLDER] [-- OPTION...]
//     power_cut --legacy FILE        makes a database of an earlier version
// ROOT: what was recorded below; its "data" is the data folder. SEED and NUMBER make one state of a log, which --only
// leaves in FOLDER. OPTION: of the service, with ROOT written as @.
// The marks of the log, fields between tabs: "begin KIND KEY VALUE" and "ack KIND KEY VALUE" of a write, where KIND is
// secure or policy and "" is a deletion; "begin file PATH" and "ack file PATH" of a file that is written whole.
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
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "base/unique_fd.h"
#include "platform/sdbus/sdbus.h"
#include "platform/velmarlog/velmarlog.h"
#include "tests/support/legacy_database.h"
#include "tests/torture/power/disk.h"
#include "tests/torture/service_life.h"

namespace power {
namespace {

namespace fs = std::filesystem;

constexpr int kCallLimitMs = 10000;
constexpr int kLookEach = 10;  // states between two whole checks

using torture::Failed;

std::vector<std::string> fields(const std::string& mark) {
    std::vector<std::string> all;
    std::istringstream text(mark);
    for (std::string field; std::getline(text, field, '\t');) all.push_back(field);
    all.resize(std::max<std::size_t>(all.size(), 4));
    return all;
}

// What each key, and each file that is written whole, may hold: what was acknowledged last, or what was under way.
class Model {
public:
    // seen: the file's content at that moment.
    void apply(const std::string& mark, const std::function<std::string(const std::string& path)>& seen) {
        const auto field = fields(mark);
        const bool isAck = field[0] == "ack";
        auto& allowed = mAllowed[{field[1], field[2]}];
        if (allowed.empty()) allowed.insert("");
        const std::string value = field[1] == "file" && isAck ? seen(field[2]) : field[3];
        if (isAck) allowed.clear();
        allowed.insert(value);
    }
    // Of a file under way anything is known of only when it is done.
    void foresee(const std::string& path, const std::string& content) { mAllowed[{"file", path}].insert(content); }

    using Key = std::pair<std::string, std::string>;  // its kind and its name
    const std::map<Key, std::set<std::string>>& allowed() const { return mAllowed; }

private:
    std::map<Key, std::set<std::string>> mAllowed;
};

struct Arguments {
    std::string log, root, sdconfigd, sdconfig;
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
    std::atomic<long> distinct{0};
    std::atomic<long> looks{0};
    std::atomic<bool> failed{false};

private:
    std::array<std::atomic<std::uint64_t>, std::size_t{1} << 20> mKnown{};
};

std::string shown(const std::string& value) {
    return "\"" + value.substr(0, 60) + "\" (" + std::to_string(value.size()) + " bytes)";
}

// A folder of its own, and the service on each state in it.
class Worker {
public:
    Worker(const Arguments& arguments, const std::string& place) : mArguments(arguments), mLife(place) {}

    std::string disk() const { return mLife.place() + "/disk"; }

    void put(const Files& files) const {
        fs::remove_all(disk());
        fs::create_directories(disk() + "/data");
        for (const auto& [path, content] : files) {
            const fs::path target = fs::path(disk()) / path;
            fs::create_directories(target.parent_path());
            const sd::UniqueFd file(::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
            if (::write(file.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size()))
                throw Failed("no room for a state");
        }
        for (const auto& entry : fs::recursive_directory_iterator(disk()))
            if (entry.is_directory()) fs::permissions(entry, fs::perms::owner_all);
        fs::permissions(disk() + "/data", fs::perms::owner_all);
    }

    void check(const Model& model, const Files& files, bool lookWhole) {
        for (const auto& [key, allowed] : model.allowed()) {
            if (key.first != "file") continue;
            const auto found = files.find(key.second);
            const std::string content = found == files.end() ? "" : found->second;
            if (allowed.count(content) == 0) throw Failed(key.second + " holds " + shown(content));
        }
        if (!mLife.start(command())) throw Failed("the service doesn't start: " + mLife.said());
        try {
            compare(model);
        } catch (const Failed& failure) {
            throw Failed(failure.what() + ("; the service said: " + mLife.said()));
        }
        (void)mLife.end(lookWhole ? SIGTERM : SIGKILL);
        if (lookWhole) look();
    }

private:
    std::vector<std::string> command() const {
        std::vector<std::string> words{mArguments.sdconfigd, "--data-dir", disk() + "/data"};
        for (std::string option : mArguments.options) {
            if (option[0] == '@') option.replace(0, 1, disk());
            words.push_back(std::move(option));
        }
        return words;
    }

    void compare(const Model& model) {
        if (!mProxy) mProxy = SDBusSerivceManager::initSync(-1)->getServiceProxyInterface("sdconfig", SDBusSameUser, 1);
        std::vector<std::shared_ptr<SDBusMessage>> calls;
        for (const auto& [key, allowed] : model.allowed()) {
            if (key.first == "file") continue;
            calls.push_back(mProxy->makeMethodCallMessage(key.first == "secure" ? "GET_SECURE" : "GET_POLICY"));
            calls.back()->appendString(key.second);
        }
        const auto answers = mProxy->callsWithRepliesBlocking(calls, kCallLimitMs);
        auto answer = answers.begin();
        for (const auto& [key, allowed] : model.allowed()) {
            if (key.first == "file") continue;
            if ((*answer)->type() != 2) throw Failed(key.second + ": no answer");
            const std::string value = (*answer++)->getString(0);
            if (allowed.count(value) == 0) throw Failed(key.second + " holds " + shown(value));
        }
    }

    // After an end by itself the folder has to be sound.
    void look() const {
        const std::string log = mLife.place() + "/check";
        const pid_t process = torture::spawn({mArguments.sdconfig, "check", disk() + "/data"}, {}, log);
        int status = 0;
        ::waitpid(process, &status, 0);
        if (status != 0) throw Failed("sdconfig check: " + torture::textOf(log));
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

void work(const Arguments& arguments, const std::vector<Entry>& log, Worker& worker,
          const std::vector<std::size_t>& marks, const std::vector<std::pair<std::size_t, long>>& states, Told& told) {
    Disk disk(arguments.root);
    Model model;
    // What a file that is written whole will be.
    Disk whole(arguments.root);
    std::multimap<std::string, std::pair<std::size_t, std::string>> done;  // by path: the place of the ack
    const auto seenIn = [](const Disk& of) { return [&of](const std::string& path) { return of.asSeen()[path]; }; };
    for (std::size_t i = 0; i < log.size(); ++i) {
        whole.apply(log[i]);
        if (log[i].kind == Kind::Mark && fields(log[i].data)[0] == "ack" && fields(log[i].data)[1] == "file")
            done.emplace(fields(log[i].data)[2], std::pair(i, seenIn(whole)(fields(log[i].data)[2])));
    }
    std::size_t next = told.taken++;
    for (std::size_t i = 0; i < log.size() && next < states.size(); ++i) {
        disk.apply(log[i]);
        if (log[i].kind == Kind::Mark) {
            model.apply(log[i].data, seenIn(disk));
            const auto field = fields(log[i].data);
            const auto [from, to] = done.equal_range(field[2]);
            const auto later = std::find_if(from, to, [i](const auto& one) { return one.second.first > i; });
            if (field[0] == "begin" && field[1] == "file" && later != to) model.foresee(field[2], later->second.second);
        }
        for (; next < states.size() && states[next].first == i + 1; next = told.taken++) {
            const long number = states[next].second;
            auto random = randomOf(arguments.seed, number);
            (void)random();
            const Files files = disk.afterCut(random);
            if (arguments.only < 0 && !told.isNew(digestOf(marks[i + 1], files))) continue;
            ++told.distinct;
            const bool isLooked = arguments.only >= 0 || number % kLookEach == 0;
            told.looks += isLooked ? 1 : 0;
            try {
                worker.put(files);
                if (!arguments.folder.empty()) fs::copy(worker.disk(), arguments.folder, fs::copy_options::recursive);
                worker.check(model, files, isLooked);
            } catch (const Failed& failure) {
                told.failed = true;
                std::cout << "state " << number << " of seed " << arguments.seed << ", cut after call " << i + 1
                          << " of " << log.size() << ": " << failure.what() << std::endl;
            }
            if (told.failed) return;
        }
    }
}

Arguments parsed(int count, char** words) {
    if (count < 7)
        throw Failed("power_cut LOG ROOT SEED STATES SDCONFIGD SDCONFIG [--only NUMBER FOLDER] [-- OPTION...]");
    Arguments arguments{words[1], words[2], words[5], words[6], std::stoull(words[3]), std::stol(words[4]), -1, "", {}};
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
    const std::vector<std::size_t> marks = marksBefore(log);
    const std::vector<std::pair<std::size_t, long>> states = cuts(arguments, log.size());
    // They wait as long as they compute.
    const std::size_t workers = arguments.only >= 0 ? 1 : 2 * std::max(1U, std::thread::hardware_concurrency());
    const auto begin = std::chrono::steady_clock::now();
    std::vector<pid_t> processes;
    for (std::size_t i = 0; i < workers; ++i) {
        const pid_t process = ::fork();
        if (process > 0) processes.push_back(process);
        if (process != 0) continue;
        try {
            Worker worker(arguments, std::string(place) + "/" + std::to_string(i));
            work(arguments, log, worker, marks, states, told);
        } catch (const std::exception& failure) {
            told.failed = true;
            std::cout << failure.what() << std::endl;
        }
        ::_exit(0);
    }
    for (const pid_t process : processes) ::waitpid(process, nullptr, 0);
    fs::remove_all(place);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    std::printf("%zu states, %ld of them distinct, %ld checked whole, of %zu calls, in %.0f s\n", states.size(),
                told.distinct.load(), told.looks.load(), log.size(), took.count());
    return told.failed ? 1 : 0;
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
