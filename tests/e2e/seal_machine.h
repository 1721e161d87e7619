// sdconfig-seal as systemd starts it: a process for each connection.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "tests/support/process.h"
#include "tests/support/support.h"

namespace test {

inline std::string readToEnd(int socket) {
    std::string all;
    char buffer[4096];
    for (ssize_t count; (count = ::read(socket, buffer, sizeof buffer)) > 0;)
        all.append(buffer, static_cast<std::size_t>(count));
    return all;
}

// Runs a program for each connection, with the connection as its standard input and output.
class Listener {
public:
    explicit Listener(const std::vector<std::string>& program, const Environment& environment = {},
                      const std::vector<std::string>& before = {})
        : mProcess(Process::start(arguments(program, environment, before))) {
        mProcess.waitForErr("Listening on ");
        ::chmod(path().c_str(), 0666);
    }
    std::string path() const { return mFolder / "seal"; }
    std::string log() const { return mProcess.err(); }
    bool logs(const std::string& text) { return mProcess.waitForErr(text); }

    // What comes back for these bytes, when no more follow.
    std::string answerTo(const std::string& bytes) const {
        const sd::UniqueFd socket(connectTo(path()));
        EXPECT_TRUE(socket) << path();
        (void)::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        ::shutdown(socket.get(), SHUT_WR);
        return readToEnd(socket.get());
    }

private:
    std::vector<std::string> arguments(const std::vector<std::string>& program, const Environment& environment,
                                       std::vector<std::string> all) const {
        ::chmod(mFolder.path().c_str(), 0777);
        all.insert(all.end(), {"systemd-socket-activate", "--accept", "--inetd", "--listen=" + path()});
        for (const auto& [name, value] : environment)
            all.emplace_back("--setenv=").append(name).append("=").append(value);
        all.insert(all.end(), program.begin(), program.end());
        return all;
    }

    TempDir mFolder;
    Process mProcess;
};

// sdconfig-seal of a machine whose key lies in the folder.
inline Listener machine(const TempDir& folder, const std::vector<std::string>& options = {}) {
    std::vector<std::string> program{SDCONFIG_SEAL};
    program.insert(program.end(), options.begin(), options.end());
    return Listener(program, {{"SYSTEMD_CREDENTIAL_SECRET", folder / "secret"}, {"RUNTIME_DIRECTORY", folder.path()}});
}

}  // namespace test
