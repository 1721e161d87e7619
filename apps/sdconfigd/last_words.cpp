// The end by an exception that nobody can catch: one of the start or the end of the process, when memory runs out
// there. It is told like any other, and is no crash.
#include <unistd.h>

#include <cstring>
#include <exception>

namespace {

void say(const char* text) {
    (void)!::write(STDERR_FILENO, text, std::strlen(text));
}

[[noreturn]] void endWithLastWords() {
    say("sdconfigd: ended, since it could not go on: ");
    try {
        if (const auto reason = std::current_exception()) std::rethrow_exception(reason);
        say("no reason is known");
    } catch (const std::exception& reason) {
        say(reason.what());
    } catch (...) {
        say("the reason is of an unknown kind");
    }
    say("\n");
    ::_exit(1);
}

void prepareLastWords() {
    std::set_terminate(endWithLastWords);
}

// Before all libraries, whose own beginning may need memory, too.
[[gnu::section(".preinit_array"), gnu::used]] void (*const sPrepare)() = prepareLastWords;

}  // namespace
