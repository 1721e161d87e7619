// For the start of a thread, which takes over its creator's mask: the host's signals go to the host's own threads.
#pragma once

#include <csignal>

namespace sd::security {

class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        ::sigfillset(&all);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) ::sigdelset(&all, fault);
        ::pthread_sigmask(SIG_SETMASK, &all, &mBefore);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &mBefore, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t mBefore{};
};

}  // namespace sd::security
