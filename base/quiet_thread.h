// A thread of the library's own, which the host's signals never run on: they go to the host's own threads.
#pragma once

#include <pthread.h>

#include <csignal>
#include <thread>
#include <utility>

namespace sd {

// Those that tell of a fault of the thread itself stay open to the host's handlers.
// name: at most 15 bytes, for whoever looks at the process. Raises std::system_error where there can be no thread.
template <class Body>
std::thread startQuietThread(const char* name, Body body) {
    class SignalsBlocked {
    public:
        SignalsBlocked() {
            sigset_t blocked;
            ::sigfillset(&blocked);
            for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
                ::sigdelset(&blocked, fault);
            ::pthread_sigmask(SIG_SETMASK, &blocked, &mBefore);
        }
        ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &mBefore, nullptr); }
        SignalsBlocked(const SignalsBlocked&) = delete;
        SignalsBlocked& operator=(const SignalsBlocked&) = delete;

    private:
        sigset_t mBefore{};
    };
    const SignalsBlocked blocked;  // the new thread takes over its creator's mask
    std::thread thread(std::move(body));
    ::pthread_setname_np(thread.native_handle(), name);
    return thread;
}

}  // namespace sd
