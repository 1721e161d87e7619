#include "tests/torture/service_life.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

extern char** environ;  // NOLINT(readability-redundant-declaration): the headers need not have it

namespace torture {
namespace {

namespace fs = std::filesystem;

constexpr int kStartLimitMs = 20000;
constexpr int kEndLimitMs = 20000;

}  // namespace

pid_t spawn(const std::vector<std::string>& command, const std::vector<std::string>& variables, const std::string& log,
            const std::string& input, const std::string& output) {
    std::vector<char*> words, environment;
    for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    for (char** one = environ; *one; ++one) environment.push_back(*one);
    for (const std::string& one : variables) environment.push_back(const_cast<char*>(one.c_str()));
    environment.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    constexpr int kWritten = O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_addopen(&actions, 0, input.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), kWritten, 0600);
    posix_spawn_file_actions_adddup2(&actions, 2, 1);
    if (!output.empty()) posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), kWritten, 0600);
    pid_t process = 0;
    const int error = ::posix_spawn(&process, words[0], &actions, nullptr, words.data(), environment.data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw Failed(command[0] + ": " + std::strerror(error));
    return process;
}

std::string textOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

ServiceLife::ServiceLife(std::string place) : mPlace(std::move(place)) {
    fs::create_directories(mPlace + "/run");
    fs::permissions(mPlace + "/run", fs::perms::owner_all);
    ::setenv("XDG_RUNTIME_DIR", (mPlace + "/run").c_str(), 1);
    for (const char* const name : {"HOME", "XDG_DATA_HOME"}) ::setenv(name, mPlace.c_str(), 1);
    ::setenv("NOTIFY_SOCKET", (mPlace + "/notify").c_str(), 1);
    mNotify = sd::UniqueFd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, (mPlace + "/notify").c_str(), sizeof address.sun_path - 1);
    if (::bind(mNotify.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw Failed(std::string("the socket for \"ready\": ") + std::strerror(errno));
}

ServiceLife::~ServiceLife() {
    if (mService != 0) (void)end(SIGKILL);
    fs::remove_all(mPlace);
}

bool ServiceLife::start(const std::vector<std::string>& command, const std::vector<std::string>& variables) {
    if (mService != 0) (void)end(SIGKILL);  // what a check that failed left
    mService = spawn(command, variables, log());
    mEnded = sd::UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, mService, 0)));
    pollfd waits[] = {{mNotify.get(), POLLIN, 0}, {mEnded.get(), POLLIN, 0}};
    char text[256] = {};
    while (::poll(waits, 2, kStartLimitMs) > 0) {
        if (waits[1].revents != 0) return false;
        const ssize_t length = ::recv(mNotify.get(), text, sizeof text - 1, 0);
        text[std::max<ssize_t>(length, 0)] = 0;
        if (std::strstr(text, "READY=1")) return true;
    }
    throw Failed("the service neither starts nor ends: " + said());
}

bool ServiceLife::endsWithin(int milliseconds) const {
    pollfd wait{mEnded.get(), POLLIN, 0};
    return ::poll(&wait, 1, milliseconds) > 0;
}

int ServiceLife::end(int signal) {
    if (mService == 0) return 0;  // its end has failed before
    if (signal != 0) ::kill(mService, signal);
    pollfd wait{mEnded.get(), POLLIN, 0};
    const bool ended = ::poll(&wait, 1, kEndLimitMs) > 0;
    if (!ended) ::kill(mService, SIGABRT);
    int status = 0;
    ::waitpid(std::exchange(mService, 0), &status, 0);
    char text[256];
    while (::recv(mNotify.get(), text, sizeof text, MSG_DONTWAIT) > 0) continue;
    if (!ended) throw Failed("the service does not end: " + said());
    return status;
}

std::string ServiceLife::said() const {
    const std::string text = textOf(log());
    return text.size() > 6000 ? "..." + text.substr(text.size() - 6000) : text;
}

}  // namespace torture
