// Keeps clients from flooding the log.
#pragma once

#include <chrono>

namespace sdbus {

// Lets a burst of lines through, then none until the period is over. One thread at a time.
class LogLimiter {
public:
    // dropped: how many lines were held back since the last one that was let through.
    bool allow(unsigned& dropped) {
        const auto now = std::chrono::steady_clock::now();
        if (now - mPeriodBegan >= kPeriod) {
            mPeriodBegan = now;
            mLines = 0;
        }
        if (++mLines > kBurst) {
            ++mDropped;
            return false;
        }
        dropped = mDropped;
        mDropped = 0;
        return true;
    }

private:
    static constexpr unsigned kBurst = 20;
    static constexpr std::chrono::seconds kPeriod{10};

    std::chrono::steady_clock::time_point mPeriodBegan{};
    unsigned mLines = 0;
    unsigned mDropped = 0;
};

}  // namespace sdbus
