// Real processes for tests: start one, feed it, wait for it with a limit, and see what it printed.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <map>
#include <string>
#include <vector>

namespace test {

// Variables that are added to the test's own environment or replace it there.
using Environment = std::map<std::string, std::string>;

constexpr int kProcessLimitMs = 20000;

// A child process. Its output goes to memory files, so that it never waits for a reader; its input is there whole from
// the start. Whatever still runs when the object goes is told to end, and killed after two seconds; when the starting
// thread ends it is killed at once.
class Process {
public:
    static constexpr int kRunning = -1;

    // arguments: the program's path, or its name for a search in PATH, and its arguments.
    // Throws std::runtime_error where no process could be made; an absent program ends with code 127.
    static Process start(const std::vector<std::string>& arguments, const Environment& environment = {},
                         const std::string& input = "");
    // One that is talked with: the socket is its input and its output.
    static Process start(const std::vector<std::string>& arguments, const Environment& environment, int socket);

    Process(Process&& other) noexcept;
    Process& operator=(Process&& other) = delete;
    ~Process();

    // Waits for the end. Returns the exit code, 128 and the signal's number after a signal, or kRunning when `limitMs`
    // passed first.
    int wait(int limitMs = kProcessLimitMs);

    // Waits until standard error holds `text`; false when the process ended or `limitMs` passed first.
    bool waitForErr(const std::string& text, int limitMs = kProcessLimitMs);

    pid_t pid() const { return mPid; }
    void kill(int signal) const;     // does nothing after the end was seen
    int stop(int signal = SIGTERM);  // and waits for the end as wait() does

    // What it printed so far.
    std::string out() const;
    std::string err() const;

private:
    Process() = default;
    void exec(const std::vector<std::string>& arguments, const Environment& environment, int in, int out);

    pid_t mPid = 0;
    int mOut = -1;
    int mErr = -1;
    int mExitCode = kRunning;
};

struct Result {
    int exitCode;
    std::string out;
    std::string err;
};

// Runs a process to its end; one that is not at its end after `limitMs` is killed and gives Process::kRunning.
Result run(const std::vector<std::string>& arguments, const Environment& environment = {},
           const std::string& input = "", int limitMs = kProcessLimitMs);

// Why there can be no TerminalProcess here; "" where there can.
std::string terminalProblem();

// A process whose standard descriptors are a terminal of its own.
class TerminalProcess {
public:
    explicit TerminalProcess(const std::vector<std::string>& arguments, const Environment& environment = {});
    ~TerminalProcess();
    TerminalProcess(const TerminalProcess&) = delete;
    TerminalProcess& operator=(const TerminalProcess&) = delete;

    void type(const std::string& text) const;

    // Reads until the screen holds `text`; false when the process ended or `limitMs` passed first.
    bool waitForScreen(const std::string& text, int limitMs = kProcessLimitMs);
    const std::string& screen() const { return mScreen; }  // everything shown so far

    bool echoes() const;
    int wait(int limitMs = kProcessLimitMs);  // as Process::wait

private:
    void readScreen();

    pid_t mPid = 0;
    int mMaster = -1;
    int mSlave = -1;  // keeps the terminal, and so its settings, past the end of the process
    int mExitCode = Process::kRunning;
    std::string mScreen;
};

}  // namespace test
