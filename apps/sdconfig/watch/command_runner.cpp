#include "apps/sdconfig/watch/command_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <vector>

#include "apps/sdconfig/terminal/messages.h"

namespace cli {

namespace {

constexpr char kKeyVariable[] = "SDCONFIG_KEY=";
constexpr char kValueVariable[] = "SDCONFIG_VALUE=";
constexpr int kEndGraceMs = 5000;

bool beginsWith(const char* text, const char* prefix) {
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

// Our own environment with the change in it.
std::vector<std::string> environmentFor(const Change& change) {
    std::vector<std::string> variables{kKeyVariable + change.key, kValueVariable + change.value};
    for (char** variable = ::environ; *variable; ++variable)
        if (!beginsWith(*variable, kKeyVariable) && !beginsWith(*variable, kValueVariable))
            variables.emplace_back(*variable);
    return variables;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

// How the process is started, for the life of the object.
class SpawnPlan {
public:
    SpawnPlan() {
        posix_spawn_file_actions_init(&mFiles);
        posix_spawn_file_actions_addopen(&mFiles, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawnattr_init(&mAttributes);
        posix_spawnattr_setflags(&mAttributes, POSIX_SPAWN_SETPGROUP);
        posix_spawnattr_setpgroup(&mAttributes, 0);
    }
    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&mFiles);
        posix_spawnattr_destroy(&mAttributes);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    // Returns 0, or an errno.
    int run(std::vector<std::string> arguments, std::vector<std::string> environment, pid_t& process) const {
        const std::vector<char*> argv = pointersTo(arguments);
        const std::vector<char*> envp = pointersTo(environment);
        return ::posix_spawn(&process, "/bin/sh", &mFiles, &mAttributes, argv.data(), envp.data());
    }

private:
    posix_spawn_file_actions_t mFiles{};
    posix_spawnattr_t mAttributes{};
};

std::string howItEnded(int status) {
    if (WIFSIGNALED(status)) return "was ended by signal " + std::to_string(WTERMSIG(status));
    return "ended with " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

CommandRunner::~CommandRunner() {
    finish();
}

void CommandRunner::add(const Change& change) {
    if (mCommand.empty()) return;
    if (!mWaiting.push(change))
        note("too many changes wait for their command: it is not run for one of " + quoted(change.key));
}

void CommandRunner::proceed() {
    if (mRunning != 0 && !reap(WNOHANG)) return;
    while (mRunning == 0) {
        const auto change = mWaiting.pop();
        if (!change) return;
        start(*change);
    }
}

void CommandRunner::start(const Change& change) {
    if (change.value.find('\0') != std::string::npos)
        return note("the command is not run for " + quoted(change.key) +
                    ": the value has a zero byte, which no variable can hold");
    const int problem = SpawnPlan().run({"sh", "-c", mCommand}, environmentFor(change), mRunning);
    if (problem != 0) {
        mRunning = 0;
        return note("the command is not run for " + quoted(change.key) + ": " + std::strerror(problem));
    }
    // glibc 2.36 declares pidfd_open for C alone. Close-on-exec by itself; without one, the next look tells.
    mEnded = static_cast<int>(::syscall(SYS_pidfd_open, mRunning, 0));
}

// Whether the command has ended.
bool CommandRunner::reap(int options) {
    int status = 0;
    pid_t ended = 0;
    do ended = ::waitpid(mRunning, &status, options);
    while (ended < 0 && errno == EINTR);
    if (ended == 0) return false;
    if (ended > 0 && status != 0) note("the command " + howItEnded(status));
    if (mEnded >= 0) ::close(mEnded);
    mEnded = -1;
    mRunning = 0;
    return true;
}

void CommandRunner::finish() {
    if (mWaiting.size() > 0)
        note("changes that the command is not run for any more: " + std::to_string(mWaiting.size()));
    mWaiting = ChangeQueue();
    if (mRunning == 0) return;
    pollfd ended{mEnded, POLLIN, 0};
    ::poll(&ended, 1, kEndGraceMs);
    if (reap(WNOHANG)) return;
    ::kill(-mRunning, SIGKILL);
    reap(0);
}

}  // namespace cli
