// Long work that a signal ends, but not before it has cleaned up.
#pragma once

#include <poll.h>

#include <csignal>
#include <functional>

#include "apps/sdconfig/terminal/signal_pipe.h"

namespace cli {

// Stands before what has to be cleaned up, so that the signal takes effect after that is gone.
class Interruption {
public:
    Interruption() = default;
    ~Interruption() {
        if (came()) mSignals.deliver();
    }
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    // Asked now and then by the work, which then fails.
    bool came() const {
        pollfd signals{mSignals.descriptor(), POLLIN, 0};
        return mSignals.valid() && ::poll(&signals, 1, 0) > 0;
    }
    std::function<bool()> asked() const {
        return [this] { return came(); };
    }

private:
    SignalPipe mSignals{{SIGINT, SIGTERM, SIGHUP}};
};

}  // namespace cli
