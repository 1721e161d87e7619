// How this layer starts its threads.
#include "platform/sdbus/threads.h"

#include <pthread.h>
#include <signal.h>

#include <system_error>

#include "platform/sdbus/log.h"

namespace sdbus {
namespace {

constexpr char kSource[] = "platform/sdbus/threads";

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

}  // namespace

std::unique_ptr<std::thread> startThread(const char* name, std::function<void()> body) {
    const SignalsBlocked blocked;  // the new thread takes over its creator's mask
    try {
        auto thread = std::make_unique<std::thread>(std::move(body));
        ::pthread_setname_np(thread->native_handle(), name);
        return thread;
    } catch (const std::system_error& error) {
        LOG(7, AT "cannot start thread %s: %s", HERE, name, error.what());
        return nullptr;
    }
}

}  // namespace sdbus
