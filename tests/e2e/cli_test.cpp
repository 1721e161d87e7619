// The command line against the real service: what it prints, where, and with which exit code.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "platform/sdbus/sdbus.h"
#include "tests/e2e/sandbox.h"

namespace test {

using nlohmann::json;
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

json object(const Result& result) {
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 1) << result.out;
    return json::parse(result.out, nullptr, false);
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

}  // namespace

class CliTest : public Sandbox {
protected:
    std::string shell(const std::string& script) const {
        Environment variables = environment();
        variables["CLI"] = SDCONFIG_CLI;
        const Result result = run({"sh", "-c", script}, variables);
        return std::to_string(result.exitCode) + " " + result.out + result.err;
    }

    void expectDoctor(int exitCode, const std::string& line) const {
        const Result result = cli({"doctor"});
        EXPECT_EQ(result.exitCode, exitCode) << result.out;
        EXPECT_THAT(result.out, AllOf(HasSubstr(line), Not(HasSubstr("secret"))));
    }
};

TEST_F(CliTest, Properties) {
    writeFile(path("etc/build.prop"), "ro.sd.model = X1\n");
    const Process service = startService();
    expectOut(cli({"get", "ro.sd.model"}), "X1\n");
    expectOut(cli({"set", "volume", "-5"}), "");
    expectOut(cli({"get", "volume"}), "-5\n");
    expectOut(cli({"set", "--", "-v", "--json"}), "");
    expectOut(cli({"get", "--", "-v"}), "--json\n");
    expectOut(cli({"set", "get", "set"}), "");  // names of commands are keys and values like others
    EXPECT_EQ(object(cli({"--json", "get", "get"})), json::parse(R"({"key":"get","set":true,"value":"set"})"));
    expectOut(cli({"set", "bytes", "\xff\x01"}), "");
    expectOut(cli({"get", "bytes"}), "\xff\x01\n");
    EXPECT_EQ(object(cli({"get", "bytes", "--json"})),
              json::parse(R"({"key":"bytes","set":true,"value_base64":"/wE="})"));

    expectOut(cli({"set", "volume", ""}), "");
    expectError(cli({"get", "volume"}), kRefused, "get \"volume\": not set");
    EXPECT_EQ(object(cli({"get", "volume", "--json"})), json::parse(R"({"key":"volume","set":false,"value":null})"));
    expectOut(cli({"delete", "volume"}), "");
    expectError(cli({"delete", "volume"}), kRefused, "not set");
    expectError(cli({"set", "ro.sd.model", "X2"}), kRefused, "read-only once it has a value");
    expectError(cli({"delete", "ro.sd.model"}), kRefused, "can't be deleted");
    expectError(cli({"get", "a\nb\x1b[2J"}), kRefused, "a\\x0ab\\x1b[2J");
}

TEST_F(CliTest, SecureValuesConstantsAndSignatures) {
    writeFile(path("constants"), "region=north\n");
    const Process service = startService();
    expectOut(cli({"secure", "set", "token", "abc"}), "");
    expectOut(cli({"secure", "get", "TOKEN"}), "abc\n");
    expectOut(cli({"secure", "set", "token"}, "line 1\nline 2\n\n"), "");
    expectOut(cli({"secure", "get", "token"}), "line 1\nline 2\n\n");
    EXPECT_EQ(object(cli({"secure", "get", "token", "--json"})),
              json::parse(R"({"key":"token","set":true,"value":"line 1\nline 2\n"})"));

    expectOut(cli({"secure", "set", "dash", "-"}, "from a pipe\n"), "");
    expectOut(cli({"secure", "get", "dash"}), "from a pipe\n");
    expectOut(cli({"secure", "set", "dash", "--", "-"}), "");
    expectOut(cli({"secure", "get", "dash"}), "-\n");

    expectError(cli({"secure", "set", "token"}, std::string("half\0value", 10)), kUsage,
                "zero byte, which can't be stored; nothing was changed; encode it");
    expectError(cli({"secure", "set", "token"}), kUsage, "nothing came on standard input");
    expectError(cli({"secure", "set", "token"}, std::string((16 << 20) + 2, 'x')), kUsage, "longer than 16 MiB");
    expectOut(cli({"secure", "get", "token"}), "line 1\nline 2\n\n");

    for (const char* value : {"gr\xc3\xbcn", "\xe2\x82\xac", "\xff"}) {  // UTF-8 and Latin-1 come back as they were set
        expectOut(cli({"secure", "set", "token", value}), "");
        expectOut(cli({"secure", "get", "token"}), std::string(value) + "\n");
        EXPECT_THAT(cli({"list", "--show"}).out, HasSubstr("secure\ttoken\t" + std::string(value) + "\n"));
    }
    expectOut(cli({"secure", "delete", "token"}), "");
    expectOut(cli({"secure", "delete", "token"}), "");
    expectError(cli({"secure", "get", "my token"}), kRefused,
                "not set, or set to nothing; give it a value with: sdconfig secure set 'my token'\n");
    expectOut(cli({"secure", "set", "broken", "v"}), "");
    query(path("data/sdconfig.db"), "UPDATE secure_v3 SET value = substr(value, 5) WHERE key = 'broken'");
    expectError(cli({"secure", "get", "broken", "--default", "d"}), kRefused, "it can't be opened");
    expectOut(cli({"const", "region"}), "north\n");
    expectError(cli({"const", "planet"}), kRefused, "no such constant");
    expectOut(cli({"sign", "some text"}), "some text\n");
    EXPECT_EQ(object(cli({"sign", "x", "--json"})), json::parse(R"({"signature":"x"})"));
    expectOut(cli({"verify", "some text", "some text"}), "valid\n");
    EXPECT_THAT(cli({"-v", "secure", "get", "k"}).err, HasSubstr("5 sdconfig: sdconfig_sdbus GetInstance("));
}

TEST_F(CliTest, SeveralKeysAndPatterns) {
    writeFile(path("etc/build.prop"), "a.one=1\na.two=2\nb=3\nro.sd.build.version=7\n");
    const Process service = startService();
    cli({"set", "a.two", "two\nlines"});
    cli({"set", "a.later", "x"});
    cli({"delete", "b"});
    expectOut(cli({"get", "b", "a.later", "--default", "none"}), "b=none\na.later=x\n");
    expectOut(cli({"get", "b", "--default", ""}), "\n");
    expectError(cli({"get", "a.one", "b"}), kRefused, "get \"b\": not set", "a.one=1\n");
    expectError(cli({"get", "a.*"}), kDone, "not listed", "a.one=1\na.two=two\\x0alines\n");
    EXPECT_THAT(cli({"get"}).out,
                AllOf(HasSubstr("a.one=1\n"), HasSubstr("ro.sd.build.version=7\n"), Not(HasSubstr("b="))));
    expectOut(cli({"get", "b*", "--local", "--product-dir", path("product")}), "b=3\n");
    expectError(cli({"get", "--local"}), kRefused, "get: no property that can be listed is set; leave out --local");
    cli({"secure", "set", "c*", "1\\x0a\n2"});
    expectOut(cli({"secure", "get", "c*"}), "1\\x0a\n2\n");
    expectOut(cli({"secure", "get", "c*", "c*"}), "c*=1\\x0a\\x0a2\nc*=1\\x0a\\x0a2\n");
    expectError(cli({"secure", "get", "d*"}), kRefused, "a key is named whole here");
    expectOut(cli({"secure", "set", "k", "v"}), "");
    const Result objects = cli({"secure", "get", "k", "none", "--json"});
    EXPECT_EQ(objects.exitCode, kRefused);
    EXPECT_EQ(objects.out,
              "{\"key\":\"k\",\"set\":true,\"value\":\"v\"}\n{\"key\":\"none\",\"set\":false,\"value\":null}\n");
    cli({"policy", "set", "Kite", "x", "6"});
    expectOut(cli({"list", "k*"}), "secure\tk\npolicy\tKite\n");
    expectOut(cli({"list", "kite"}), "policy\tKite\n");
}

TEST_F(CliTest, RunsAProgramWithSecrets) {
    const Process service = startService();
    cli({"secure", "set", "a=b", "first"});
    cli({"secure", "set", "two", "gr\xc3\xbcn"});
    expectOut(
        cli({"secure", "exec", "a=b=ONE", "two=TWO", "--", "sh", "-c", "echo $ONE $TWO $@", "sh", "--json", "--", "["}),
        "first gr\xc3\xbcn --json -- [\n");
    EXPECT_EQ(cli({"secure", "exec", "two=TWO", "--", "sh", "-c", "exit 9"}).exitCode, 9);
    expectError(cli({"secure", "exec", "two=TWO", "none=X", "--", "touch", path("run")}), kRefused,
                "\"none\": not set");
    expectError(cli({"secure", "exec", "two=TWO", "--", "/nowhere"}), 127, "No such file");
    expectError(cli({"secure", "exec", "two=TWO", "--", path("etc")}), 126, "Permission denied");
    expectError(cli({"secure", "exec", "two=2", "--", "true"}), kUsage, "name of a variable");
    expectError(cli({"secure", "exec", "two=TWO"}), kUsage, "a program is missing");
}

TEST_F(CliTest, SuccessesThatHideSomethingSaySo) {
    writeFile(path("etc/build.prop"), "theme=dark\n");
    const Process service = startService();
    expectError(cli({"policy", "set", "theme", "light", "6"}), kDone, "policies govern secure values, not properties");
    writeFile(path("p.json"), R"({"theme": {"value": "light", "priority": 6}})");
    EXPECT_THAT(cli({"policy", "apply", path("p.json"), "--dry-run"}).err, HasSubstr("not properties"));
    expectOut(cli({"secure", "set", "K", ""}), "");
    expectOut(cli({"secure", "delete", "k"}), "");
    expectOut(cli({"policy", "set", "k", "weak", "5"}), "");
    expectError(cli({"secure", "set", "k", ""}), kDone, "hides the policy of priority 5");
    expectError(cli({"policy", "set", "k", "weak", "5"}), kDone, "an empty local row hides this policy");
    EXPECT_THAT(cli({"explain", "k"}).out, HasSubstr("lets that through: sdconfig secure delete k\n"));
    expectError(cli({"secure", "delete", "k"}), kDone, "hid the policy of priority 5, which is in force now");
    expectOut(cli({"secure", "get", "k"}), "weak\n");
    EXPECT_EQ(query(path("data/sdconfig.db"), "SELECT count(*) FROM secure_v3 WHERE key = 'k'")[0][0], "0");
    expectOut(cli({"policy", "set", "k", "strong", "6"}), "");
    expectError(cli({"secure", "set", "k", "mine"}), kDone, "above priority 5 overrides what was set");
    expectError(cli({"secure", "delete", "k"}), kDone, "gives the key its value as before");
}

TEST_F(CliTest, WhatActsOnATerminalIsEscapedThereAlone) {
    const Process service = startService();
    const std::string value = "\x1b[2J \xc2\x9b \xe2\x80\xae \xff gr\xc3\xbcn";
    const std::string escaped = "\\x1b[2J \\xc2\\x9b \\xe2\\x80\\xae \\xff gr\xc3\xbcn";
    for (const char* key : {"k", "\x1bk"}) cli({"secure", "set", key, value});
    cli({"policy", "set", "\x1bk", "p\x7f", "3"});
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"secure", "get", "k"}, value + "\n"},
        {{"secure", "get", "k", "\x1bk"}, "k=" + value + "\n\x1bk=" + value + "\n"},
        {{"list", "k", "\x1bk", "--show"},
         "secure\t\x1bk\t" + value + "\nsecure\tk\t" + value + "\npolicy\t\x1bk\t3\tp\x7f\n"},
        {{"policy", "list"}, "\x1bk\t3\tp\x7f\thidden by a local value\n"},
    };
    for (const auto& [arguments, out] : cases) {
        EXPECT_EQ(cli(arguments).out, out);
        TerminalProcess terminal(cliCommand(arguments), environment());
        EXPECT_EQ(terminal.wait(), kDone);
        EXPECT_THAT(terminal.screen(), AllOf(Not(HasSubstr("\x1b")), Not(HasSubstr("\x7f")), Not(HasSubstr("\xff"))));
    }
    TerminalProcess terminal(cliCommand({"explain", "k", "--show"}), environment());
    EXPECT_TRUE(terminal.waitForScreen("\"" + escaped + "\""));
    EXPECT_THAT(cli({"secure", "get", "k\xc2\x9b\xff"}).err, HasSubstr("\"k\\xc2\\x9b\\xff\""));
    EXPECT_THAT(cli({"get", "k\x7f", "--json"}).out, HasSubstr("\"k\\u007f\""));
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

TEST_F(CliTest, StatusFollowsTheService) {
    expectError(cli({"status"}), kNoService, "start it with", "not running\n");
    Process service = startService();
    const json running = object(cli({"status", "--json"}));
    EXPECT_EQ(running["running"], true);
    EXPECT_EQ(running["pid"], service.pid());
    EXPECT_EQ(running["socket"], socketPath());
    EXPECT_THAT(cli({"status"}).out, StartsWith("running\npid: " + std::to_string(service.pid()) + "\n"));

    service.kill(SIGKILL);
    service.wait();
    const Result killed = cli({"status", "--json"});
    EXPECT_EQ(killed.exitCode, kNoService);
    EXPECT_EQ(object(killed)["running"], false);
}

TEST_F(CliTest, TellsAnAbsentServiceAndAHungOne) {
    std::vector<std::vector<std::string>> commands;
    for (const char* command : {"get k", "set k secret", "delete k", "secure get k", "secure set k secret",
                                "secure delete k", "const k", "sign secret", "verify secret secret"}) {
        std::istringstream words(command);
        commands.emplace_back(std::istream_iterator<std::string>(words), std::istream_iterator<std::string>());
    }
    const auto all = [&](const std::string& told) {
        std::vector<Process> running;
        running.reserve(commands.size());
        for (const auto& command : commands) running.push_back(Process::start(cliCommand(command), environment()));
        for (Process& process : running) {
            const int exitCode = process.wait();
            expectError({exitCode, process.out(), process.err()}, kNoService, told);
            EXPECT_THAT(process.err(), AllOf(HasSubstr(socketPath()), Not(HasSubstr("secret"))));
        }
    };
    all("is not running");
    const Process service = startService();
    service.kill(SIGSTOP);
    ::waitpid(service.pid(), nullptr, WUNTRACED);  // until it has taken effect on every thread
    Process status = Process::start(cliCommand({"status"}), environment());
    all("did not answer within 5 s");
    EXPECT_EQ(status.wait(), kNoService);
    EXPECT_THAT(status.out(), StartsWith("running, not answering\n"));
    EXPECT_THAT(status.err(), HasSubstr("did not answer within 5 s"));
}

// The service answers a failed write with false and a failed deletion not at all.
TEST_F(CliTest, TellsARefusalFromACallWithoutAnswer) {
    const Process service = startService();
    expectOut(cli({"secure", "set", "stuck", "value"}), "");
    query(
        path("data/sdconfig.db"),
        "CREATE TRIGGER noDelete BEFORE DELETE ON secure_v3 WHEN old.key = 'stuck' BEGIN SELECT RAISE(ABORT, ''); END;"
        "CREATE TRIGGER noInsert BEFORE INSERT ON secure_v3 WHEN new.key = 'full' BEGIN SELECT RAISE(ABORT, ''); END;");
    expectError(cli({"secure", "set", "full", "value"}), kRefused,
                "secure set \"full\": the service could not store it");
    expectError(cli({"secure", "delete", "stuck"}), kRefused, "could not store it");
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
    bus.unregisterServiceInterface("sdconfig");

    const int mute = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(mute, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(mute, 64), 0);
    std::thread hangUp([mute] {
        for (int peer = 0; (peer = ::accept(mute, nullptr, nullptr)) >= 0;) ::close(peer);
    });
    expectError(cli({"get", "k"}), kNoService, "something else listens there");
    expectDoctor(1, "something else listens there");
    ::shutdown(mute, SHUT_RDWR);
    hangUp.join();
    ::close(mute);
}

TEST_F(CliTest, WrongUseIsOneLineThatSaysWhatToDo) {
    const struct {
        std::vector<std::string> arguments;
        const char* told;
    } cases[] = {
        {{}, "sdconfig --help"},
        {{"secure", "sett", "k"},
         "no command \"sett\"; did you mean: sdconfig secure set? see: sdconfig secure --help"},
        {{"apply", "f"}, "did you mean: sdconfig policy apply?"},
        {{"help", "polcy"}, "did you mean: sdconfig policy?"},
        {{"delete"}, "KEY is required; see: sdconfig delete --help"},
        {{"get", ""}, "KEY is empty"},
        {{"set", "k"}, "VALUE is required"},
        {{"set", "k", "two", "words"}, "quotation marks"},
        {{"set", "k", "-x"}, "put -- before"},
        {{"secure", "set", "k", "--value=secret"}, "no option \"--value\""},
        {{"get", "k", "--product-dir", "/"}, "--local"},
        {{"get", "k", "--local", "--product-dir", "/nowhere"}, "there is no folder \"/nowhere\""},
        {{"restore", "/nowhere", "d"}, "there is no file \"/nowhere\""},
        {{"check", "/nowhere"}, "there is no folder \"/nowhere\""},
        {{"check", "/dev/null"}, "\"/dev/null\" is no folder"},
        {{"policy", "apply", "/dev/null", "--show"}, "--show requires --dry-run"},
        {{"list", "--data-dir="}, "--data-dir needs a value"},
        {{"list", "--data-dir", ""}, "--data-dir: the value is empty"},
        {{"list", "--data-dir", "/", "--data-dir", "/"}, "--data-dir takes one value, and once"},
        {{"policy", "clear", "--yes=no"}, "--yes takes no value"},
        {{"--json=no", "get", "k"}, "--json takes no value"},
        {{"watch", std::string(70000, 'k')}, "longer than 64 KiB"},
    };
    for (const auto& [arguments, told] : cases) {
        const Result result = cli(arguments);
        SCOPED_TRACE(result.err);
        expectError(result, kUsage, told);
        EXPECT_THAT(result.err, Not(HasSubstr("secret")));
    }
    EXPECT_THAT(cli({"secure", "set", "--help"}).out, HasSubstr("visible to every user"));
    expectOut(cli({"help", "secure", "set"}), cli({"secure", "set", "--help"}).out);
    expectOut(cli({"help"}), cli({"--help"}).out);
    EXPECT_THAT(cli({"restore", "--help"}).out, HasSubstr("\nExample: sdconfig restore "));
    EXPECT_THAT(shell("$CLI --help >/dev/full"), AllOf(StartsWith("1 sdconfig: "), HasSubstr("No space left")));
    EXPECT_THAT(cli({"--version"}).out, StartsWith("sdconfig "));
}

TEST_F(CliTest, ReadsLocallyWithoutAService) {
    writeFile(path("etc/build.prop"), "ro.sd.model=X1\n");
    expectOut(cli({"get", "ro.sd.model", "--local", "--product-dir", path("product")}), "X1\n");
    expectError(cli({"get", "ro.sd.model", "--local"}), kRefused, "no build.prop file");
}

TEST_F(CliTest, ResultsThatCanNotBeWritten) {
    const Process service = startService();
    expectOut(cli({"set", "k", std::string(100000, 'x')}), "");
    EXPECT_THAT(shell("$CLI get k >/dev/full"), AllOf(StartsWith("1 sdconfig: "), HasSubstr("No space left")));
    EXPECT_THAT(shell("$CLI get k >&-"), AllOf(StartsWith("1 sdconfig: "), HasSubstr("Bad file descriptor")));
    EXPECT_EQ(shell("$CLI get k | true"), "0 ");
    EXPECT_EQ(shell("trap '' PIPE; { $CLI get k; echo $? >&2; } | true"), "0 0\n");
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
        writeFile(place, "#!/bin/sh\n" + script + "\n");
        std::filesystem::permissions(place, std::filesystem::perms::owner_all);
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
    Process service = Process::start({path("sdconfigd"), "--data-dir", path("data")}, environment());
    ASSERT_TRUE(service.waitForErr("sdconfigd: ready on "));
    cli({"secure", "set", "k", "secret"});
    expectDoctor(0, "ok: service: process " + std::to_string(service.pid()) + " answers in ");
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
    service.kill(SIGKILL);
    service.wait();
    expectDoctor(1, "problem: service: it is not running; next: start it with: systemctl --user start sdconfigd");
    const auto socket = json::parse(cli({"doctor", "--json"}).out)["checks"][1];
    EXPECT_EQ(socket["ok"], false);
    EXPECT_THAT(socket["what"], HasSubstr("left by a service that was killed"));
    fs::rename(path("data"), path("home/sdconfig"));
    fs::permissions(path("home/sdconfig/sdsecurity.keys"), fs::perms::all);
    expectDoctor(1, "next: chmod 600 " + path("home/sdconfig/sdsecurity.keys"));
    expectDoctor(1, "problem: service: it is not running; next: first mend the data folder\n");
}

TEST_F(CliTest, ColoursItsWordsAtATerminalThatWantsIt) {
    if (const std::string problem = terminalProblem(); !problem.empty()) GTEST_SKIP() << problem;
    for (const char* noColour : {"", "1"}) {
        const ScopedEnv colours("NO_COLOR", noColour);
        TerminalProcess terminal({"env", "TERM=xterm", SDCONFIG_CLI, "doctor"}, environment());
        EXPECT_EQ(terminal.waitForScreen("\x1b[31mproblem\x1b[0m: service"), *noColour == '\0');
    }
}

TEST_F(CliTest, TellsWhatSystemdMakesOfTheService) {
    writeFile(path("systemctl"),
              "#!/bin/sh\necho Result=exit-code; echo LoadState=loaded; cat " + path("state") + "\n");
    std::filesystem::permissions(path("systemctl"), std::filesystem::perms::owner_all);
    const ScopedEnv search("PATH", (path(".") + ":" + std::getenv("PATH")).c_str());
    writeFile(path("state"), "ActiveState=active\nUnitFileState=enabled\n");
    expectDoctor(1, "ok: units: sdconfigd.socket is active, enabled\n");
    writeFile(path("state"), "ActiveState=active\nUnitFileState=disabled\n");
    expectDoctor(1, "is active, disabled; next: systemctl --user enable --now sdconfigd.socket\n");
    writeFile(path("state"), "ActiveState=failed\nUnitFileState=enabled\n");
    expectDoctor(1, "problem: units: sdconfigd.socket failed (exit-code); next: ");
}

}  // namespace test
