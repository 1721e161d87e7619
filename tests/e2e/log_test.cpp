// The trail on the command line: what was done, by whom, and whether it is as it was written.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
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
using ::testing::StartsWith;

constexpr std::int64_t kHour = 3'600'000'000;

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

    static Entry entry(const std::string& what, const std::string& key, const std::string& exe, std::uint32_t uid = 7) {
        Entry made;
        made.what = what;
        made.key = key;
        made.came = "changed";
        made.by = sd::trail::Peer{uid, 4711, exe, "app-velmar.scope", exe.substr(exe.rfind('/') + 1)};
        return made;
    }

    Result log(std::vector<std::string> arguments) const {
        const bool isLonger = !arguments.empty() && (arguments[0] == "verify" || arguments[0] == "head");
        arguments.insert(arguments.begin() + isLonger, {"--data-dir", path("data")});
        arguments.insert(arguments.begin(), "log");
        return cli(arguments);
    }
    std::string trailPath() const { return path("data/trail.jsonl"); }

    // The fields of each line from the third on, without numbers and times, which differ.
    static std::string untimed(const std::string& text) {
        std::string kept;
        for (std::size_t at = 0, end = 0; at < text.size(); at = end + 1) {
            end = text.find('\n', at);
            const std::string line = text.substr(at, end - at);
            kept += line.substr(line.find('\t', line.find('\t') + 1) + 1) + "\n";
        }
        return kept;
    }
};

TEST_F(LogTest, ListsWhatWasAskedFor) {
    EXPECT_EQ(log({}).exitCode, 1);
    EXPECT_THAT(log({}).err, HasSubstr("there is no trail in " + path("data")));
    Entry old = entry("SET_SECURE", "velmar.old", "/usr/bin/settings");
    old.utc = sd::trail::currentMoment().utc - 5 * kHour;
    old.mono = 1;
    old.boot = "00000000";
    Entry same = entry("SET_POLICY", "Velmar.Proxy", "/usr/bin/settings", 0);
    same.priority = 6;
    same.came = "same";
    Entry machine;
    machine.what = "POLICIES_READ";
    machine.key = "velmar.lock";
    machine.source = "/etc/50.json:12";
    Entry failed = entry("DEL_SECURE", "a\tb\n\x1b[31m\xff", "/opt/\x1b[2J");
    failed.came = "failed";
    append({old, same, machine, failed});

    const std::string by = "/usr/bin/settings, pid 4711, ";
    const std::string lines[] = {
        "deleted: failed\ta\\x09b\\x0a\x1b[31m\xff\t/opt/\x1b[2J, pid 4711, of user 7, in app-velmar.scope\n",
        "policy of the machine\tvelmar.lock\t/etc/50.json:12\n",
        "policy set, priority 6, no change\tVelmar.Proxy\t" + by + (::geteuid() == 0 ? "" : "of root, ") +
            "in app-velmar.scope\n",
        "set\tvelmar.old\t" + by + "of user 7, in app-velmar.scope\n"};
    const auto expectLines = [&](const std::vector<std::string>& options, std::initializer_list<int> wanted) {
        SCOPED_TRACE(::testing::PrintToString(options));
        const Result result = log(options);
        std::string expected;
        for (const int line : wanted) expected += lines[line];
        EXPECT_EQ(untimed(result.out), expected);
        EXPECT_EQ(result.exitCode, 0) << result.err;
    };
    expectLines({}, {0, 1, 2, 3});
    expectLines({"--reverse"}, {3, 2, 1, 0});
    expectLines({"velmar.proxy", "nothing"}, {2});
    expectLines({"velmar.*"}, {1, 2, 3});
    expectLines({"--since", "2h"}, {0, 1, 2});
    expectLines({"velmar.*", "--since", "6h", "--by", "settings"}, {2, 3});
    expectLines({"--by", "nobody"}, {});
    expectLines({"--by", "app-velmar.scope", "velmar.old"}, {3});
    expectLines({"--by", "0"}, {2});
    expectLines({"--by", "/etc/50.json:12"}, {1});
    const json shown = json::parse(log({"velmar.old", "--json"}).out);
    EXPECT_EQ(shown["by"]["exe"], "/usr/bin/settings");
    EXPECT_EQ(json::parse(log({"--by", "7", "--since", "1h", "--json"}).out)["key_base64"], "YQliChtbMzFt/w==");
    EXPECT_EQ(cli({"log", "--since", "2x"}).exitCode, 2);
    EXPECT_EQ(cli({"log", "verify", "key"}).exitCode, 2);
    EXPECT_EQ(cli({"log", "verify", "--since", "2d"}).exitCode, 2);
    expectLines({"--", "verify"}, {});
}

TEST_F(LogTest, ShowsAtATerminalThroughAPager) {
    if (const std::string problem = terminalProblem(); !problem.empty()) GTEST_SKIP() << problem;
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
    // Whoever came by sudo chooses no program; less itself, with a screen that holds all, ends at once.
    world["SUDO_UID"] = "7";
    EXPECT_THAT(screenOf("tr a-z A-Z"), HasSubstr("/bin/x"));
}

TEST_F(LogTest, TellsWhatItCantShow) {
    append({entry("SET_SECURE", "first", "/bin/a"), entry("SET_SECURE", "second", "/bin/b")});
    const std::string sound = readFile(trailPath());
    const auto expectTold = [&](const std::string& content, const std::string& told) {
        SCOPED_TRACE(told);
        writeFile(trailPath(), content);
        const Result result = log({});
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_THAT(result.err, AllOf(HasSubstr(told), HasSubstr("see what it proves with: sdconfig log verify")));
        EXPECT_THAT(result.out, HasSubstr("second"));
    };
    expectTold("\x1b[2J{}\n" + sound, "a place of the trail can't be shown: trail.jsonl");
    expectTold(std::string(4096, '\0') + "\n[]\n" + sound, "2 places of the trail can't be shown");
    std::filesystem::remove(trailPath());
    ASSERT_EQ(::mkfifo(trailPath().c_str(), 0600), 0);
    for (const auto& options : {std::vector<std::string>{}, {"head"}, {"verify"}}) {
        const Result result = log(options);
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_THAT(result.out + result.err, HasSubstr("trail.jsonl"));
    }
}

TEST_F(LogTest, FollowsWhatComes) {
    std::vector<Entry> many(12, entry("SET_SECURE", "k", "/bin/a"));
    append(many);
    Process follower = Process::start(cliCommand({"log", "--follow", "--data-dir", path("data"), "k"}), environment());
    const auto count = [&] {
        const std::string out = follower.out();
        return std::count(out.begin(), out.end(), '\n');
    };
    EXPECT_TRUE(waitUntil([&] { return count() == 10; }));
    append({entry("SET_SECURE", "other", "/bin/b"), entry("DEL_SECURE", "k", "/bin/b")});
    EXPECT_TRUE(waitUntil([&] { return count() == 11; }));
    EXPECT_THAT(follower.out(), HasSubstr("deleted\tk\t/bin/b"));
    follower.kill(SIGTERM);
    EXPECT_EQ(follower.wait(), 128 + SIGTERM);
}

TEST_F(LogTest, VerifiesWithTheRingOrAHead) {
    append({entry("SET_SECURE", "first", "/bin/a"), entry("SET_SECURE", "second", "/bin/b")});
    const std::string noted = log({"head"}).out.substr(0, log({"head"}).out.size() - 1);
    append({entry("SET_SECURE", "third", "/bin/c")});
    const std::string sound = readFile(trailPath());
    EXPECT_THAT(log({"verify"}).out, StartsWith("ok: entries 1 to 3, since "));
    EXPECT_THAT(log({"verify", "--head", noted}).out, HasSubstr("all that the head attests is there"));
    EXPECT_EQ(log({"verify", "--head", "trail-1-x"}).exitCode, 2);

    writeFile(trailPath(), sound.substr(0, sound.find('\n') + 1));  // a clean cut
    EXPECT_EQ(log({"verify"}).exitCode, 0);
    EXPECT_EQ(log({"verify", "--head", noted}).exitCode, 1);
    std::string changed = sound;
    changed.replace(changed.find("second"), 6, "sEcond");
    writeFile(trailPath(), changed);
    const Result result = log({"verify"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.out, HasSubstr("finding: " + trailPath() + ", line 2 was changed"));
    EXPECT_THAT(result.out, HasSubstr("entries 1 to 1 belong together"));
    const json told = json::parse(log({"verify", "--json"}).out);
    EXPECT_EQ(told["finding"]["line"], 2);
    EXPECT_EQ(told["ok"], false);

    // A ring that only a person opens.
    writeFile(trailPath(), sound);
    std::string recovery;
    std::string passphrase;
    SDSecurity& layer = *SDSecurity::GetInstance();
    using Use = SDSecurity::SlotUse;
    layer.MakeSlotKey(SDSecurity::SlotKind::Recovery, Use::Fresh, SDSecurity::MakeRecoveryCode(), recovery);
    layer.MakeSlotKey(SDSecurity::SlotKind::Passphrase, Use::Fresh, "a passphrase", passphrase);
    ASSERT_EQ(layer.Protect(SDSecurity::SlotKind::Passphrase, {recovery, passphrase}).outcome,
              SDSecurity::SlotOutcome::Done);
    EXPECT_EQ(log({"verify"}).exitCode, 1);
    EXPECT_THAT(log({"verify"}).err, HasSubstr("repeat it at a terminal"));
    EXPECT_THAT(log({"verify", "--head", noted}).out, HasSubstr("no key attests what came after the head"));
    if (!terminalProblem().empty()) return;
    TerminalProcess terminal(cliCommand({"log", "verify", "--data-dir", path("data")}), environment());
    EXPECT_TRUE(terminal.waitForScreen("Passphrase of the key ring (not shown): "));
    terminal.type("a passphrase\n");
    EXPECT_TRUE(terminal.waitForScreen("entries 1 to 3, since"));
    EXPECT_EQ(terminal.wait(), 0);
}

TEST_F(LogTest, OtherCommandsTellOfTheTrail) {
    Process service = startService();
    cli({"secure", "set", "k", "local"});
    cli({"policy", "set", "k", "policy", "6"});
    cli({"policy", "set", "gone", "policy", "6"});
    cli({"policy", "delete", "gone"});
    cli({"set", "theme", "dark"});
    const std::string by = " by " SDCONFIG_CLI ", pid ";
    const std::string text = cli({"explain", "K"}).out;
    EXPECT_THAT(text, AllOf(HasSubstr("last changes:\n  local value: set "), HasSubstr("  policy: set, priority 6, "),
                            HasSubstr(by)));
    EXPECT_THAT(cli({"explain", "gone"}).out, HasSubstr("  policy: deleted "));
    EXPECT_THAT(cli({"explain", "theme"}).out, HasSubstr("  property: set "));
    EXPECT_THAT(cli({"explain", "never"}).out, HasSubstr("none since entry 1 of the trail"));
    const json changes = json::parse(cli({"explain", "k", "--json"}).out)["changes"];
    EXPECT_EQ(changes["policy"]["priority"], 6);
    EXPECT_EQ(changes["local"]["by"]["exe"], SDCONFIG_CLI);
    EXPECT_TRUE(changes["machine"].is_null());

    Process watcher = Process::start(cliCommand({"watch", "theme", "--json"}), environment());
    ASSERT_TRUE(watcher.waitForErr("watching "));
    cli({"set", "theme", "light"});
    EXPECT_TRUE(waitUntil([&] { return watcher.out().find('\n') != std::string::npos; }));
    const json told = json::parse(watcher.out());
    EXPECT_EQ(told["value"], "light");
    EXPECT_EQ(told["entry"]["by"]["exe"], SDCONFIG_CLI);

    EXPECT_THAT(cli({"status"}).out, HasSubstr("\ntrail: up to entry "));
    EXPECT_THAT(cli({"doctor"}).out, HasSubstr("ok: trail: up to entry "));
    EXPECT_EQ(json::parse(cli({"status", "--json"}).out)["trail"]["head"],
              json::parse(log({"head", "--json"}).out)["head"]);

    service.kill(SIGTERM);
    EXPECT_EQ(service.wait(), 0);
    std::string changed = readFile(trailPath());
    changed.replace(changed.find("theme"), 5, "thEme");
    writeFile(trailPath(), changed);
    EXPECT_THAT(cli({"check", path("data")}).out, HasSubstr(trailPath() + ", line "));
    EXPECT_THAT(cli({"doctor", "--data-dir", path("data")}).out, HasSubstr("problem: data folder: " + trailPath()));

    const Process without = startService({"--no-audit"});
    EXPECT_THAT(cli({"status"}).out, HasSubstr("trail: none is kept\n"));
    EXPECT_THAT(cli({"log"}).err, HasSubstr("none is kept"));
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
    service.kill(SIGTERM);
    service.wait();
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
    next.kill(SIGTERM);
    next.wait();
    EXPECT_EQ(log({"verify"}).exitCode, 0) << log({"verify"}).out;
    EXPECT_EQ(cli({"check", path("data")}).exitCode, 0) << cli({"check", path("data")}).out;

    // A backup may be anybody's.
    std::string forged = readFile(path("file"));
    const std::size_t name = forged.find("trail trail-") + 6;
    forged.replace(name, 6, "../../");
    const std::string lines = forged.substr(0, forged.find("\nsum ") + 1);
    forged.replace(lines.size() + 4, 64, run({"sha256sum"}, {}, lines).out.substr(0, 64));
    writeFile(path("file"), forged);
    EXPECT_THAT(cli({"restore", path("file"), path("new")}, secret).err, HasSubstr("no backup, or a damaged one"));
}

}  // namespace
}  // namespace test
