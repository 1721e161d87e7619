#include "apps/sdconfig/terminal/signal_pipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace cli {

volatile sig_atomic_t SignalPipe::sWriteEnd = -1;

SignalPipe::SignalPipe(std::vector<int> signals) : mSignals(std::move(signals)), mOld(mSignals.size()) {
    if (::pipe2(mEnds.data(), O_CLOEXEC | O_NONBLOCK) != 0) return;
    sWriteEnd = mEnds[1];
    for (std::size_t i = 0; i < mSignals.size(); ++i) install(i);
}

SignalPipe::~SignalPipe() {
    if (!valid()) return;
    for (std::size_t i = 0; i < mSignals.size(); ++i) restore(i);
    ::close(mEnds[0]);
    ::close(mEnds[1]);
}

void SignalPipe::deliver() {
    unsigned char signal = 0;
    if (::read(mEnds[0], &signal, 1) != 1) return;
    for (std::size_t i = 0; i < mSignals.size(); ++i) {
        if (mSignals[i] != signal) continue;
        restore(i);
        ::raise(signal);
        install(i);
    }
}

void SignalPipe::onSignal(int signal) {
    const int savedErrno = errno;
    const auto byte = static_cast<unsigned char>(signal);
    (void)!::write(sWriteEnd, &byte, 1);
    errno = savedErrno;
}

void SignalPipe::install(std::size_t i) {
    ::sigaction(mSignals[i], nullptr, &mOld[i]);
    if (mOld[i].sa_handler == SIG_IGN) return;
    struct sigaction action {};
    action.sa_handler = onSignal;
    ::sigaction(mSignals[i], &action, nullptr);
}

void SignalPipe::restore(std::size_t i) {
    ::sigaction(mSignals[i], &mOld[i], nullptr);
}

}  // namespace cli
