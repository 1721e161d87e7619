#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "apps/common/escaped.h"
#include "apps/sdconfig/doctor/doctor_checks.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/acting_user.h"
#include "apps/sdconfig/terminal/messages.h"

namespace cli {

namespace {

constexpr mode_t kOthers = S_IRWXG | S_IRWXO;
constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;

constexpr char kFolder[] = "runtime folder";
constexpr char kSocket[] = "socket";
constexpr char kService[] = "service";

bool isFolder(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Why the path is no folder of this user's; "" where it is.
std::string notOurs(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return path + ": " + std::strerror(errno);
    if (!S_ISDIR(status.st_mode)) return path + " is no folder";
    return status.st_uid == ::geteuid() ? "" : path + " belongs to user " + std::to_string(status.st_uid);
}

bool isOpenTo(mode_t others, const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && (status.st_mode & others) != 0;
}

// The folder of the sockets, which the service makes.
Check checkSocketFolder(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0 && errno == ENOENT)
        return {kFolder, path + " is not there yet; the service makes it", ""};
    const std::string foreign = S_ISLNK(status.st_mode) ? path + " is a symbolic link" : notOurs(path);
    if (!foreign.empty()) return {kFolder, foreign, "remove it; the service makes a new one"};
    if (isOpenTo(kOthers, path)) return {kFolder, "others may get at " + path, "chmod 700 " + apps::shellWord(path)};
    return {kFolder, path, ""};
}

Check checkRuntimeFolder() {
    const std::string user = std::to_string(::geteuid());
    const char* const variable = std::getenv("XDG_RUNTIME_DIR");
    const std::string runtime = variable ? variable : "";
    if (runtime.empty()) {
        const std::string session = "/run/user/" + user;
        const std::string without = "/tmp/sdbus-" + user;
        return checkSocketFolder(isFolder(session) && !isFolder(without) ? session + "/sdbus" : without);
    }
    std::string problem = runtime[0] == '/' ? notOurs(runtime) : "XDG_RUNTIME_DIR is no absolute path";
    if (problem.empty() && isOpenTo(kOthersWrite, runtime))
        return {kFolder, "others may write to " + runtime, "chmod 700 " + apps::shellWord(runtime)};
    if (problem.empty()) return checkSocketFolder(runtime + "/sdbus");
    const std::string owner = ownerOfRuntimeFolder();
    if (!owner.empty())
        return {kFolder, problem, "act as that user with: sdconfig --user " + apps::shellWord(owner) + " doctor"};
    return {kFolder, problem, "set XDG_RUNTIME_DIR to a folder of yours that has mode 0700"};
}

Check checkSocket(const std::string& path, const struct stat& status, bool listening) {
    if (!S_ISSOCK(status.st_mode)) return {kSocket, path + " is no socket", "move it away"};
    if (status.st_uid != ::geteuid() && status.st_uid != 0)
        return {kSocket, path + " belongs to user " + std::to_string(status.st_uid), "rm " + apps::shellWord(path)};
    if (status.st_mode & kOthers) return {kSocket, "others may get at " + path, "chmod 600 " + apps::shellWord(path)};
    if (!listening)
        return {kSocket, path + " was left by a service that was killed; the next one replaces it", howToStart(),
                Turn::Last};
    return {kSocket, path, ""};
}

Check checkService(const Service& service, const Probe& probe) {
    if (!probe.listening) return {kService, "it is not running", howToStart(), Turn::Last};
    const int id = service.processId();
    const std::string process = id > 0 ? "process " + std::to_string(id) : "whoever listens there";
    if (!probe.answered) return {kService, process + " " + probe.how.what, probe.how.next};
    return {kService, process + " answers in " + std::to_string(probe.roundTrip.count()) + " us", ""};
}

}  // namespace

Checks checkBus(const Service& service, const Probe& probe) {
    Checks checks{checkRuntimeFolder()};
    checks.front().turn = Turn::First;
    const std::string path = service.socketPath();
    struct stat status {};
    if (!path.empty() && ::lstat(path.c_str(), &status) == 0)
        checks.push_back(checkSocket(path, status, probe.listening));
    checks.push_back(checkService(service, probe));
    return checks;
}

}  // namespace cli
