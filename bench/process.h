// The processes of a measurement, and where they run.
#pragma once

#include <sched.h>
#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace bench {

// A folder of its own under /tmp, which goes with it. While it lives it is $XDG_RUNTIME_DIR of this process and of
// those that it starts.
class Workplace {
public:
    Workplace();
    ~Workplace();
    Workplace(const Workplace&) = delete;
    Workplace& operator=(const Workplace&) = delete;

    std::string path(const std::string& name) const { return mFolder + "/" + name; }

private:
    std::string mFolder;
};

// The calling thread, and the threads and processes that it starts, run on this cpu alone while the object lives;
// kAnyCpu: on each that the process began with.
constexpr int kAnyCpu = -1;
class OnCpu {
public:
    explicit OnCpu(int cpu);
    ~OnCpu();
    OnCpu(const OnCpu&) = delete;
    OnCpu& operator=(const OnCpu&) = delete;

private:
    cpu_set_t mBefore;
};

// Ends the process, with errno's text, where a step of the measurement itself fails: no figure is better than a false
// one.
void require(bool condition, const char* what);

// A process that is ended with SIGTERM, and waited for, at the latest by the destructor.
class Process {
public:
    // Runs a function in a child, which ends with it. The function gets a descriptor for tellReady, and another for
    // waitForEnd.
    using Server = std::function<void(int ready, int end)>;
    // Returns when the child is ready. said: where its byte goes.
    static Process fork(const Server& server, char* said = nullptr);

    // Starts a program. readyWhen: a text on its standard error to wait for; "" doesn't wait.
    static Process start(std::vector<std::string> command, const std::string& readyWhen = "");

    Process(Process&& other) noexcept;
    Process& operator=(Process&&) = delete;
    ~Process();

    pid_t pid() const { return mPid; }
    // Waits until it ends by itself. Returns its exit code, -1 when a signal ended it.
    int wait();
    // Ends it with SIGKILL, so that it leaves everything as it stands.
    void kill();
    double residentKiB() const;

private:
    Process(pid_t pid, int descriptor) : mPid(pid), mDescriptor(descriptor) {}

    pid_t mPid;
    int mDescriptor;  // the pipe of its end, or of its standard error; -1
};

// While the object lives, programs that are started find these libraries first; "": those of this process.
class WithLibraries {
public:
    explicit WithLibraries(const std::string& folder);
    ~WithLibraries();
    WithLibraries(const WithLibraries&) = delete;
    WithLibraries& operator=(const WithLibraries&) = delete;

private:
    const std::optional<std::string> mBefore;
};

// Says on standard output what is left out where the program isn't installed.
bool isInstalled(const std::string& program);

// The configuration of a message broker that starts no services and allows everything. socket: where it listens.
std::string brokerConfig(const std::string& socket);

// So many may be open, and some more.
void allowDescriptors(int count);

// Of a server: it can be used now. said: what Process::fork gives its caller.
void tellReady(int ready, char said = 'r');
// Returns when nobody holds the other end of the pipe any more.
void waitForEnd(int end);

}  // namespace bench
