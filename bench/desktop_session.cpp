#include "bench/desktop_session.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace bench {

namespace {

constexpr char kDconfService[] = "/usr/libexec/dconf-service";

}  // namespace

std::optional<DesktopSession> DesktopSession::start(const Workplace& place, const std::string& name) {
    if (!isInstalled("dbus-daemon") || !isInstalled("gdbus")) return std::nullopt;
    return DesktopSession(place.path(name));
}

DesktopSession::DesktopSession(const std::string& folder) : mFolder(folder) {
    std::filesystem::create_directories(folder + "/data/keyrings");
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all);
    const std::string socket = folder + "/bus";
    mEnvironment = {"HOME=" + folder,
                    "XDG_DATA_HOME=" + folder + "/data",
                    "XDG_CONFIG_HOME=" + folder + "/config",
                    "XDG_CACHE_HOME=" + folder + "/cache",
                    "XDG_RUNTIME_DIR=" + folder,
                    "DBUS_SESSION_BUS_ADDRESS=unix:path=" + socket};
    std::ofstream(folder + "/bus.conf") << brokerConfig(socket);
    mProcesses.push_back(Process::start(
        command({"dbus-daemon", "--nofork", "--config-file=" + folder + "/bus.conf", "--print-address=2"}),
        "unix:path"));
}

void DesktopSession::join() const {
    for (const std::string& variable : mEnvironment) {
        const std::size_t equals = variable.find('=');
        ::setenv(variable.substr(0, equals).c_str(), variable.c_str() + equals + 1, 1);
    }
}

bool DesktopSession::startKeyring() {
    if (!isInstalled("gnome-keyring-daemon")) return false;
    std::ofstream(mFolder + "/data/keyrings/default") << "login";  // the one that unlocking makes
    std::ofstream(mFolder + "/password") << "bench";
    startOwner("org.freedesktop.secrets",
               {"sh", "-c", "exec gnome-keyring-daemon --unlock --components=secrets --foreground < \"$0\" 2>/dev/null",
                mFolder + "/password"});
    return true;
}

bool DesktopSession::startDconf() {
    if (!isInstalled(kDconfService)) return false;
    startOwner("ca.desrt.dconf", {kDconfService});
    return true;
}

std::vector<std::string> DesktopSession::command(std::initializer_list<std::string> words) const {
    std::vector<std::string> command{"env"};
    command.insert(command.end(), mEnvironment.begin(), mEnvironment.end());
    command.insert(command.end(), words);
    return command;
}

// Returns when the program has the name on the bus.
void DesktopSession::startOwner(const std::string& busName, std::initializer_list<std::string> words) {
    mProcesses.push_back(Process::start(command(words)));
    Process waiting = Process::start(command({"gdbus", "wait", "--session", "--timeout", "10", busName}));
    require(waiting.wait() == 0, busName.c_str());
}

}  // namespace bench
