// Runs a command of the user's for each change, one at a time, in order.
#pragma once

#include <sys/types.h>

#include <string>

#include "apps/sdconfig/watch/change_queue.h"

namespace cli {

// "sh -c COMMAND" with SDCONFIG_KEY and SDCONFIG_VALUE in its environment, an empty standard input, and a process group
// of its own, so that a Ctrl-C does not cut it off. What goes wrong is noted on standard error.
class CommandRunner {
public:
    explicit CommandRunner(std::string command) : mCommand(std::move(command)) {}  // "": runs nothing
    ~CommandRunner();
    CommandRunner(const CommandRunner&) = delete;
    CommandRunner& operator=(const CommandRunner&) = delete;

    void add(const Change& change);

    // Deals with a command that has ended, and starts the next one.
    void proceed();

    // Readable when the running command has ended; -1 while none runs.
    int descriptor() const { return mEnded; }

    // Gives the running command a few seconds to end and then ends it; what waits is not run any more.
    void finish();

private:
    void start(const Change& change);
    bool reap(int options);

    const std::string mCommand;
    ChangeQueue mWaiting;
    pid_t mRunning = 0;
    int mEnded = -1;
};

}  // namespace cli
