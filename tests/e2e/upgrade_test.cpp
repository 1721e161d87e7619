// Data of an earlier version: carried over by the command line or by the service's start, and refused whole where not.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <nlohmann/json.hpp>

#include "base/unique_fd.h"
#include "tests/e2e/sandbox.h"
#include "tests/support/legacy_database.h"

namespace test {
namespace {

using nlohmann::json;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::SizeIs;

using Rows = std::vector<std::vector<std::string>>;

class UpgradeTest : public Sandbox {
protected:
    UpgradeTest() { makeLegacyDatabase(mDatabase); }

    // Leaves what can be carried over whole: no pieces beyond the 64th, no name with an "@", none without one.
    void dropWhatIsLost() const {
        query(mDatabase, "DELETE FROM secure WHERE key LIKE 'user@%' OR key LIKE 'long@@%' OR key = 'without-at'");
    }

    Result upgrade(std::vector<std::string> options = {}) const {
        options.insert(options.begin(), {"upgrade", path("data")});
        return cli(options);
    }

    void shell(const std::string& script) const { run({"sh", "-c", "cd " + path("data") + "; " + script}); }

    // Every file of the data folder but the lock file, with its content.
    std::map<std::string, std::string> files() const {
        std::map<std::string, std::string> all;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(path("data")))
            if (entry.is_regular_file() && entry.path().filename() != "sdconfigd.lock")
                all[entry.path().filename()] = readFile(entry.path());
        return all;
    }

    static void expectRefusal(const Result& result, const std::string& told) {
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_THAT(result.err, HasSubstr(told));
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }

    const std::string mDatabase = path("data/sdconfig.db");
};

TEST_F(UpgradeTest, ADryRunTellsAllAndLeavesNoTrace) {
    query(mDatabase, kUsedSince);
    shell(
        "{ echo \"INSERT INTO secure(key, value) VALUES('broken@@0', 'no base64');\"; echo '.shell kill -9 $PPID'; } "
        "| sqlite3 sdconfig.db");                    // a killed writer leaves its log behind
    for (const char* leftover : {"-shm", "-wal"}) {  // first with log and index, then with the log alone
        const auto before = files();
        const Result result = upgrade({"--dry-run", "--json"});
        EXPECT_EQ(files(), before);
        EXPECT_FALSE(std::filesystem::exists(path("data/sdconfigd.lock")));
        expectRefusal(result, "rows whose content can't be carried over: 33");
        json report = json::parse(result.out);
        EXPECT_THAT(report["secure"][1]["lost"], SizeIs(30)) << "long@@64 and on";
        report["secure"][1] = report["folder"] = nullptr;
        EXPECT_EQ(report, json::parse(R"({"folder": null, "version": "2", "step": "copy", "backup": null, "done": false,
            "rows": {"dbinfor": 1, "config": 3, "secure": 102, "secure_v3": 1},
            "settings": [{"key": "sd.ui.theme", "rows": 1, "replaces": true, "lost": []},
                         {"key": "empty", "rows": 1, "replaces": false, "lost": []},
                         {"key": "velmar.client.id", "rows": 1, "replaces": false, "lost": []}],
            "secure": [{"key": "mail.password", "rows": 3, "replaces": false, "lost": []}, null,
                       {"key": "token", "rows": 1, "replaces": false, "lost": []},
                       {"key": "user", "rows": 1, "replaces": false, "lost": [{"key": "user@host@@0"}]},
                       {"key": "hollow", "rows": 1, "replaces": false, "lost": []},
                       {"key": "broken", "rows": 1, "replaces": false, "lost": [{"key": "broken@@0"}]}],
            "nameless": [{"key": "without-at"}]})"));
        std::filesystem::remove(mDatabase + leftover);
    }
}

TEST_F(UpgradeTest, CopiesOnceAndKeepsTheFileAsItWas) {
    query(mDatabase, kUsedSince);
    dropWhatIsLost();
    const Result result =
        run({"sh", "-c", "umask 777; exec \"$0\" upgrade \"$1\"", SDCONFIG_CLI, path("data")}, environment());
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_THAT(result.out, EndsWith("upgraded to version 3\n"));
    const std::size_t name = result.out.find("kept a copy: ") + 13;
    const std::string backup = result.out.substr(name, result.out.find('\n', name) - name);
    EXPECT_EQ(std::filesystem::status(backup).permissions(), std::filesystem::perms(0600));
    EXPECT_EQ(query(backup, "SELECT value FROM dbinfor UNION ALL SELECT count(*) FROM secure_v3"),
              (Rows{{"2"}, {"1"}}));
    for (const char* version : {"3", "10"}) {
        query(mDatabase, std::string("UPDATE dbinfor SET value = ") + version);
        const auto before = files();
        EXPECT_THAT(upgrade().out, EndsWith("nothing to do\n")) << version;
        EXPECT_EQ(files(), before);
    }
    const Process service = startService();
    EXPECT_EQ(cli({"secure", "get", "token"}).out + cli({"secure", "get", "sd.ui.theme"}).out, "tok\ndark\n");
}

TEST_F(UpgradeTest, OneThatWasKilledIsRepeated) {
    query(mDatabase, kUsedSince);
    dropWhatIsLost();
    shell("{ echo 'SELECT 1 FROM config;'; echo '.shell kill -9 $PPID'; } | sqlite3 sdconfig.db");
    writeFile(mDatabase + "-wal", std::string(32, 'x'));  // killed at its first sync: there is its header alone
    EXPECT_EQ(cli({"list", "--data-dir", path("data")}).exitCode, 0);
    const std::string leftover = mDatabase + ".backup.unfinished";
    for (const char* end : {"", "-journal"}) writeFile(leftover + end, "half");
    EXPECT_EQ(upgrade().exitCode, 0);
    EXPECT_FALSE(std::filesystem::exists(leftover) || std::filesystem::exists(leftover + "-journal"));
}

TEST_F(UpgradeTest, OnlyForceCopiesWhereNothingWasSealedYet) {
    dropWhatIsLost();
    const auto before = files();
    expectRefusal(upgrade(), "copy everything with: sdconfig upgrade --force");
    EXPECT_EQ(files(), before);
    {
        const Process service = startService({"--upgrade"});
        EXPECT_THAT(service.err(), HasSubstr("of which nothing was copied"));
    }
    EXPECT_EQ(query(mDatabase, "SELECT value FROM dbinfor"), (Rows{{"3"}})) << "stamped";
    expectRefusal(upgrade(), "copy everything with: sdconfig upgrade --force");
    for (int copy = 0; copy < 2; ++copy) EXPECT_EQ(upgrade({"--force"}).exitCode, 0);
    const auto after = files();
    EXPECT_EQ(std::count_if(after.begin(), after.end(),
                            [](const auto& file) { return file.first.find(".backup") != std::string::npos; }),
              2)
        << "none is overwritten";
    const Process service = startService({"--upgrade"});
    EXPECT_EQ(cli({"secure", "get", "velmar.client.id"}).out, "client-4711\n");
}

TEST_F(UpgradeTest, NamesOddRowsAndWhatACutOffCopyingLeft) {
    const auto piece = [](const std::string& block) {  // ends in its own padding
        return run({"openssl", "enc", "-aes-256-cbc", "-nopad", "-base64", "-K", hex(sd::kLegacyKey), "-iv",
                    hex(sd::kLegacyIv)},
                   {}, block)
            .out;
    };
    const std::string fifteen = "fifteen bytes..";
    const std::string sound = fifteen + '\1';
    const std::string longName(297, 'l');
    const std::string cutName(254, 'c');  // all its pieces have one key
    std::string repeated;
    for (int i = 0; i < 64; ++i) repeated += fifteen;
    const struct {
        std::string name;
        std::string separator;
        std::string block;
        std::string read;
        std::size_t lost = 1;
    } cases[] = {
        {"padding 0", "@@0", fifteen + '\0', ""},
        {"padding 17", "@@0", fifteen + '\21', ""},
        {"padding 0x80", "@@0", fifteen + '\x80', fifteen + "\x80\n", 0},
        {"padding 0xFF", "@@0", fifteen + '\xFF', fifteen + "\xFF\n", 0},
        {"zero byte", "@@0", std::string("fourteen\0bytes\2\2", 16), "fourteen\n"},
        {longName, "@@0", sound, ""},
        {cutName.substr(2), "@@0", sound, fifteen + "\n", 0},
        {cutName, "@", sound, repeated + "\n"},
        {"", "@@0", sound, ""},
    };
    for (const auto& [name, separator, block, read, lost] : cases)
        query(mDatabase, std::string("INSERT INTO secure(key, value) VALUES('")
                             .append(name + separator)
                             .append("', '")
                             .append(piece(block))
                             .append("')"));
    const json report = json::parse(upgrade({"--force", "--json"}).out);
    query(mDatabase, "DELETE FROM secure_v3 WHERE key IN ('empty', 'token')");
    const Result again = upgrade();
    EXPECT_EQ(again.exitCode, 0);
    EXPECT_THAT(again.err, HasSubstr("secure_v3 lacks: 2;"));
    EXPECT_THAT(again.out, HasSubstr("  token, not in secure_v3\n"));
    const Process service = startService();
    for (const auto& [name, separator, block, read, lost] : cases) {
        SCOPED_TRACE(name);
        const auto found = std::find_if(report["secure"].begin(), report["secure"].end(),
                                        [&, &key = name](const json& entry) { return entry["key"] == key; });
        ASSERT_NE(found, report["secure"].end());
        EXPECT_EQ((*found)["lost"].size(), lost);
        EXPECT_EQ(cli({"secure", "get", name}).out, read);
    }
}

TEST_F(UpgradeTest, AFailedCopyStopsTheServiceAndTheCommand) {
    query(mDatabase, std::string(kUsedSince) +
                         "; CREATE TRIGGER no BEFORE INSERT ON secure_v3 WHEN NEW.key = 'empty' "
                         "BEGIN SELECT RAISE(ABORT, ''); END");
    expectRefusal(run({SDCONFIGD, "--upgrade", "--log-level", "8", "--data-dir", path("data")}, environment()),
                  "could not be upgraded");
    expectRefusal(upgrade(), "not everything could be copied; the database as it was is " + mDatabase);
    EXPECT_EQ(query(mDatabase, "SELECT value FROM dbinfor"), (Rows{{"2"}})) << "the next start tries again";
}

TEST_F(UpgradeTest, WhatIsTooLongIsNamedAndAllElseCopied) {
    query(mDatabase, kUsedSince);
    dropWhatIsLost();
    query(mDatabase, "INSERT INTO config(key, value) VALUES('a.huge', hex(zeroblob(8388609)))");
    for (const char* option : {"--dry-run", "--force"}) {
        const Result result = upgrade({option});
        expectRefusal(result, "too long to be kept: 1");
        EXPECT_THAT(result.out, HasSubstr("  a.huge, not carried over: it has a value longer than 16 MiB\n"));
    }
    EXPECT_EQ(query(mDatabase, "SELECT count(*) FROM secure_v3"), (Rows{{"6"}}));
    EXPECT_EQ(query(mDatabase, "SELECT value FROM dbinfor"), (Rows{{"2"}}));
    query(mDatabase, "UPDATE config SET value = 'short' WHERE key = 'a.huge'");
    EXPECT_EQ(upgrade().exitCode, 0);
}

TEST_F(UpgradeTest, KeepsOffADatabaseThatIsInUse) {
    query(mDatabase, kUsedSince);
    {
        const Process service = startService({"--log-level", "8"});
        const std::string holder = "is in use by process " + std::to_string(service.pid());
        for (const char* option : {"--force", "--dry-run"}) expectRefusal(upgrade({option}), holder);
        Environment other = environment();
        other["XDG_RUNTIME_DIR"] = path("home");
        std::filesystem::permissions(path("home"), std::filesystem::perms::owner_all);
        for (const char* how : {"", ", which has to end first: kill "}) {
            expectRefusal(run({SDCONFIGD, "--log-level", "8", "--data-dir", path("data")}, other), holder + how);
            std::filesystem::remove(path("data/sdconfigd.lock"));  // the folder itself is held, too
        }
        EXPECT_EQ(cli({"status"}).exitCode, 0);
    }
    {
        const sd::UniqueFd held(::open(path("data").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        ASSERT_EQ(::flock(held.get(), LOCK_EX | LOCK_NB), 0);
        expectRefusal(upgrade({"--force"}), "; find it with: fuser -v ");
    }
    // Some other program with an idle connection, which takes no part in the service's lock.
    const std::string wait = "{ echo 'SELECT 1 FROM config;'; echo '.shell echo idle >&2'; echo '.shell while [ ! -e " +
                             path("go") + " ]; do sleep 0.02; done'; } | sqlite3 " + mDatabase;
    Process idle = Process::start({"sh", "-c", wait});
    ASSERT_TRUE(idle.waitForErr("idle"));
    expectRefusal(upgrade({"--force"}), "the database " + mDatabase + " is in use by process");
    writeFile(path("go"), "");
    idle.wait();
    EXPECT_THAT(upgrade({"--force"}).out, EndsWith("upgraded to version 3\n"));
}

TEST_F(UpgradeTest, RefusesWhatItCannotReadSealOrWrite) {
    const std::string legacy = readFile(mDatabase);
    const std::string sealedRow = "(id, key, value); INSERT INTO t VALUES(1, 'k', 'v1'); ALTER TABLE t RENAME TO ";
    const std::pair<std::string, const char*> damages[] = {
        {"rm sdconfig.db; mkfifo sdconfig.db", "is not a regular file"},
        {"head -c 9000 /dev/zero | tr '\\0' x >sdconfig.db", "is not a database"},
        {"truncate -s 20000 sdconfig.db", "malformed"},
        {"sqlite3 sdconfig.db 'ALTER TABLE config RENAME value TO text'", "no such column: value"},
        {"sqlite3 sdconfig.db \"INSERT INTO config(key) VALUES(x'00')\"", "a row whose key"},
        {"sqlite3 sdconfig.db \"CREATE TABLE t" + sealedRow + "secure_v3\"", "the key ring is missing"},
        {"sqlite3 dmhelper.db \"CREATE TABLE t" + sealedRow + "dmhelperconfig\"", "the key ring is missing"},
        {"echo >sdsecurity.keys; chmod 600 sdsecurity.keys", "the key ring can't be used"},
    };
    for (const auto& [damage, told] : damages) {
        SCOPED_TRACE(damage);
        shell("rm -rf *");
        writeFile(mDatabase, legacy);
        shell(damage);
        const auto before = files();
        expectRefusal(upgrade({"--force"}), told);
        EXPECT_EQ(files(), before);
    }
    expectRefusal(cli({"upgrade", path("etc")}), path("etc/sdconfig.db") + " is not there");
    EXPECT_TRUE(std::filesystem::is_empty(path("etc")));

    const char* const file = mDatabase.c_str();
    shell("rm -f sdsecurity.keys");
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return;
    ASSERT_EQ(::mount(file, file, nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(::mount(nullptr, file, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    expectRefusal(upgrade({"--force"}), "can't be written");
}

}  // namespace
}  // namespace test
