// The trail on the command line: what was done, by whom, and whether it is as it was written.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "platform/sdsecurity/sdsecurity.h"
#include "tests/e2e/sandbox.h"
#include "trail/chain.h"
#include "trail/writer.h"

namespace test {
namespace {

using nlohmann::json;
using sd::SDSecurity;
using sd::trail::Entry;
using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::Not;

class LogTest : public Sandbox {
protected:
    LogTest() {
        SDSecurity::GetInstance()->SetKeyRingFolder(path("data"));
        SDSecurity::GetInstance()->FastEncrypt("makes the ring");
    }

    // What the service would write. bytesMax: of a file.
    void append(const std::vector<Entry>& entries, std::uint64_t bytesMax = std::uint64_t{8} << 20) const {
        sd::trail::WriterOptions options;
        options.bytesMax = bytesMax;
        options.folder = path("data");
        options.digest = [](const auto& id, const auto& texts) {
            return SDSecurity::GetInstance()->DigestUnderKey(id, texts);
        };
        options.sealingKey = [] { return SDSecurity::GetInstance()->Keys().front().id; };
        sd::trail::Writer writer(options);
        writer.open({});
        for (const Entry& entry : entries) writer.append(entry);
        EXPECT_TRUE(writer.sync());
    }

    static Entry entry(const std::string& what, const std::string& key, const std::string& exe) {
        Entry made;
        made.what = what;
        made.key = key;
        made.came = "changed";
        made.by = sd::trail::Peer{7, 4711, exe, "app-velmar.scope", exe.substr(exe.rfind('/') + 1)};
        return made;
    }

    Result log(std::vector<std::string> arguments) const {
        const bool isLonger = !arguments.empty() && (arguments[0] == "verify" || arguments[0] == "head");
        arguments.insert(arguments.begin() + isLonger, {"--data-dir", path("data")});
        arguments.insert(arguments.begin(), "log");
        return cli(arguments);
    }
};

TEST_F(LogTest, ShowsAtATerminalThroughAPager) {
    if (const std::string problem = terminalProblem(); !problem.empty()) GTEST_SKIP() << problem;
    const ScopedEnv noSudo("SUDO_UID", nullptr);
    const ScopedEnv noPkexec("PKEXEC_UID", nullptr);
    append({entry("SET_SECURE", "\x1b[31mred\xe2\x80\xae", "/usr/bin/settings"), entry("SET_SECURE", "k", "/bin/x")});
    Environment world = environment();
    world["TERM"] = "xterm";
    const auto screenOf = [&](const std::string& pager) {
        world["PAGER"] = pager;
        TerminalProcess terminal(cliCommand({"log", "--data-dir", path("data")}), world);
        EXPECT_EQ(terminal.wait(), 0);
        return terminal.screen();
    };
    EXPECT_THAT(screenOf(""), AllOf(HasSubstr("\\x1b[31mred\\xe2\\x80\\xae"),
                                    AnyOf(HasSubstr(" ago"), HasSubstr("just now")), Not(HasSubstr("\x1b[31m"))));
    EXPECT_THAT(screenOf("tr a-z A-Z"), HasSubstr("/BIN/X, PID 4711"));
    EXPECT_THAT(screenOf("head -1 && :"), AllOf(HasSubstr("/bin/x"), Not(HasSubstr("settings"))));
    EXPECT_THAT(screenOf("no-such-program"), AllOf(HasSubstr("no program \"no-such-program\""), HasSubstr("/bin/x")));
    world["PAGER"] = "sh -c 'trap \"\" INT; read -r first; echo here; read -r line </dev/tty; cat'";
    TerminalProcess terminal(cliCommand({"log", "--data-dir", path("data")}), world);
    EXPECT_TRUE(terminal.waitForScreen("here"));
    terminal.type("\x03\n");
    EXPECT_EQ(terminal.wait(), 0) << "Ctrl-C is the pager's";
    EXPECT_THAT(terminal.screen(), HasSubstr("settings"));
    // Whoever came by sudo chooses no program; less itself, with a screen that holds all, ends at once.
    world["SUDO_UID"] = "7";
    EXPECT_THAT(screenOf("tr a-z A-Z"), HasSubstr("/bin/x"));
}

TEST_F(LogTest, WhoFollowsHearsOfDamageAmongWhatIsShown) {
    std::vector<Entry> entries;
    entries.reserve(20);
    for (int i = 0; i < 20; ++i) entries.push_back(entry("SET_SECURE", "key " + std::to_string(i) + ".", "/bin/a"));
    append(entries);
    std::string lines = readFile(path("data/trail.jsonl"));
    for (const char* key : {"key 2.", "key 15."}) lines[lines.rfind('\n', lines.find(key)) + 1] = 'x';
    writeFile(path("data/trail.jsonl"), lines);
    // It ends with its reader, which takes the last ten that can be shown.
    const Result followed =
        run({"sh", "-c", SDCONFIG_CLI " log --follow --data-dir " + path("data") + " | head -n 10"}, environment());
    EXPECT_THAT(followed.out, AllOf(HasSubstr("key 9."), HasSubstr("key 19.")));
    EXPECT_THAT(followed.err, HasSubstr("can't be shown: trail.jsonl, "));
    EXPECT_EQ(followed.err.find("can't be shown"), followed.err.rfind("can't be shown")) << "not what is older";
}

TEST_F(LogTest, VerifiesWithARingThatOnlyAPersonOpens) {
    if (const std::string problem = terminalProblem(); !problem.empty()) GTEST_SKIP() << problem;
    {
        const Process service = startService();
        ASSERT_EQ(cli({"key", "protect", "passphrase", "--yes"}, "a passphrase\n").exitCode, 0);
    }
    TerminalProcess terminal(cliCommand({"log", "verify", "--data-dir", path("data")}), environment());
    EXPECT_TRUE(terminal.waitForScreen("Passphrase of the key ring (not shown): "));
    terminal.type("a passphrase\n");
    EXPECT_TRUE(terminal.waitForScreen(": entries 1 to ")) << terminal.screen();
    EXPECT_EQ(terminal.wait(), 0);
}

TEST_F(LogTest, AFullDiskIsTold) {
    if (!mountDisk("data", "1m")) GTEST_SKIP() << "mounting a disk takes a privilege";
    const Process service = startService();
    EXPECT_THAT(cli({"status"}).out, HasSubstr("trail: none yet, entries that wait: 1: the key ring is absent"));
    EXPECT_THAT(cli({"doctor"}).out, HasSubstr("ok: trail: none yet"));
    EXPECT_EQ(cli({"secure", "set", "k", "v"}).exitCode, 0);
    (void)run({"dd", "if=/dev/zero", "of=" + path("data/fills"), "bs=4k"});
    for (int i = 0; i < 20; ++i) cli({"secure", "set", "k", std::string(1000, 'x') + std::to_string(i)});
    EXPECT_GT(json::parse(cli({"status", "--json"}).out)["trail"]["waiting"], 0);
    EXPECT_THAT(cli({"doctor"}).out, AllOf(HasSubstr("problem: trail: up to entry "), HasSubstr("has room")));
    EXPECT_THAT(cli({"log"}).err, HasSubstr("the service that runs now and its trail: up to entry "));
}

TEST_F(LogTest, ABackupCarriesItAndARestoreGoesOn) {
    append(std::vector<Entry>(40, entry("SET_SECURE", "early", "/bin/a")), 4096);
    Process service = startService();
    cli({"secure", "set", "k", "backed up"});
    const std::string secret = "open sesame\n";
    ASSERT_EQ(cli({"backup", path("file"), path("data")}, secret).exitCode, 0);
    cli({"secure", "set", "k", "later"});
    service.stop();
    const std::string noted = log({"head"}).out.substr(0, log({"head"}).out.size() - 1);

    const Result restored = cli({"restore", path("file"), path("data"), "--force", "--json"}, secret);
    ASSERT_EQ(restored.exitCode, 0) << restored.err;
    const std::string newest = log({"--json"}).out;
    const json told = json::parse(newest.substr(0, newest.find('\n')));
    EXPECT_EQ(told["what"], "RESTORE");
    EXPECT_EQ(told["head"], noted);
    EXPECT_THAT(log({"early", "--reverse"}).out, HasSubstr("\tset\tearly\t/bin/a"));
    EXPECT_EQ(log({"verify"}).exitCode, 0) << log({"verify"}).out;
    EXPECT_EQ(log({"verify", "--head", noted}).exitCode, 1);
    const std::string old = json::parse(restored.out)["old"];
    EXPECT_EQ(cli({"log", "verify", "--data-dir", old, "--head", noted}).exitCode, 0);

    Process next = startService();
    cli({"secure", "set", "k", "next"});
    EXPECT_EQ(cli({"log", "verify", "--data-dir", old}).exitCode, 0) << "also while a service runs elsewhere";
    next.stop();
    EXPECT_EQ(run({SDCONFIGD, "--rotate-key", "--data-dir", path("data")}, environment()).exitCode, 0);
    const std::string ended = log({"--json"}).out;
    EXPECT_EQ(json::parse(ended.substr(0, ended.find('\n')))["source"], "end") << "as the service leaves it";
    EXPECT_EQ(log({"verify"}).exitCode, 0) << log({"verify"}).out;
    EXPECT_EQ(cli({"check", path("data")}).exitCode, 0) << cli({"check", path("data")}).out;
    std::filesystem::permissions(path("data/trail.jsonl"), std::filesystem::perms(0644));
    EXPECT_THAT(cli({"check", path("data")}).out, HasSubstr("trail.jsonl"));
    std::filesystem::permissions(path("data/trail.jsonl"), std::filesystem::perms(0600));

    // A backup may be anybody's.
    std::string forged = readFile(path("file"));
    forged.replace(forged.find("trail trail-") + 6, 6, "../../");
    writeFile(path("file"), withItsSum(forged));
    EXPECT_THAT(cli({"restore", path("file"), path("new")}, secret).err, HasSubstr("no backup, or a damaged one"));
}

}  // namespace
}  // namespace test
