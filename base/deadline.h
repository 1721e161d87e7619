// A point in time by which something has to be done, on the clock that nobody sets.
#pragma once

#include <chrono>
#include <climits>

namespace sd {

class Deadline {
public:
    explicit Deadline(std::chrono::milliseconds limit) : mAt(Clock::now() + limit) {}

    bool hasPassed() const { return Clock::now() >= mAt; }

    // For poll(): rounded up, so that it does not spin through the last millisecond.
    int millisecondsLeft() const {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(mAt - Clock::now()).count();
        if (left <= 0) return 0;
        return left > INT_MAX ? INT_MAX : static_cast<int>(left);
    }

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point mAt;
};

}  // namespace sd
