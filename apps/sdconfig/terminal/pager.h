// What may be longer than a screen, at a terminal.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <array>
#include <optional>
#include <string>

#include "apps/common/descriptor.h"
#include "apps/sdconfig/terminal/signal_pipe.h"

namespace cli {

// For the life of the object what is printed goes through the user's pager, where standard output is a terminal:
// $PAGER, which the shell runs, or less; "" and "cat" are none. Who came by sudo or pkexec gets a less that starts no
// other program. The object waits for the pager to end, so that it and the shell behind us don't read the same keys.
class Pager {
public:
    Pager();
    ~Pager();
    Pager(const Pager&) = delete;
    Pager& operator=(const Pager&) = delete;

    // Whether nobody reads on, or a signal wants an end, which takes effect with that of the object.
    bool isOver() const;

private:
    void start(const std::string& command);

    // A Ctrl-C is the pager's: it stops what that is doing, and ends it or not.
    static constexpr std::array kIgnored{SIGINT, SIGQUIT, SIGPIPE};

    std::optional<SignalPipe> mSignals;
    std::array<struct sigaction, kIgnored.size()> mOld{};
    pid_t mProcess = 0;          // 0: there is none
    apps::Descriptor mTerminal;  // what standard output was
};

}  // namespace cli
