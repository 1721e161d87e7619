#include "apps/sdconfig/terminal/secret_input.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "apps/sdconfig/terminal/signal_pipe.h"

namespace cli {

namespace {

// The largest value that the service is made for.
constexpr std::size_t kMaxSecretBytes = 16u << 20;
// The longest line of a pipe or a file.
constexpr std::size_t kMaxLineBytes = 64u << 10;
// What the kernel's line editing takes of one line; it drops the rest without a word.
constexpr std::size_t kMaxTerminalLine = 4095;

constexpr char kRepeat[] = "repeat it";

SecretInput problem(const std::string& text, const std::string& next = kRepeat) {
    return {"", text, next};
}

SecretInput systemProblem(const std::string& what) {
    return problem(what + ": " + std::strerror(errno));
}

SecretInput withoutFinalNewline(std::string text) {
    if (text.empty()) return problem("nothing came on standard input", "an empty value is given as \"\"");
    if (text.back() == '\n') text.pop_back();
    return {std::move(text), "", ""};
}

SecretInput readToEnd(int descriptor) {
    std::string text;
    std::array<char, 65536> buffer;
    for (;;) {
        const ssize_t count = ::read(descriptor, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return systemProblem("standard input can't be read");
        if (count == 0) return withoutFinalNewline(std::move(text));
        text.append(buffer.data(), static_cast<std::size_t>(count));
        if (text.size() > kMaxSecretBytes + 1)
            return problem("the value is longer than 16 MiB", "keep it in a file, and its key here");
    }
}

// Byte by byte: what stands behind the line is the next reader's.
SecretInput readFirstLine(int descriptor) {
    std::string line;
    line.reserve(kMaxLineBytes + 1);  // a string that grew would leave pieces of the secret in memory
    while (line.size() <= kMaxLineBytes) {
        char byte = 0;
        const ssize_t count = ::read(descriptor, &byte, 1);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return systemProblem("standard input can't be read");
        if (count > 0) line += byte;
        if (count == 0 || byte == '\n') return withoutFinalNewline(std::move(line));
    }
    return problem("the first line is longer than 64 KiB", "take a shorter one");
}

// The terminal without echo, for the life of the object.
class HiddenEcho {
public:
    explicit HiddenEcho(int terminal) : mTerminal(terminal) {
        if (::tcgetattr(terminal, &mShown) != 0) return;
        struct termios hidden = mShown;
        hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHOE | ECHOK | ECHONL);
        hidden.c_lflag |= ICANON | ISIG;
        mHiding = ::tcsetattr(terminal, TCSAFLUSH, &hidden) == 0;
    }
    ~HiddenEcho() {
        if (mHiding) ::tcsetattr(mTerminal, TCSADRAIN, &mShown);
    }
    HiddenEcho(const HiddenEcho&) = delete;
    HiddenEcho& operator=(const HiddenEcho&) = delete;

    bool hiding() const { return mHiding; }

private:
    const int mTerminal;
    struct termios mShown {};
    bool mHiding = false;
};

void say(const std::string& text) {
    (void)!::write(STDERR_FILENO, text.data(), text.size());
}

enum class LineEnd { Complete, Signal, Failed };

// Appends what is typed to `line` until its newline, the end of input, or a signal.
LineEnd readLine(int terminal, int signals, std::string& line) {
    std::array<pollfd, 2> sources{{{signals, POLLIN, 0}, {terminal, POLLIN, 0}}};
    std::array<char, kMaxTerminalLine + 1> buffer;
    for (;;) {
        if (::poll(sources.data(), sources.size(), -1) < 0 && errno != EINTR) return LineEnd::Failed;
        if (sources[0].revents != 0) return LineEnd::Signal;
        if (sources[1].revents == 0) continue;
        const ssize_t count = ::read(terminal, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return LineEnd::Failed;
        line.append(buffer.data(), static_cast<std::size_t>(count));
        ::explicit_bzero(buffer.data(), buffer.size());
        if (count == 0 || line.back() == '\n' || line.size() > kMaxTerminalLine) return LineEnd::Complete;
    }
}

// One prompt. The prompt comes after the echo went off: who sees it may type.
LineEnd promptForLine(int terminal, int signals, const std::string& prompt, std::string& line) {
    const HiddenEcho echo(terminal);
    if (!echo.hiding()) return LineEnd::Failed;
    say(prompt);
    const LineEnd end = readLine(terminal, signals, line);
    say("\n");
    return end;
}

SecretInput readFromTerminal(int terminal, const std::string& prompt) {
    // Through a pipe, so that the terminal is restored before they take effect.
    SignalPipe signals({SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP});
    if (!signals.valid()) return systemProblem("no pipe for signals");
    std::string line;
    line.reserve(2 * kMaxTerminalLine);  // so that no piece of it is left behind
    LineEnd end;
    while ((end = promptForLine(terminal, signals.descriptor(), prompt, line)) == LineEnd::Signal) {
        line.clear();
        signals.deliver();
    }
    if (end == LineEnd::Failed) return systemProblem("the terminal can't be read without echo");
    if (line.size() >= kMaxTerminalLine)
        return problem("a terminal takes less than 4095 bytes a line", "send a longer value through a pipe");
    return withoutFinalNewline(std::move(line));
}

}  // namespace

SecretInput readSecret(const std::string& prompt) {
    return ::isatty(STDIN_FILENO) ? readFromTerminal(STDIN_FILENO, prompt) : readToEnd(STDIN_FILENO);
}

SecretInput readSecretLine(const std::string& prompt) {
    return ::isatty(STDIN_FILENO) ? readFromTerminal(STDIN_FILENO, prompt) : readFirstLine(STDIN_FILENO);
}

}  // namespace cli
