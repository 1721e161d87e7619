// What the programs cost as processes: the service's start, one `sdconfig get`, resident memory; each beside an empty
// program that is linked to the same libraries.
//     processes SDCONFIGD SDCONFIG EMPTY_PROGRAM [ROUNDS]
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench/statistics.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

double milliseconds(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// A process with its standard error in a pipe.
struct Process {
    pid_t pid = 0;
    int err = -1;

    explicit Process(std::vector<std::string> arguments) {
        int pipe[2];
        if (::pipe2(pipe, O_CLOEXEC) != 0) std::abort();
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipe[1], 2);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        std::vector<char*> argv;
        argv.reserve(arguments.size() + 1);
        for (std::string& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        if (::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) std::abort();
        posix_spawn_file_actions_destroy(&actions);
        ::close(pipe[1]);
        err = pipe[0];
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process() {
        if (pid > 0) ::kill(pid, SIGTERM);
        wait();
        ::close(err);
    }

    void waitUntilReady() const {
        std::string text;
        char part[512];
        while (text.find("ready") == std::string::npos) {
            const ssize_t count = ::read(err, part, sizeof part);
            if (count <= 0) std::abort();
            text.append(part, static_cast<size_t>(count));
        }
    }
    void wait() {
        if (pid > 0) ::waitpid(pid, nullptr, 0);
        pid = 0;
    }
    double residentKiB() const {
        std::ifstream status("/proc/" + std::to_string(pid) + "/status");
        for (std::string line; std::getline(status, line);)
            if (line.compare(0, 6, "VmRSS:") == 0) return std::stod(line.substr(6));
        return 0;
    }
};

double startToReady(const std::vector<std::string>& command) {
    const auto start = Clock::now();
    const Process process(command);
    process.waitUntilReady();
    return milliseconds(start);
}

double wholeRun(const std::vector<std::string>& command) {
    const auto start = Clock::now();
    Process process(command);
    process.wait();
    return milliseconds(start);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) return 2;
    const std::string empty = argv[3];
    const int rounds = argc > 4 ? std::stoi(argv[4]) : 21;
    char folder[] = "/tmp/sdbench-XXXXXX";
    if (!::mkdtemp(folder) || ::setenv("XDG_RUNTIME_DIR", folder, 1) != 0) return 1;
    const std::vector<std::string> service{argv[1], "--data-dir", std::string(folder) + "/data", "--log-level", "8"};
    const std::vector<std::string> get{argv[2], "get", "bench"};

    std::vector<double> starts, emptyStarts, gets, emptyRuns;
    for (int round = 0; round < rounds; ++round) {
        starts.push_back(startToReady(service));
        emptyStarts.push_back(startToReady({empty, "stay"}));
    }
    bench::printRatio("sdconfigd, start to ready", starts, emptyStarts, "ms");
    {
        const Process running(service);
        running.waitUntilReady();
        wholeRun({argv[2], "set", "bench", "value"});
        for (int round = 0; round < rounds; ++round) {
            gets.push_back(wholeRun(get));
            emptyRuns.push_back(wholeRun({empty}));
        }
        bench::printRatio("sdconfig get, a whole process", gets, emptyRuns, "ms");
        const Process idle({empty, "stay"});
        idle.waitUntilReady();
        bench::printRatio("sdconfigd, resident memory", {running.residentKiB()}, {idle.residentKiB()}, "KiB");
    }
    std::filesystem::remove_all(folder);
    return 0;
}
