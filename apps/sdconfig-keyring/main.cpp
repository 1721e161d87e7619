// sdconfig-keyring: keeps keys in the login keyring for the process that started it, and ends with that one or when it
// closes the input. It is a program of its own so that nothing else loads GLib.
#include <sys/prctl.h>

#include <csignal>
#include <cstdio>

#include "apps/sdconfig-keyring/conversation.h"

namespace {

enum ExitCode { kEnded = 0, kFailed = 1, kWrongUse = 2 };

}  // namespace

int main(int argc, char** /*argv*/) {
    if (argc > 1) {
        std::fputs("sdconfig-keyring: takes no arguments; the service starts it, to ask the login keyring\n", stderr);
        return kWrongUse;
    }
    ::prctl(PR_SET_DUMPABLE, 0);  // neither a core dump nor a debugger of the same user
    std::signal(SIGPIPE, SIG_IGN);
    return keyring::Conversation().run() ? kEnded : kFailed;
}
