// Signals as bytes of a pipe.
#pragma once

#include <signal.h>

#include <array>
#include <vector>

namespace cli {

// For the life of the object the signals come through the pipe instead of taking effect. Handlers, not a blocked mask:
// the mask would leave the signals to any other thread of the process. A signal that whoever started us had ignored
// (nohup) stays ignored. One object at a time.
class SignalPipe {
public:
    explicit SignalPipe(std::vector<int> signals);
    ~SignalPipe();
    SignalPipe(const SignalPipe&) = delete;
    SignalPipe& operator=(const SignalPipe&) = delete;

    bool valid() const { return mEnds[0] >= 0; }
    int descriptor() const { return mEnds[0]; }  // readable when a signal has come

    // Lets the signal do what it would have done. Comes back after a stop that was continued.
    void deliver();

private:
    static void onSignal(int signal);
    void install(std::size_t i);
    void restore(std::size_t i);

    static volatile sig_atomic_t sWriteEnd;

    const std::vector<int> mSignals;
    std::array<int, 2> mEnds{-1, -1};
    std::vector<struct sigaction> mOld;
};

}  // namespace cli
