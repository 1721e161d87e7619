// A service as a process of its own, for startService().
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iostream>

#include "tests/platform/sdbus_support.h"

int main() {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    if (const char* handedOver = std::getenv("TEST_LISTEN_AT")) {
        if (::dup2(test::listenAt(handedOver), 3) != 3) return 1;
        ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
        ::setenv("LISTEN_FDS", "1", 1);
        const test::TestService first;  // what was handed over is there for the next one, too
    }
    static auto* const sService = new test::TestService;  // unregistered by exit()
    std::cerr << (sService->isRegistered() ? "serving" : test::bus().registrationFailure(test::kService)) << std::endl;
    int signal = 0;
    sigwait(&ends, &signal);
}
