// A world of its own for a test of real processes: folders, a runtime directory, a service and its clients.
#pragma once

#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/support.h"

namespace test {

class Sandbox : public ::testing::Test {
protected:
    Sandbox() {
        for (const char* folder : {"run", "home", "data", "product", "etc"})
            std::filesystem::create_directory(mFolder / folder);
        std::filesystem::permissions(mFolder / "run", std::filesystem::perms::owner_all);
        writeFile(mFolder / "constants", "");
    }

    std::string path(const std::string& name) const { return mFolder / name; }
    std::string socketPath() const { return path("run/sdbus/sdconfig"); }

    Environment environment() const {
        return {{"XDG_RUNTIME_DIR", path("run")}, {"HOME", path("home")}, {"XDG_DATA_HOME", path("home")}};
    }

    // Starts the service on the sandbox's folders and waits until it serves.
    // Its build.prop is path("etc/build.prop"), its constants are path("constants"): write them before.
    Process startService(const std::vector<std::string>& options = {}) const {
        std::vector<std::string> arguments{SDCONFIGD,       "--data-dir",  path("data"),     "--product-dir",
                                           path("product"), "--constants", path("constants")};
        arguments.insert(arguments.end(), options.begin(), options.end());
        Process service = Process::start(arguments, environment());
        EXPECT_TRUE(service.waitForErr("sdconfigd: ready on ")) << service.err();
        return service;
    }

    static std::vector<std::string> cliCommand(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), SDCONFIG_CLI);
        return arguments;
    }

    Result cli(const std::vector<std::string>& arguments, const std::string& input = "") const {
        return run(cliCommand(arguments), environment(), input);
    }

    // One line that tells why.
    static void expectRefusal(const Result& result, const std::string& told, int exitCode = 1) {
        EXPECT_EQ(result.exitCode, exitCode) << told << ": " << result.out;
        EXPECT_THAT(result.err, testing::HasSubstr(told));
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }

    // Another program that runs a command on a database, and keeps its connection and what it locked until release().
    Process hold(const std::string& database, const std::string& sql) const {
        const std::string commands = "{ echo '" + sql + ";'; echo '.shell echo held >&2'; ";
        const std::string wait = "while [ ! -e " + path("released") + " ]; do sleep 0.02; done; }";
        Process holder = Process::start({"sh", "-c", commands + wait + " | sqlite3 " + database});
        EXPECT_TRUE(holder.waitForErr("held")) << holder.err();
        return holder;
    }
    void release() const { writeFile(path("released"), ""); }

    // A backup whose sum fits the lines that it has now.
    static std::string withItsSum(std::string backup) {
        const std::string lines = backup.substr(0, backup.find("\nsum ") + 1);
        return backup.replace(lines.size() + 4, 64, run({"sha256sum"}, {}, lines).out.substr(0, 64));
    }

    // Compares with a file of the tree. seen: where the text is left, to be copied there where all of it is meant.
    static void expectGolden(const std::string& golden, const std::string& seen, const std::string& text) {
        writeFile(seen, text);
        const Result difference = run({"diff", "-u", golden, seen}, {});
        EXPECT_EQ(difference.exitCode, 0)
            << difference.out << difference.err << "where all of this is meant: cp " << seen << " " << golden;
    }

    // Puts a small disk of this process's own in the place of a folder. size: as of mount(8).
    // False where that takes a privilege.
    bool mountDisk(const std::string& folder, const std::string& size) const {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            return false;
        return ::mount("none", path(folder).c_str(), "tmpfs", 0, ("mode=700,size=" + size).c_str()) == 0;
    }

private:
    const ScopedEnv mNoCredentials{"CREDENTIALS_DIRECTORY", nullptr};
    TempDir mFolder;
};

}  // namespace test
