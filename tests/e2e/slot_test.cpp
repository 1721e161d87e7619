// A wrapped key ring beside a service that serves, by the command line: what opens it, and what a copy of the folder
// does not give away.
#include <gmock/gmock.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/e2e/sandbox.h"
#include "tests/e2e/seal_machine.h"
#ifdef WITH_KEYRING
#include "tests/support/keyring_session.h"
#endif

namespace test {
namespace {

using nlohmann::json;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

class SlotTest : public Sandbox {
protected:
    // With a secret and a policy in its folder; ends when it goes.
    Process startWithValues(const std::vector<std::string>& options = {}) const {
        Process service = startService(options);
        EXPECT_EQ(cli({"secure", "set", "a", "secret"}).exitCode, 0);
        EXPECT_EQ(cli({"policy", "set", "p", "strong", "9"}).exitCode, 0);
        return service;
    }
    // Makes or removes a slot. Returns the code that was printed.
    std::string change(const std::string& verb, const std::string& slot, const std::string& input = "") const {
        const Result result = cli({"key", verb, slot, "--yes", "--json"}, input);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        const json code = json::parse(result.out)["recovery_code"];
        return code.is_null() ? "" : code.get<std::string>();
    }
    std::string get(const std::string& key) const { return cli({"secure", "get", key}).out; }
    std::string status() const { return cli({"status"}).out; }
    std::string ring() const { return readFile(path("data/sdsecurity.keys")); }
    std::string stateOf(const std::string& kind) const {
        const json told = json::parse(cli({"key", "slots", "--json"}).out);
        for (const json& slot : told["slots"])
            if (slot["slot"] == kind) return slot["state"];
        return "none";
    }
    // A call past the command line, with keys that nobody stretched.
    static std::string rawKey(char digit) { return "15 " + std::string(32, digit) + ' ' + std::string(64, digit); }
    std::vector<std::string> rawCall(std::vector<std::string> words) const {
        words.insert(words.begin(), {"busctl", "--address=unix:path=" + socketPath(), "--timeout=60", "call",
                                     "sd.config", "/", "sdbus.Service"});
        return words;
    }
};

TEST_F(SlotTest, TheCodeIsTypedAgainAtATerminal) {
    if (!terminalProblem().empty()) GTEST_SKIP() << terminalProblem();
    const Process service = startWithValues();
    TerminalProcess command(cliCommand({"key", "protect", "passphrase"}), environment());
    for (const char* prompt : {"New passphrase of the key ring", "The same again"}) {
        ASSERT_TRUE(command.waitForScreen(prompt));
        command.type("pass\n");
    }
    ASSERT_TRUE(command.waitForScreen("Type it again"));
    EXPECT_THAT(ring(), HasSubstr(" sealing ")) << "nothing is written before";
    const std::size_t at = command.screen().find("\n    ") + 5;
    std::string code = command.screen().substr(at, 34);
    command.type("0000-0000\n");
    ASSERT_TRUE(command.waitForScreen("that is not the code"));
    for (char& c : code) c = static_cast<char>(std::tolower(c));
    code.erase(std::remove(code.begin(), code.end(), '-'), code.end());
    command.type(code + "\n");
    EXPECT_EQ(command.wait(), 0) << command.screen();
    EXPECT_THAT(command.screen(), Not(HasSubstr("recovery code: ")));
    EXPECT_EQ(cli({"key", "recover"}, code + "\n").exitCode, 0);
}

TEST_F(SlotTest, AnotherMachineTakesTheCode) {
    if (::geteuid() != 0) GTEST_SKIP() << "the one who seals has to be root";
    if (::access("/usr/bin/systemd-creds", X_OK) != 0) GTEST_SKIP() << "there is no systemd-creds";
    const TempDir keys[2];
    const Listener machines[]{machine(keys[0]), machine(keys[1])};
    const auto on = [&](int which) { return std::vector<std::string>{"--seal-socket", machines[which].path()}; };
    std::string code;
    {
        const Process service = startWithValues({"--seal-socket", path("none")});
        expectRefusal(cli({"key", "protect", "host", "--yes"}), "nobody seals at ");
        EXPECT_THAT(ring(), HasSubstr(" sealing ")) << "and no half of it";
    }
    {
        const Process service = startService(on(0));
        code = change("protect", "host");
    }
    {
        const Process service = startService(on(0));
        EXPECT_EQ(get("a"), "secret\n") << "it opens by itself";
        EXPECT_EQ(stateOf("host"), "opens");
    }
    {
        const Process service = startService(on(1));
        EXPECT_EQ(get("a"), "");
        EXPECT_THAT(status(), AllOf(HasSubstr("key ring: locked, host: it was sealed by another machine"),
                                    HasSubstr("open it with: sdconfig key recover")));
        EXPECT_EQ(cli({"key", "recover"}, code + "\n").exitCode, 0);
        EXPECT_EQ(get("a"), "secret\n");
        EXPECT_EQ(stateOf("host"), "opens");
    }
    {
        const Process service = startService(on(1));
        EXPECT_EQ(get("a"), "secret\n");
        EXPECT_EQ(change("protect", "passphrase", "pass\n"), "") << "the code stays";
        const std::string old = ring();
        const std::string newCode = change("unprotect", "passphrase");
        EXPECT_EQ(cli({"secure", "set", "b", "later"}).exitCode, 0);
        expectRefusal(cli({"key", "recover"}, code + "\n"), "that is not the recovery code");
        EXPECT_EQ(cli({"key", "recover"}, newCode + "\n").exitCode, 0);
        writeFile(path("data/sdsecurity.keys"), old);
    }
    // Who kept a copy of the ring and knows the passphrase that was removed.
    const Process service = startService({"--seal-socket", path("none")});
    EXPECT_EQ(cli({"key", "unlock"}, "pass\n").exitCode, 0);
    EXPECT_EQ(get("a"), "secret\n");
    EXPECT_EQ(get("b"), "");
    expectRefusal(cli({"key", "recover"}, code + "\n"), "nobody seals at ", 0);  // so the slot host can't be made anew
}

TEST_F(SlotTest, AKilledServiceLeavesThePlainRingOrTheWholeWrappedOne) {
    int wrapped = 0;
    for (int round = 0; round < 20; ++round) {
        std::filesystem::remove_all(path("data"));
        std::filesystem::create_directory(path("data"));
        {
            const Process service = startService();
            ASSERT_EQ(cli({"secure", "set", "a", "secret"}).exitCode, 0);
            Process call = Process::start(rawCall({"KEY_PROTECT", "yss", "1", rawKey('a'), rawKey('b')}));
            std::this_thread::sleep_for(std::chrono::milliseconds(round));
            service.kill(SIGKILL);
            call.wait();
        }
        const Process service = startService();
        const bool isWrapped = ring().compare(0, 18, "sdsecurity-wrapped") == 0;
        wrapped += isWrapped;
        if (isWrapped) {
            EXPECT_EQ(get("a"), "");
            for (const char* call : {"KEY_UNLOCK", "KEY_RECOVER"})
                EXPECT_EQ(run(rawCall({call, "s", rawKey(call[4] == 'U' ? 'b' : 'a')})).out, "ys 0 \"\"\n");
        }
        EXPECT_EQ(get("a"), "secret\n");
    }
    RecordProperty("wrapped", wrapped);
}

TEST_F(SlotTest, HostileArgumentsChangeNothing) {
    const Process service = startWithValues();
    const std::string before = ring();
    for (const char* kind : {"4", "127", "200"})
        EXPECT_THAT(run(rawCall({"KEY_PROTECT", "yss", kind, rawKey('a'), rawKey('b')})).out, HasSubstr("ys 5 "));
    for (const std::string& key : {std::string(), std::string("15 ab cd"), "30" + rawKey('a').substr(2),
                                   rawKey('a') + "a", std::string(100000, '1')})
        EXPECT_THAT(run(rawCall({"KEY_PROTECT", "yss", "1", rawKey('a'), key})).out, HasSubstr("ys 10 ")) << key;
    EXPECT_THAT(run(rawCall({"KEY_PROTECT", "s", "x"})).out, HasSubstr("ys 3 "));
    EXPECT_THAT(run(rawCall({"KEY_UNPROTECT", "yss", "255", "", ""})).out, HasSubstr("ys 3 "));
    EXPECT_EQ(ring(), before);
    EXPECT_EQ(get("a"), "secret\n");
}

#ifdef WITH_KEYRING
TEST_F(SlotTest, OpensWhenTheLoginKeyringIsUnlocked) {
    KeyringSession session;
    session.startBus();
    session.startKeyring();
    if (HasFatalFailure()) return;
    const ScopedEnv address("DBUS_SESSION_BUS_ADDRESS", session.address().c_str());
    {
        const Process service = startWithValues();
        change("protect", "keyring");
    }
    session.lock();
    const Process service = startService();
    EXPECT_EQ(get("a"), "");
    EXPECT_THAT(status(), HasSubstr("key ring: locked, waits for the login keyring"));
    session.unlock();
    EXPECT_TRUE(waitUntil([&] { return get("a") == "secret\n"; }, kProcessLimitMs));
    EXPECT_EQ(stateOf("keyring"), "opens");
}
#endif

}  // namespace
}  // namespace test
