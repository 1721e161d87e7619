#include "tests/support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "tests/support/support.h"

namespace test {

namespace {

int check(int result, const char* what) {
    if (result < 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
    return result;
}

int memoryFile(const std::string& content) {
    const int file = check(::memfd_create("process", MFD_CLOEXEC), "memfd_create");
    if (::write(file, content.data(), content.size()) != static_cast<ssize_t>(content.size()))
        throw std::runtime_error("a memory file is full");
    ::lseek(file, 0, SEEK_SET);
    return file;
}

std::string contentOf(int file) {
    struct stat status {};
    check(::fstat(file, &status), "fstat");
    std::string content(static_cast<std::size_t>(status.st_size), '\0');
    const ssize_t count = ::pread(file, content.data(), content.size(), 0);
    content.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return content;
}

// Everything that the child needs for exec, made before the fork: after it only async-signal-safe calls are allowed,
// and none that changes memory, which may be the parent's.
class ExecPlan {
public:
    ExecPlan(const std::vector<std::string>& arguments, const Environment& environment)
        : mArguments(arguments), mParent(::getpid()) {
        Environment all = environment;
        for (char** variable = ::environ; *variable; ++variable) {
            const std::string text = *variable;
            const std::size_t equals = text.find('=');
            if (equals != std::string::npos) all.emplace(text.substr(0, equals), text.substr(equals + 1));
        }
        for (const auto& [name, value] : all) mVariables.emplace_back(name).append("=").append(value);
        for (std::string& argument : mArguments) mArgv.push_back(argument.data());
        for (std::string& variable : mVariables) mEnvp.push_back(variable.data());
        mArgv.push_back(nullptr);
        mEnvp.push_back(nullptr);
    }

    [[noreturn]] void exec() const {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() == mParent) ::execvpe(mArgv[0], mArgv.data(), mEnvp.data());
        ::_exit(127);
    }

private:
    std::vector<std::string> mArguments;
    std::vector<std::string> mVariables;
    std::vector<char*> mArgv;
    std::vector<char*> mEnvp;
    const pid_t mParent;
};

// Whether the child has ended; then its exit code is in `exitCode`.
bool ended(pid_t pid, int& exitCode) {
    if (exitCode != Process::kRunning) return true;
    int status = 0;
    if (::waitpid(pid, &status, WNOHANG) != pid) return false;
    exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return true;
}

// As systemd does it: what doesn't end when it is told to is killed. A program that ends by itself has its leaks looked
// for, and its lines counted, where it was built for that.
void end(pid_t pid, int exitCode) {
    constexpr int kPatienceMs = 2000;
    if (pid <= 0 || exitCode != Process::kRunning) return;
    ::kill(pid, SIGTERM);
    if (waitUntil([&] { return ended(pid, exitCode); }, kPatienceMs)) return;
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

}  // namespace

Process Process::start(const std::vector<std::string>& arguments, const Environment& environment,
                       const std::string& input) {
    const int in = memoryFile(input);
    Process process;
    process.mOut = memoryFile("");
    process.exec(arguments, environment, in, process.mOut);
    ::close(in);
    return process;
}

Process Process::start(const std::vector<std::string>& arguments, const Environment& environment, int socket) {
    Process process;
    process.exec(arguments, environment, socket, socket);
    return process;
}

void Process::exec(const std::vector<std::string>& arguments, const Environment& environment, int in, int out) {
    const ExecPlan plan(arguments, environment);
    mErr = memoryFile("");
    // A fork would copy the page tables of a program that has much to replay, thousands of times.
    const pid_t pid = ::vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork)
    if (pid == 0) {
        ::dup2(in, STDIN_FILENO);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(mErr, STDERR_FILENO);
        plan.exec();
    }
    mPid = check(pid, "vfork");
}

Process::Process(Process&& other) noexcept
    : mPid(std::exchange(other.mPid, 0)),
      mOut(std::exchange(other.mOut, -1)),
      mErr(std::exchange(other.mErr, -1)),
      mExitCode(other.mExitCode) {}

Process::~Process() {
    end(mPid, mExitCode);
    if (mOut >= 0) ::close(mOut);
    if (mErr >= 0) ::close(mErr);
}

int Process::wait(int limitMs) {
    waitUntil([this] { return ended(mPid, mExitCode); }, limitMs);
    return mExitCode;
}

bool Process::waitForErr(const std::string& text, int limitMs) {
    const auto holds = [&] { return err().find(text) != std::string::npos; };
    waitUntil([&] { return holds() || ended(mPid, mExitCode); }, limitMs);
    return holds();
}

void Process::kill(int signal) const {
    if (mExitCode == kRunning) ::kill(mPid, signal);
}

int Process::stop(int signal) {
    kill(signal);
    return wait();
}

std::string Process::out() const {
    return contentOf(mOut);
}

std::string Process::err() const {
    return contentOf(mErr);
}

Result run(const std::vector<std::string>& arguments, const Environment& environment, const std::string& input,
           int limitMs) {
    Process process = Process::start(arguments, environment, input);
    const int exitCode = process.wait(limitMs);
    return {exitCode, process.out(), process.err()};
}

std::string terminalProblem() {
    int master = -1, slave = -1;
    if (::openpty(&master, &slave, nullptr, nullptr, nullptr) != 0)
        return std::string("there are no terminals, as of /dev/pts: ") + std::strerror(errno);
    for (const int end : {master, slave}) ::close(end);
    return "";
}

TerminalProcess::TerminalProcess(const std::vector<std::string>& arguments, const Environment& environment) {
    const ExecPlan plan(arguments, environment);
    std::array<char, 64> name{};
    mPid = check(::forkpty(&mMaster, name.data(), nullptr, nullptr), "forkpty");
    if (mPid == 0) plan.exec();
    ::fcntl(mMaster, F_SETFD, FD_CLOEXEC);
    mSlave = check(::open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC), "open of the terminal");
}

TerminalProcess::~TerminalProcess() {
    end(mPid, mExitCode);
    ::close(mSlave);
    ::close(mMaster);
}

void TerminalProcess::type(const std::string& text) const {
    if (::write(mMaster, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::runtime_error("the terminal takes no input");
}

// What is there, without waiting.
void TerminalProcess::readScreen() {
    pollfd source{mMaster, POLLIN, 0};
    std::array<char, 4096> buffer;
    while (::poll(&source, 1, 0) > 0) {
        const ssize_t count = ::read(mMaster, buffer.data(), buffer.size());
        if (count <= 0) return;
        mScreen.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

bool TerminalProcess::waitForScreen(const std::string& text, int limitMs) {
    const auto holds = [&] {
        readScreen();
        return mScreen.find(text) != std::string::npos;
    };
    waitUntil([&] { return holds() || ended(mPid, mExitCode); }, limitMs);
    return holds();
}

bool TerminalProcess::echoes() const {
    struct termios settings {};
    check(::tcgetattr(mSlave, &settings), "tcgetattr");
    return (settings.c_lflag & ECHO) != 0;
}

int TerminalProcess::wait(int limitMs) {
    const auto over = [this] {
        readScreen();  // or its last words could fill the terminal, and it would wait for us
        return ended(mPid, mExitCode);
    };
    waitUntil(over, limitMs);
    readScreen();
    return mExitCode;
}

}  // namespace test
