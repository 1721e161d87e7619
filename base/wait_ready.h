// Waiting for a descriptor, with an end.
#pragma once

#include <poll.h>

#include <cerrno>

#include "base/deadline.h"

namespace sd {

// Until one of the events (of poll) is there, or its end; true then. False once the deadline has passed, or on failure.
inline bool isReadyBy(const Deadline& deadline, int descriptor, short events) {
    pollfd source{descriptor, events, 0};
    int ready = 0;
    do {
        ready = ::poll(&source, 1, deadline.millisecondsLeft());
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

}  // namespace sd
