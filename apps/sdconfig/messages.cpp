#include "apps/sdconfig/messages.h"

#include <unistd.h>

#include <string_view>

namespace cli {

namespace {

// A key or a path is told whole in all sane cases; a line for a person ends somewhere.
constexpr std::size_t kMaxQuoted = 200;
constexpr std::size_t kMaxLine = 2000;

constexpr char kHowToStart[] = "start it with: systemctl --user start sdconfigd, or: sdconfigd";
constexpr char kSeeItsLog[] = "its log tells why: journalctl --user -u sdconfigd";

std::string cut(std::string_view text, std::size_t most) {
    return text.size() <= most ? std::string(text) : std::string(text.substr(0, most)) + "...";
}

// In one write, so that lines of several processes don't mix. Where standard error itself is gone nobody can be told.
void printLine(const std::string& text) {
    const std::string line = "sdconfig: " + cut(escaped(text), kMaxLine) + "\n";
    (void)!::write(STDERR_FILENO, line.data(), line.size());
}

int failUse(const std::string& command, const std::string& happened, const std::string& hint) {
    const std::string space = command.empty() ? "" : " ";
    return fail(kUsage, command.empty() ? "reading the command line" : command, happened,
                hint + "see: sdconfig" + space + command + " --help");
}

bool readOnly(const std::string& key) {
    return key.compare(0, 3, "ro.") == 0;
}

}  // namespace

int fail(ExitCode code, const std::string& tried, const std::string& happened, const std::string& next) {
    printLine(tried + ": " + happened + "; " + next);
    return code;
}

std::string escaped(const std::string& text) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7f) {
            out += c;
        } else {
            out += "\\x";
            out += kHex[byte >> 4];
            out += kHex[byte & 15];
        }
    }
    return out;
}

void note(const std::string& text) {
    printLine("note: " + text);
}

std::string quoted(const std::string& text) {
    return '"' + cut(escaped(text), kMaxQuoted) + '"';
}

std::string attempt(const Request& request) {
    return request.key.empty() ? request.command : request.command + " " + quoted(request.key);
}

int notRunning(const std::string& tried, const std::string& socketPath) {
    if (socketPath.empty())
        return fail(kNoService, tried, "there is no fit runtime folder to look for the service in",
                    "set XDG_RUNTIME_DIR to a folder that is yours and has mode 0700");
    return fail(kNoService, tried, "the service is not running (nothing listens on " + socketPath + ")", kHowToStart);
}

int noAnswer(const std::string& tried, const std::string& how, const std::string& socketPath) {
    return fail(kNoService, tried, "the service on " + socketPath + " " + how,
                "restart it with: systemctl --user restart sdconfigd");
}

int callUnanswered(const std::string& tried) {
    return fail(kNoService, tried, "the service gave this call no answer, though it answers others", kSeeItsLog);
}

int unset(const Request& request) {
    const std::string setCommand = request.command == "get" ? "set" : "secure set";
    return fail(kRefused, attempt(request), "not set, or set to nothing",
                "give it a value with: sdconfig " + setCommand + " KEY VALUE");
}

int unsetHere(const Request& request) {
    return fail(kRefused, attempt(request), "no build.prop file that can be read here gives it a value",
                "leave out --local to ask the service, or name the product's folder with --product-dir");
}

int noSuchConst(const Request& request) {
    return fail(kRefused, attempt(request), "no such constant, or an empty one",
                "the service takes its constants from: sdconfigd --constants FILE");
}

int notSigned(const Request& request) {
    return fail(kRefused, attempt(request), "the service gave no signature", kSeeItsLog);
}

int setRefused(const Request& request) {
    if (readOnly(request.key))
        return fail(kRefused, attempt(request), "a key that begins with \"ro.\" is read-only once it has a value",
                    "see what it holds with: sdconfig get KEY");
    return fail(kRefused, attempt(request), "the service refused the value", kSeeItsLog);
}

int deleteRefused(const Request& request) {
    if (readOnly(request.key))
        return fail(kRefused, attempt(request), "a key that begins with \"ro.\" is read-only and can't be deleted",
                    "use a key without \"ro.\" for what has to change");
    return fail(kRefused, attempt(request), "it is not set", "there is nothing to delete; check the key's spelling");
}

int secureWriteRefused(const Request& request) {
    return fail(kRefused, attempt(request), "the service could not store it", kSeeItsLog);
}

int misused(const std::string& command, const std::string& happened) {
    return failUse(command, happened, "");
}

int unknownCommand(const std::string& command, const std::string& word) {
    return failUse(command, "there is no command " + quoted(word), "");
}

int unknownOption(const std::string& command, const std::string& option) {
    return failUse(command, "there is no option " + quoted(option),
                   "put -- before a key or a value that begins with a dash, or ");
}

int tooManyArguments(const std::string& command) {
    return failUse(command, "too many arguments", "put a value that holds blanks in quotation marks, or ");
}

int emptyName(const Request& request, const std::string& argument) {
    return failUse(request.command, argument + " is empty", "");
}

int unfitSecret(const Request& request, const std::string& problem) {
    return fail(kUsage, attempt(request), problem, "nothing was changed; see: sdconfig secure set --help");
}

void noteReencoding() {
    note("the value has bytes outside ASCII: each of them reads back as two");
}

int notPrinted(const std::string& reason) {
    return fail(kRefused, "printing the result", reason, "check where standard output goes");
}

}  // namespace cli
