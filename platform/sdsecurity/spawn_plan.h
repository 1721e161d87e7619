// How another program is started.
#pragma once

#include <spawn.h>
#include <sys/types.h>

#include <csignal>

namespace sd::security {

// Its signals are as they are by default, and none is blocked. Where a part of the plan finds no memory, nothing is
// started: the program would have this process's own input and output.
class SpawnPlan {
public:
    // flags: POSIX_SPAWN_SETSID, or none.
    explicit SpawnPlan(int flags = 0) {
        demand(posix_spawn_file_actions_init(&mFiles));
        posix_spawnattr_init(&mAttributes);
        posix_spawnattr_setflags(&mAttributes,
                                 static_cast<short>(flags | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF));
        sigset_t signals;
        ::sigemptyset(&signals);
        posix_spawnattr_setsigmask(&mAttributes, &signals);
        ::sigfillset(&signals);
        posix_spawnattr_setsigdefault(&mAttributes, &signals);
    }
    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&mFiles);
        posix_spawnattr_destroy(&mAttributes);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    // What it has open, in this order. own: of this process.
    void give(int own, int its) { demand(posix_spawn_file_actions_adddup2(&mFiles, own, its)); }
    void open(int its, const char* path, int how) {
        demand(posix_spawn_file_actions_addopen(&mFiles, its, path, how, 0));
    }
    void closeFrom(int first) { demand(posix_spawn_file_actions_addclosefrom_np(&mFiles, first)); }

    // Returns 0, or an errno: what kept it from running.
    int run(const char* const* arguments, const char* const* environment, pid_t& process) const {
        if (mProblem != 0) return mProblem;
        return ::posix_spawn(&process, arguments[0], &mFiles, &mAttributes, const_cast<char* const*>(arguments),
                             const_cast<char* const*>(environment));
    }

private:
    void demand(int problem) {
        if (mProblem == 0) mProblem = problem;
    }

    posix_spawn_file_actions_t mFiles{};
    posix_spawnattr_t mAttributes{};
    int mProblem = 0;  // the first one
};

}  // namespace sd::security
