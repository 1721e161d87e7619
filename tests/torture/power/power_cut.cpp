// Replays what power_recorder noted, cuts the power at places of its choice, starts the real service on each disk that
// may be left, and compares what it answers with what was acknowledged.
//     power_cut [--without-syncs] [--only NUMBER FOLDER] [--next LOG ROOT]
//               LOG ROOT SEED STATES SDCONFIGD SDCONFIG RECORDER [OPTION...]
//     power_cut --legacy FILE        makes a database of an earlier version
// ROOT: what was recorded below; its "data" is the data folder. SEED and NUMBER make one state of a log, which --only
// leaves in FOLDER. On some states the start is recorded with RECORDER, and cut itself; --next: what was recorded of it
// before. --without-syncs plays the log as if nothing had been synced, which has to fail. OPTION: of the service, with
// ROOT written as @. The marks of the log: see model.h.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <random>
#include <thread>
#include <utility>

#include "tests/support/legacy_database.h"
#include "tests/torture/power/replay.h"
#include "tests/torture/power/worker.h"

namespace power {
namespace {

namespace fs = std::filesystem;
using torture::Failed;

// States between two that are looked at as a whole, and between two on which the start is cut, too.
constexpr int kLookEach = 24;
constexpr int kCutAgainEach = 64;
constexpr int kCutsAgain = 2;
constexpr char kWithoutSyncs[] = "--without-syncs";

struct Arguments {
    std::string program, others;  // as they were given, the latter without flags
    bool isSynced = true;
    long only = -1;
    std::string folder, next, nextRoot;
    std::string log, root;
    std::uint64_t seed = 0;
    long states = 0;
    Programs programs;
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
    std::atomic<long> again{0};  // cut
    std::atomic<bool> failed{false};

private:
    std::array<std::atomic<std::uint64_t>, std::size_t{1} << 20> mKnown{};
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

// Plays a state again.
std::string commandOf(const Arguments& arguments, const std::string& number, const std::string& next) {
    return arguments.program + (arguments.isSynced ? "" : std::string(" ") + kWithoutSyncs) + " --only " + number +
           " /tmp/state-" + number + next + arguments.others;
}

// Where --only wants the state.
void keep(const Arguments& arguments, const Worker& worker, const std::string& suffix = "") {
    if (!arguments.folder.empty()) fs::copy(worker.disk(), arguments.folder + suffix, fs::copy_options::recursive);
}

// Cuts the power once more, while a start mends what the first cut left. next: where that is kept if it fails.
void cutAgain(const Arguments& arguments, Model model, const Files& files, std::mt19937_64& random, Worker& worker,
              std::string& next) {
    std::vector<Entry> log = worker.record(model, files, random() % 2 == 0);
    const bool isGiven = !arguments.next.empty();
    if (isGiven) log = readLog(arguments.next);
    const std::string root = isGiven ? arguments.nextRoot : worker.disk();
    const std::string kept = "/tmp/power.next." + std::to_string(::getpid());
    fs::copy_file(isGiven ? arguments.next : worker.recording(), kept, fs::copy_options::overwrite_existing);
    next = " --next " + kept + " " + root;
    for (int i = 0; i < kCutsAgain; ++i) {
        Replay replay(root, log, model);
        // Behind the files that were there.
        const auto calls = std::uniform_int_distribution<std::size_t>(files.size(), log.size())(random);
        for (std::size_t at = 0; at < calls; ++at) replay.apply(log[at]);
        const Files left = replay.disk().afterCut(random);
        worker.put(left);
        keep(arguments, worker, ".next" + std::to_string(i));
        worker.check(replay.model(), left, i == 0 ? Look::Whole : Look::Short);
    }
    fs::remove(kept);
    next.clear();
}

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
    const bool isCutAgain = arguments.isSynced && number % kCutAgainEach == kLookEach / 2;
    told.looks += isLooked ? 1 : 0;
    told.again += isCutAgain ? 1 : 0;
    std::string next;
    try {
        worker.put(files);
        keep(arguments, worker);
        worker.check(replay.model(), files, isLooked ? Look::Whole : Look::Short);
        if (isCutAgain) cutAgain(arguments, replay.model(), files, random, worker, next);
    } catch (const std::exception& failure) {
        told.failed = true;
        std::cout << "state " << number << " of seed " << arguments.seed << ", cut after call " << calls
                  << (next.empty() ? ": " : ", and then in the start: ") << failure.what()
                  << "\nagain: " << commandOf(arguments, std::to_string(number), next) << std::endl;
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

Arguments parsed(const std::vector<std::string>& words) {
    Arguments arguments;
    arguments.program = words[0];
    std::size_t at = 1;
    for (; at + 2 < words.size() && words[at].compare(0, 2, "--") == 0; ++at) {
        if (words[at] == kWithoutSyncs) {
            arguments.isSynced = false;
        } else if (words[at] == "--only") {
            arguments.only = std::stol(words[++at]);
            arguments.folder = words[++at];
        } else {  // --next
            arguments.next = words[++at];
            arguments.nextRoot = words[++at];
        }
    }
    if (words.size() < at + 7)
        throw Failed(
            "power_cut [--without-syncs] [--only NUMBER FOLDER] [--next LOG ROOT] "
            "LOG ROOT SEED STATES SDCONFIGD SDCONFIG RECORDER [OPTION...]");
    for (std::size_t i = at; i < words.size(); ++i) arguments.others += " " + words[i];
    const auto word = words.begin() + static_cast<std::ptrdiff_t>(at);
    arguments.log = word[0];
    arguments.root = word[1];
    arguments.seed = std::stoull(word[2]);
    arguments.states = std::stol(word[3]);
    arguments.programs = {word[4], word[5], word[6], {word + 7, words.end()}};
    return arguments;
}

int run(const Arguments& arguments) {
    std::vector<Entry> log = readLog(arguments.log);
    const auto isSync = [](const Entry& entry) { return entry.kind == Kind::Sync || entry.kind == Kind::SyncFolder; };
    if (!arguments.isSynced) log.erase(std::remove_if(log.begin(), log.end(), isSync), log.end());
    if (log.empty()) throw Failed("nothing was recorded");
    if (fs::exists(arguments.root)) checkRecording(log, arguments.root);  // a log that was kept has it no more
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
            Worker worker(arguments.programs);
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
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    std::printf(
        "%ld states, %ld of them distinct, %ld looked at as a whole, %ld cut once more, of %zu calls, in %.0f s\n",
        told.done.load(), told.distinct.load(), told.looks.load(), told.again.load(), log.size(), took.count());
    const bool areAll = told.done == static_cast<long>(states.size());
    if (!areAll) std::printf("%zu states were asked for\n", states.size());
    return told.failed || !areAll ? 1 : 0;
}

}  // namespace
}  // namespace power

int main(int count, char** words) {
    return torture::perform("power_cut", [&] {
        if (count != 3 || std::string(words[1]) != "--legacy") return power::run(power::parsed({words, words + count}));
        test::makeLegacyDatabase(words[2]);
        return 0;
    });
}
