#include "apps/sdconfig/terminal/pager.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"

namespace cli {

namespace {

constexpr char kUsual[] = "less";

// What less and lv take unless the user has said otherwise: colours as they are, and an end at once where a screen
// does.
constexpr char kPreset[] = "export LESS=\"${LESS-FRX}\" LV=\"${LV--c}\"; ";
// Its user may do as somebody else what the rules of sudo allow, which is not whatever a pager can be told to start.
constexpr char kSecurePreset[] = "export LESS=FRX LESSSECURE=1; ";

const char* variable(const char* name) {
    const char* const value = std::getenv(name);
    return value ? value : "";
}

bool isProgram(const std::string& name) {
    std::istringstream folders(variable("PATH"));
    for (std::string folder; std::getline(folders, folder, ':');)
        if (::access(folder.append("/").append(name).c_str(), X_OK) == 0) return true;
    return false;
}

// Whether the shell would take the command's first word for a program by that name, and there is none.
bool isMissing(const std::string& command) {
    const std::string word = command.substr(0, command.find(' '));
    return word.find('/') == std::string::npos && shellWord(word) == word && word.find('=') == std::string::npos &&
           !isProgram(word);
}

// For the shell; "": none.
std::string chosen() {
    if (!isTerminal() || std::strcmp(variable("TERM"), "dumb") == 0) return "";
    const bool isSomebodyElse = *variable("SUDO_UID") || *variable("PKEXEC_UID");
    const char* const users = isSomebodyElse ? nullptr : std::getenv("PAGER");
    const std::string command = users ? users : kUsual;
    if (command.empty() || command == "cat") return "";
    if (!isMissing(command)) return (isSomebodyElse ? kSecurePreset : kPreset) + command;
    if (users) note("there is no program " + quoted(command) + ", which PAGER names");
    return "";
}

// Returns the process; 0 where none can be made.
pid_t spawnShell(std::string command, int input) {
    std::string shell = "sh";
    std::string option = "-c";
    const std::array arguments{shell.data(), option.data(), command.data(), static_cast<char*>(nullptr)};
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, input, STDIN_FILENO);
    pid_t process = 0;
    if (::posix_spawn(&process, "/bin/sh", &files, nullptr, arguments.data(), ::environ) != 0) process = 0;
    posix_spawn_file_actions_destroy(&files);
    return process;
}

}  // namespace

Pager::Pager() {
    if (const std::string command = chosen(); !command.empty()) start(command);
}

void Pager::start(const std::string& command) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return;
    const apps::Descriptor reading(ends[0]);
    const apps::Descriptor writing(ends[1]);
    mTerminal.reset(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
    if (!mTerminal) return;
    mProcess = spawnShell(command, reading.get());
    if (mProcess == 0) return;
    ::dup2(writing.get(), STDOUT_FILENO);
    mSignals.emplace(std::vector<int>{SIGTERM, SIGHUP});
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    for (std::size_t i = 0; i < kIgnored.size(); ++i) ::sigaction(kIgnored[i], &ignore, &mOld[i]);
}

Pager::~Pager() {
    if (mProcess == 0) return;
    ::dup2(mTerminal.get(), STDOUT_FILENO);  // that was the pipe's only end for writing: the pager learns of the end
    while (::waitpid(mProcess, nullptr, 0) < 0 && errno == EINTR) {
    }
    for (std::size_t i = 0; i < kIgnored.size(); ++i) ::sigaction(kIgnored[i], &mOld[i], nullptr);
    mSignals->deliver();
}

bool Pager::isOver() const {
    if (mProcess == 0) return false;
    std::array<pollfd, 2> ends{{{STDOUT_FILENO, 0, 0}, {mSignals->descriptor(), POLLIN, 0}}};
    return ::poll(ends.data(), ends.size(), 0) > 0;
}

}  // namespace cli
