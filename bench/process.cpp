#include "bench/process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <utility>

namespace bench {

namespace {

constexpr char kLibraryPath[] = "LD_LIBRARY_PATH";

std::optional<std::string> environmentValue(const char* name) {
    const char* const value = std::getenv(name);
    return value ? std::optional<std::string>(value) : std::nullopt;
}

cpu_set_t currentCpus() {
    cpu_set_t cpus;
    require(::sched_getaffinity(0, sizeof cpus, &cpus) == 0, "sched_getaffinity");
    return cpus;
}

// Of a child: a measurement that fails, or is killed, leaves nothing running.
void endWithParent() {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
}

void waitForText(int descriptor, const std::string& text) {
    std::string came;
    std::array<char, 512> part;
    while (came.find(text) == std::string::npos) {
        const ssize_t count = ::read(descriptor, part.data(), part.size());
        if (count <= 0) std::fprintf(stderr, "%s", came.c_str());
        require(count > 0, "a program that ended before it was ready");
        came.append(part.data(), static_cast<std::size_t>(count));
    }
}

}  // namespace

Workplace::Workplace() {
    std::string folder = "/tmp/sdbench-XXXXXX";
    require(::mkdtemp(folder.data()) != nullptr, "mkdtemp");
    require(::setenv("XDG_RUNTIME_DIR", folder.c_str(), 1) == 0, "setenv");
    mFolder = folder;
}

Workplace::~Workplace() {
    std::error_code ignored;
    std::filesystem::remove_all(mFolder, ignored);
}

OnCpu::OnCpu(int cpu) : mBefore(currentCpus()) {
    static const cpu_set_t sAll = mBefore;  // the first object comes before any restriction
    cpu_set_t cpus = sAll;
    if (cpu != kAnyCpu) {
        CPU_ZERO(&cpus);
        CPU_SET(static_cast<std::size_t>(cpu), &cpus);
    }
    require(::sched_setaffinity(0, sizeof cpus, &cpus) == 0, "sched_setaffinity");
}

OnCpu::~OnCpu() {
    (void)::sched_setaffinity(0, sizeof mBefore, &mBefore);
}

void require(bool condition, const char* what) {
    if (condition) return;
    std::perror(what);
    std::_Exit(1);
}

Process Process::fork(const Server& server, char* said) {
    std::array<int, 2> ready{};
    std::array<int, 2> end{};
    require(::pipe2(ready.data(), O_CLOEXEC) == 0 && ::pipe2(end.data(), O_CLOEXEC) == 0, "pipe2");
    const pid_t pid = ::fork();
    require(pid >= 0, "fork");
    if (pid == 0) {
        endWithParent();
        ::close(ready[0]);
        ::close(end[1]);
        server(ready[1], end[0]);
        std::_Exit(0);
    }
    ::close(ready[1]);
    ::close(end[0]);
    char byte = 0;
    require(::read(ready[0], &byte, 1) == 1, "a server that ended before it was ready");
    ::close(ready[0]);
    if (said) *said = byte;
    return {pid, end[1]};
}

Process Process::start(std::vector<std::string> command, const std::string& readyWhen) {
    std::array<int, 2> err{-1, -1};
    if (!readyWhen.empty()) require(::pipe2(err.data(), O_CLOEXEC) == 0, "pipe2");
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (std::string& argument : command) arguments.push_back(argument.data());
    arguments.push_back(nullptr);
    const pid_t pid = ::fork();
    require(pid >= 0, "fork");
    if (pid == 0) {
        endWithParent();
        ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
        if (err[1] >= 0) ::dup2(err[1], STDERR_FILENO);
        ::execvp(arguments[0], arguments.data());
        require(false, arguments[0]);
    }
    if (err[1] >= 0) ::close(err[1]);
    if (!readyWhen.empty()) waitForText(err[0], readyWhen);
    return {pid, err[0]};
}

Process::Process(Process&& other) noexcept
    : mPid(std::exchange(other.mPid, 0)), mDescriptor(std::exchange(other.mDescriptor, -1)) {}

Process::~Process() {
    if (mPid > 0) ::kill(mPid, SIGTERM);
    if (mDescriptor >= 0) ::close(mDescriptor);
    wait();
}

int Process::wait() {
    if (mPid <= 0) return -1;
    int status = 0;
    ::waitpid(std::exchange(mPid, 0), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void Process::kill() {
    if (mPid > 0) ::kill(mPid, SIGKILL);
    wait();
}

double Process::residentKiB() const {
    std::ifstream status("/proc/" + std::to_string(mPid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.compare(0, 6, "VmRSS:") == 0) return std::stod(line.substr(6));
    return 0;
}

WithLibraries::WithLibraries(const std::string& folder) : mBefore(environmentValue(kLibraryPath)) {
    if (!folder.empty()) require(::setenv(kLibraryPath, folder.c_str(), 1) == 0, "setenv");
}

WithLibraries::~WithLibraries() {
    mBefore ? ::setenv(kLibraryPath, mBefore->c_str(), 1) : ::unsetenv(kLibraryPath);
}

bool isInstalled(const std::string& program) {
    if (std::system(("command -v " + program + " >/dev/null").c_str()) == 0) return true;
    std::printf("left out: %s is not installed\n", program.c_str());
    return false;
}

std::string brokerConfig(const std::string& socket) {
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig><type>session</type><listen>unix:path=" +
           socket +
           "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
           "<allow send_destination=\"*\"/><allow receive_sender=\"*\"/><allow own=\"*\"/></policy></busconfig>\n";
}

void allowDescriptors(int count) {
    rlimit limit{};
    require(::getrlimit(RLIMIT_NOFILE, &limit) == 0, "getrlimit");
    limit.rlim_cur = std::max(limit.rlim_cur, static_cast<rlim_t>(count) + 100);
    require(::setrlimit(RLIMIT_NOFILE, &limit) == 0, "setrlimit");
}

void tellReady(int ready, char said) {
    require(::write(ready, &said, 1) == 1, "write");
}

void waitForEnd(int end) {
    char byte = 0;
    while (::read(end, &byte, 1) > 0) {
    }
}

}  // namespace bench
