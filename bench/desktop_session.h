// A desktop session of its own, for the programs beside which the library is measured: a message bus, and what they
// need on it. Nothing of the real session and home is touched.
#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "bench/process.h"

namespace bench {

class DesktopSession {
public:
    // Nothing, and a line that says why, where dbus-daemon is not installed.
    static std::optional<DesktopSession> start(const Workplace& place, const std::string& name);

    // Makes the calling process, and those that it starts, part of the session.
    void join() const;

    // gnome-keyring, with its keyring made and unlocked; dconf's writer. False where it isn't installed.
    bool startKeyring();
    bool startDconf();

private:
    explicit DesktopSession(const std::string& folder);
    std::vector<std::string> command(std::initializer_list<std::string> words) const;
    void startOwner(const std::string& busName, std::initializer_list<std::string> words);

    std::string mFolder;
    std::vector<std::string> mEnvironment;  // NAME=value each
    std::vector<Process> mProcesses;
};

}  // namespace bench
