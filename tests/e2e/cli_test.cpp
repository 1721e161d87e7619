// The command line against the real service: what it prints, where, and with which exit code.
#include <gmock/gmock.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <thread>

#include "platform/sdbus/sdbus.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "tests/e2e/sandbox.h"
#include "tests/support/arguments.h"

namespace test {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

constexpr int kDone = 0;
constexpr int kRefused = 1;
constexpr int kUsage = 2;
constexpr int kNoService = 3;

// One line "sdconfig: ...", and not a word about it on standard output.
void expectError(const Result& result, int exitCode, const std::string& told, const std::string& out = "") {
    EXPECT_EQ(result.exitCode, exitCode);
    EXPECT_THAT(result.err, AllOf(StartsWith("sdconfig: "), HasSubstr(told)));
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_EQ(result.out, out);
}

// Success, and nothing on standard error.
void expectOut(const Result& result, const std::string& out) {
    EXPECT_EQ(result.exitCode, kDone);
    EXPECT_EQ(result.out, out);
    EXPECT_EQ(result.err, "");
}

// Answers calls with nothing, or a number; those for a constant rightly, if told so.
class OtherVersion : public SDBusServiceInterface {
public:
    bool handleMethodCall(std::shared_ptr<SDBusMessage> call) override {
        const auto reply = makeMethodReplyMessage(call, SDBusSameUser);
        if (mKnowsConstants && call->methodName() == "GET_CONST")
            reply->appendString("");
        else if (mNumbers)
            reply->appendInt32(7);
        return sendMessage(reply);
    }

    std::atomic<bool> mKnowsConstants{false};
    std::atomic<bool> mNumbers{false};
};

// Has a plain key ring, which it wraps, and then its disk fails the sync of the folder.
class FailingDisk : public SDBusServiceInterface {
public:
    bool handleMethodCall(std::shared_ptr<SDBusMessage> call) override {
        const auto reply = makeMethodReplyMessage(call, SDBusSameUser);
        if (call->methodName() == "KEY_SLOTS")
            test::appendAll(*reply, static_cast<int>(Outcome::Done), static_cast<int>(RingState::Usable), "ring", 0);
        else if (call->methodName() == "KEY_PROTECT")
            test::appendAll(*reply, static_cast<int>(Outcome::NotStored), "it can't be synced");
        else
            reply->appendString("");
        return sendMessage(reply);
    }

private:
    using Outcome = sd::SDSecurity::SlotOutcome;
    using RingState = sd::SDSecurity::KeyRingState;
};

}  // namespace

class CliTest : public Sandbox {
protected:
    void expectDoctor(int exitCode, const std::string& line) const {
        const Result result = cli({"doctor"});
        EXPECT_EQ(result.exitCode, exitCode) << result.out;
        EXPECT_THAT(result.out, AllOf(HasSubstr(line), Not(HasSubstr("secret"))));
    }
};

TEST_F(CliTest, WhatActsOnATerminalIsEscapedThere) {
    const Process service = startService();
    for (const char* key : {"k", "\x1bk"})
        cli({"secure", "set", key, "\x1b[2J \xc2\x9b \xe2\x80\xae \xff gr\xc3\xbcn"});
    cli({"policy", "set", "\x1bk", "p\x7f", "3"});
    for (const auto& arguments : {std::vector<std::string>{"secure", "get", "k"},
                                  {"secure", "get", "k", "\x1bk"},
                                  {"list", "k", "\x1bk", "--show"},
                                  {"policy", "list"}}) {
        TerminalProcess terminal(cliCommand(arguments), environment());
        EXPECT_EQ(terminal.wait(), kDone);
        EXPECT_THAT(terminal.screen(), AllOf(Not(HasSubstr("\x1b")), Not(HasSubstr("\x7f")), Not(HasSubstr("\xff"))));
    }
    TerminalProcess terminal(cliCommand({"explain", "k", "--show"}), environment());
    EXPECT_TRUE(terminal.waitForScreen("\"\\x1b[2J \\xc2\\x9b \\xe2\\x80\\xae \\xff gr\xc3\xbcn\""));
}

TEST_F(CliTest, ActsForAnotherUserAsRootAlone) {
    if (::geteuid() != 0)
        return expectError(cli({"--user", "nobody", "status"}), kRefused, "only root may act as another");
    ASSERT_EQ(::chown(path("run").c_str(), 65534, 65534), 0);
    expectError(cli({"status"}), kNoService,
                "run belongs to user 65534, not to user 0); use the service of that user: repeat it with --user nobody",
                "not running\n");
    expectError(cli({"status", "--user", "nobody"}), kNoService, "runuser -u nobody -- sdconfigd", "not running\n");
    ASSERT_EQ(::chmod(path("").c_str(), 0711), 0);  // so that the folder can be reached, and stays
    EXPECT_THAT(cli({"status", "--user", "nobody"}).err,
                AllOf(HasSubstr("nothing listens on " + socketPath()), HasSubstr("sdconfig --user nobody doctor\n")));
    std::filesystem::create_directory(path("keys"));
    writeFile(path("keys/a.keys.json"), R"({"keys": {"a": {"type": "string", "pattern": "^[0-9]+$"}}})");
    EXPECT_THAT(cli({"--user", "nobody", "set", "a", "1", "--keys-dir", path("keys")}).err,
                AllOf(HasSubstr("not running"), Not(HasSubstr("left out"))));
    expectError(cli({"--user", "no one", "status"}), kUsage, "no such user");
}

TEST_F(CliTest, TellsAHungService) {
    const Process service = startService();
    service.kill(SIGSTOP);
    ::waitpid(service.pid(), nullptr, WUNTRACED);  // until it has taken effect on every thread
    Process status = Process::start(cliCommand({"status"}), environment());
    std::vector<Process> running;
    for (const char* command : {"get k", "set k secret", "delete k", "secure get k", "secure set k secret",
                                "secure delete k", "const k", "sign secret", "verify secret secret"}) {
        std::istringstream words(command);
        running.push_back(Process::start(cliCommand({std::istream_iterator<std::string>(words), {}}), environment()));
    }
    for (Process& process : running) {
        const int exitCode = process.wait();
        expectError({exitCode, process.out(), process.err()}, kNoService, "did not answer within 5 s");
        EXPECT_THAT(process.err(), AllOf(HasSubstr(socketPath()), Not(HasSubstr("secret"))));
    }
    EXPECT_EQ(status.wait(), kNoService);
    EXPECT_THAT(status.out(), StartsWith("running, not answering\n"));
    EXPECT_THAT(status.err(), HasSubstr("did not answer within 5 s"));
}

// Under the service's name something else may listen: another version, or no service at all.
TEST_F(CliTest, AnswersOfAnotherVersionAreNoAnswers) {
    const ScopedEnv runtime("XDG_RUNTIME_DIR", path("run").c_str());
    OtherVersion other;
    SDBusSerivceManager& bus = *SDBusSerivceManager::initSync(-1);
    ASSERT_TRUE(bus.registerServiceInterface("sdconfig", &other, SDBusSameUser, 1));
    writeFile(path("good.json"), "kept");
    const auto all = [this](const std::string& told) {
        for (const auto& command : {std::vector<std::string>{"get", "k"}, {"policy", "export", path("good.json")}})
            expectError(cli(command), kNoService, told);
        EXPECT_EQ(readFile(path("good.json")), "kept");
    };
    all("answers in a way that this version can't read");
    other.mKnowsConstants = true;
    expectError(cli({"policy", "export", path("good.json")}), kNoService, "none that this version can read");
    other.mNumbers = true;
    all("none that this version can read");
    EXPECT_THAT(cli({"status"}).out, AllOf(StartsWith("running\n"), Not(HasSubstr("key ring: "))));
    bus.unregisterServiceInterface("sdconfig");

    const int mute = listenAt(socketPath());
    std::thread hangUp([mute] {
        for (int peer = 0; (peer = ::accept(mute, nullptr, nullptr)) >= 0;) ::close(peer);
    });
    expectError(cli({"get", "k"}), kNoService, "something else listens there");
    expectDoctor(1, "something else listens there");
    ::shutdown(mute, SHUT_RDWR);
    hangUp.join();
    ::close(mute);
}

TEST_F(CliTest, ACodeThatMayBeInForceIsTold) {
    const ScopedEnv runtime("XDG_RUNTIME_DIR", path("run").c_str());
    FailingDisk service;
    SDBusSerivceManager& bus = *SDBusSerivceManager::initSync(-1);
    ASSERT_TRUE(bus.registerServiceInterface("sdconfig", &service, SDBusSameUser, 1));
    const Result result = cli({"key", "protect", "passphrase", "--yes"}, "pass\n");
    bus.unregisterServiceInterface("sdconfig");
    EXPECT_EQ(result.exitCode, kRefused);
    EXPECT_THAT(result.out, StartsWith("recovery code: "));
    EXPECT_THAT(result.err, AllOf(HasSubstr("is in force if the change was made all the same"),
                                  HasSubstr("could not be stored: it can't be synced")));
}

// As after an installation: the first program in bin, what it hands over to where the installation puts that.
TEST_F(CliTest, HandsOverToTheProgramOfItsOwnInstallation) {
    std::filesystem::create_directories(path("bin"));
    const std::string first = path("bin/sdconfig");
    const std::string second = path("libexec/sdconfig/sdconfig-data");
    std::filesystem::copy_file(SDCONFIG_CLI, first);
    Environment variables = environment();
    variables["PATH"] = path("elsewhere") + ":" + std::getenv("PATH");
    const auto program = [&](const std::string& place, const std::string& script) {
        std::filesystem::create_directories(std::filesystem::path(place).parent_path());
        writeScript(place, script);
    };
    program(path("elsewhere/sdconfig-data"), "echo of the path");
    expectError(run({first, "list", "a.*"}, variables), kRefused,
                second + " can't be run: No such file or directory; it does this command's work: install sdconfig ");
    expectError(run({first, "list", "--show=1"}, variables), kUsage, "list: --show takes no value");

    program(second, R"(for i in 0 1 2; do [ -e /proc/$$/fd/$i ] || printf "no $i,"; done; echo "$*"; cat; exit 42)");
    const std::vector<std::string> backup{first, "backup", "--json", "f", "--force", "--user", "nobody"};
    const Result handed = run(backup, variables, "the passphrase\n");
    EXPECT_EQ(handed.exitCode, 42);
    EXPECT_EQ(handed.out, "backup --json f --force --user nobody\nthe passphrase\n");
    const auto closed = [&](const std::string& command) {
        return run({"sh", "-c", "exec \"$0\" " + command + " 0<&- 2>&-", first}, variables).out;
    };
    EXPECT_EQ(closed("watch 'a.*'"), "no 0,no 2,watch a.*\n");
    EXPECT_EQ(closed("policy list"), "no 0,no 2,policy list\n");
    const Process service = startService();
    expectOut(run({first, "secure", "set", "k", "v"}, variables), "");
    expectOut(run({first, "secure", "delete", "k"}, variables), "");
    EXPECT_EQ(run({first, "secure", "delete", "k"}, variables).exitCode, 42);  // an empty row may be there
    expectError(run({first, "secure", "get", "k"}, variables), kRefused, "not set");
    program(second, "SDCONFIG_HANDED_OVER_BY=0.9.9 exec " + std::string(SDCONFIG_CLI) + "-data \"$@\"");
    expectError(run({first, "key", "list"}, variables), kRefused, "and sdconfig, which starts it, of 0.9.9");
    std::filesystem::permissions(second, std::filesystem::perms::none);
    expectError(run({first, "doctor"}, variables), kRefused, second + " can't be run: Permission denied");
}

TEST_F(CliTest, AsksForASecretWithoutEcho) {
    if (const std::string problem = terminalProblem(); !problem.empty()) GTEST_SKIP() << problem;
    const Process service = startService();
    const std::pair<std::string, int> cases[] = {
        {"hunter2\n", kDone},
        {"half a se\x03", 128 + SIGINT},          // Ctrl-C
        {"\x04", kUsage},                         // Ctrl-D
        {std::string(5000, 'x') + "\n", kUsage},  // more than a terminal passes on of one line
    };
    for (const auto& [typed, exitCode] : cases) {
        TerminalProcess terminal(cliCommand({"secure", "set", "password"}), environment());
        ASSERT_TRUE(terminal.waitForScreen("(not shown): "));
        EXPECT_FALSE(terminal.echoes());
        terminal.type(typed);
        EXPECT_EQ(terminal.wait(), exitCode);
        EXPECT_TRUE(terminal.echoes());
        EXPECT_THAT(terminal.screen(), Not(HasSubstr(typed.substr(0, 7))));
    }
    expectOut(cli({"secure", "get", "password"}), "hunter2\n");
}

TEST_F(CliTest, TellsWhatIsWrongAndWhatToType) {
    namespace fs = std::filesystem;
    fs::permissions(path("data"), fs::perms::owner_all);
    fs::copy_file(SDCONFIGD, path("sdconfigd"));
    Process service =
        Process::start({"/usr/bin/env", "-C", path(""), path("sdconfigd"), "--data-dir", "data"}, environment());
    ASSERT_TRUE(service.waitForErr("sdconfigd: ready on "));
    cli({"secure", "set", "k", "secret"});
    expectDoctor(0, "ok: service: process " + std::to_string(service.pid()) + " answers in ");
    EXPECT_THAT(cli({"status"}).out, AllOf(HasSubstr("round trip: "), Not(HasSubstr("round trip: 0 us"))));
    for (const std::string& file : {socketPath(), path("data/sdconfig.db")}) {
        fs::permissions(file, fs::perms::all);
        expectDoctor(1, ": others may get at " + file + "; next: chmod 600 ");
        fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
    }
    fs::remove(path("sdconfigd"));
    expectDoctor(1,
                 "replaced since; next: end the service with: kill " + std::to_string(service.pid()) + "; then start");
    fs::rename(path("data"), path("away"));
    expectDoctor(1, "was moved to " + path("away") + " or replaced beneath the running service");
    fs::copy(path("away"), path("data"));
    expectDoctor(1, "was moved to " + path("away") + " or replaced beneath the running service");
    fs::remove_all(path("away"));
    expectError(cli({"list"}), kRefused, "removed beneath the running service");
    service.stop(SIGKILL);
    expectDoctor(1, "problem: service: it is not running; next: start it with: systemctl --user start sdconfigd");
    fs::rename(path("data"), path("home/sdconfig"));
    fs::permissions(path("home/sdconfig/sdsecurity.keys"), fs::perms::all);
    expectDoctor(1, "next: chmod 600 " + path("home/sdconfig/sdsecurity.keys"));
    expectDoctor(1, "problem: service: it is not running; next: first mend the data folder\n");
    if (::geteuid() != 0 || ::chown(path("run").c_str(), 1, 1) != 0) return;
    const passwd* const daemon = ::getpwuid(1);
    if (daemon) expectDoctor(1, std::string("act as that user with: sdconfig --user ") + daemon->pw_name + " doctor\n");
}

TEST_F(CliTest, ColoursItsWordsAtATerminalThatWantsIt) {
    if (const std::string problem = terminalProblem(); !problem.empty()) GTEST_SKIP() << problem;
    for (const char* noColour : {"", "1"}) {
        const ScopedEnv colours("NO_COLOR", noColour);
        TerminalProcess terminal({"env", "TERM=xterm", SDCONFIG_CLI, "doctor"}, environment());
        EXPECT_EQ(terminal.waitForScreen("\x1b[31mproblem\x1b[0m: service"), *noColour == '\0');
    }
}

}  // namespace test
