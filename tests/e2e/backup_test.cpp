// check, backup and restore: what is told of a data folder, and what a backup gives back, or refuses to.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/e2e/sandbox.h"

namespace test {
namespace {

using nlohmann::json;
using ::testing::EndsWith;
using ::testing::HasSubstr;

namespace fs = std::filesystem;

// Every file below the folder, with its mode and content.
std::map<std::string, std::string> contents(const std::string& folder) {
    std::map<std::string, std::string> all;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        struct stat status {};
        ::lstat(entry.path().c_str(), &status);
        all[entry.path()] = std::to_string(status.st_mode) + (entry.is_regular_file() ? readFile(entry.path()) : "");
    }
    return all;
}

class BackupTest : public Sandbox {
protected:
    BackupTest() { fs::permissions(path("data"), fs::perms::owner_all); }

    // A stopped service's data folder with a secure value and a policy.
    void fill() const {
        Process service = startService();
        EXPECT_EQ(cli({"secure", "set", "k", "v"}).exitCode, 0);
        EXPECT_EQ(cli({"policy", "set", "u", "forced", "7"}).exitCode, 0);
        service.kill(SIGTERM);
        EXPECT_EQ(service.wait(), 0);
    }

    Result backup(std::vector<std::string> options = {}) const {
        options.insert(options.begin(), {"backup", path("file"), path("data")});
        return cli(options, "open sesame\nnot this line\n");
    }

    Result restore(const std::string& folder, std::vector<std::string> options = {},
                   const std::string& passphrase = "open sesame\n") const {
        options.insert(options.begin(), {"restore", path("file"), path(folder)});
        return cli(options, passphrase);
    }

    // A refusal in one line that changes nothing anywhere in the sandbox.
    void expectUnchanged(const std::function<Result()>& command, const std::string& told) const {
        const auto before = contents(path("."));
        const Result result = command();
        EXPECT_EQ(result.exitCode, 1) << told;
        EXPECT_THAT(result.err, HasSubstr(told));
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        EXPECT_EQ(contents(path(".")), before) << told;
    }

    // The only finding of the folder, which stays as it is.
    void expectFinding(const std::string& folder, const std::string& what, const std::string& next) const {
        SCOPED_TRACE(what);
        const auto before = contents(folder);
        const Result result = cli({"check", folder, "--json"});
        EXPECT_EQ(contents(folder), before);
        EXPECT_EQ(result.exitCode, 1);
        const json findings = json::parse(result.out)["findings"];
        ASSERT_EQ(findings.size(), 1u) << result.out;
        EXPECT_THAT(findings[0]["what"], HasSubstr(what));
        EXPECT_THAT(findings[0]["next"], HasSubstr(next));
    }
};

TEST_F(BackupTest, ARunningServiceIsBackedUpBetweenItsWrites) {
    Process service = startService();
    for (int i = 0; i < 20; ++i) cli({"secure", "set", "k" + std::to_string(i), "before"});
    std::thread writer([this] {
        for (int i = 0; i < 20; ++i) EXPECT_EQ(cli({"secure", "set", "k" + std::to_string(i), "after"}).exitCode, 0);
    });
    const Result made = cli({"backup", path("file")}, "open sesame");
    writer.join();
    EXPECT_EQ(made.exitCode, 0) << made.err;
    EXPECT_EQ(fs::status(path("file")).permissions(), fs::perms(0600));
    EXPECT_EQ(readFile(path("file")).find(readFile(path("data/sdsecurity.keys")).substr(18)), std::string::npos);
    EXPECT_EQ(cli({"check"}).exitCode, 0) << "in the middle of the log";
    expectUnchanged([&] { return restore("data", {"--force"}); },
                    "which has to end first; nothing was changed; kill " + std::to_string(service.pid()));
    service.kill(SIGTERM);
    service.wait();

    const int renames = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    ::inotify_add_watch(renames, path(".").c_str(), IN_MOVED_FROM | IN_MOVED_TO);
    EXPECT_EQ(restore("data", {"--force"}).exitCode, 0);
    alignas(inotify_event) char events[4096];
    const inotify_event* event = nullptr;
    for (ssize_t at = 0, end = ::read(renames, events, sizeof events); at < end;
         at += static_cast<ssize_t>(sizeof *event + event->len)) {
        event = reinterpret_cast<const inotify_event*>(events + at);
        if (event->len > 0 && std::string(event->name) == "data") break;
    }
    ::close(renames);
    EXPECT_TRUE(event && event->mask & IN_MOVED_TO) << "for a moment there was no folder";
    EXPECT_EQ(cli({"check", path("data")}).exitCode, 0);
    const Process next = startService();
    std::map<std::string, int> values;
    for (int i = 0; i < 20; ++i) ++values[cli({"secure", "get", "k" + std::to_string(i)}).out];
    EXPECT_EQ(values["before\n"] + values["after\n"], 20);
}

TEST_F(BackupTest, NothingButAWholeBackupIsRestored) {
    fill();
    EXPECT_EQ(backup().exitCode, 0);
    expectUnchanged([&] { return backup(); }, "--force");
    run({"sh", "-c", "umask 0777; echo open sesame | \"$0\" backup \"$1\" \"$2\" --force", SDCONFIG_CLI, path("file"),
         path("data")});
    EXPECT_EQ(fs::status(path("file")).permissions(), fs::perms(0600));
    expectUnchanged([&] { return restore("new", {}, "open sesam\n"); }, "the passphrase does not open");
    expectUnchanged([&] { return restore("data"); }, "is not empty");
    expectUnchanged([&] { return restore("run/..", {"--force"}); }, "no data folder");
    ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
    for (const auto& [name, told] : {std::pair{"data/sdconfig.db", "in the data folder"}, {"pipe", "no regular file"}})
        expectUnchanged([&, to = path(name)] { return cli({"backup", to, path("data"), "--force"}); }, told);
    const std::string whole = readFile(path("file"));
    std::vector<std::string> damaged{whole + "x"};
    for (std::size_t at = 0; at < whole.size(); at += at < 700 ? 61 : 9001) {
        damaged.push_back(whole.substr(0, at));
        damaged.push_back(whole);
        damaged.back()[at] = static_cast<char>(whole[at] ^ 1);
    }
    for (const std::string& bytes : damaged) {
        writeFile(path("file"), bytes);
        expectUnchanged([&] { return restore("new"); }, "is no backup, or a damaged one");
    }
    writeFile(path("file"), whole);

    EXPECT_EQ(restore("new").exitCode, 0);
    const Process service = startService({"--data-dir", path("new")});
    EXPECT_EQ(cli({"secure", "get", "k"}).out + cli({"policy", "get", "u"}).out, "v\nforced\n");
}

TEST_F(BackupTest, ARestoreTellsHowWhatItReplacesStandsToTheBackup) {
    fill();
    const json made = json::parse(backup({"--json"}).out);
    EXPECT_THAT(cli({"check", path("data"), "--against", made["digest"]}).out, EndsWith("it holds what was noted\n"));
    const auto expectReplaced = [&](const char* how, const std::string& told, const std::string& passphrase) {
        const Result restored = restore("data", {"--force", "--json"}, passphrase);
        ASSERT_EQ(restored.exitCode, 0) << restored.err;
        EXPECT_EQ(json::parse(restored.out)["replaced"], how);
        EXPECT_THAT(restored.err, HasSubstr(told));
    };
    const auto set = [this](const char* value) {
        const Process service = startService();
        cli({"secure", "set", "k", value});
    };
    expectReplaced("same", "holds what the backup of " + made["made"].get<std::string>() + " holds", "open sesame\n");
    set("later");
    for (const auto& entry : fs::directory_iterator(path("data")))
        fs::last_write_time(entry, fs::file_time_type::clock::now() + std::chrono::hours(1));
    expectReplaced("newer", "is newer than the backup: it was changed since", "open sesame\n");
    set("elsewhere");
    run({"sh", "-c", "touch -d 2001-02-03T04:05:06Z \"$0\"/*", path("data")});
    expectReplaced("other", "was last written at 2001-02-03T04:05:06Z, before it", "open sesame\n");
    EXPECT_THAT(restore("new").err, testing::Not(HasSubstr("the backup of"))) << "nothing is replaced";

    const std::string whole = readFile(path("file"));
    std::string forged = whole;
    forged[forged.find("\nstate ") + 8] ^= 1;
    const std::string lines = forged.substr(0, forged.find("\nsum ") + 1);
    const std::string sum = run({"sha256sum"}, {}, lines).out.substr(0, 64);
    writeFile(path("file"), forged.replace(lines.size() + 4, 64, sum));
    EXPECT_THAT(restore("newer").err, HasSubstr("the passphrase does not open the key ring, or the file was changed"));

    fs::remove(path("data/trail.jsonl"));  // of which the first format knew nothing
    EXPECT_EQ(backup({"--without-keys", "--force"}).exitCode, 0);
    std::string first = readFile(path("file"));
    first[16] = '1';
    first.erase(first.find("state "), first.find("keys none") - first.find("state "));
    const std::string firstLines = first.substr(0, first.find("\nsum ") + 1);
    writeFile(path("file"),
              first.replace(firstLines.size() + 4, 64, run({"sha256sum"}, {}, firstLines).out.substr(0, 64)));
    const json earlier = json::parse(restore("data", {"--force", "--json"}, "").out);
    EXPECT_TRUE(earlier["made"].is_null() && earlier["replaced"].is_null()) << earlier;
    EXPECT_EQ(earlier["done"], true);
}

TEST_F(BackupTest, WithoutKeysTheFoldersOwnRingServesOrNone) {
    fill();
    EXPECT_EQ(backup({"--without-keys"}).exitCode, 0);
    expectUnchanged([&] { return restore("new", {}, ""); }, "has no key ring");
    const Result restored = restore("data", {"--force", "--json"}, "");
    EXPECT_THAT(restored.err, HasSubstr("nothing proves who made it"));
    const json kept = json::parse(restored.out);
    EXPECT_EQ(kept["keys"], "kept");
    EXPECT_EQ(readFile(path("data/sdsecurity.keys")), readFile(kept["old"].get<std::string>() + "/sdsecurity.keys"));
    EXPECT_EQ(cli({"check", path("data")}).exitCode, 0);
    for (int i = 0; i < 4; ++i)
        EXPECT_THAT(json::parse(restore("data", {"--force", "--json"}, "").out)["old"].get<std::string>(),
                    EndsWith(".old"))
            << "also where several are of the same second";
    EXPECT_THAT(restore("new", {"--without-keys"}, "").err, HasSubstr("before the service starts"));
    expectFinding(path("new"), "hold sealed values but the key ring", "restore it from the same backup");
}

TEST_F(BackupTest, ARingMadeMeanwhileIsNotForgotten) {
    fill();
    const std::string ring = path("data/sdsecurity.keys");
    fs::rename(ring, path("ring"));
    run({"sqlite3", path("data/sdconfig.db"), "PRAGMA journal_mode = DELETE"});
    const std::string hold = "{ echo \"BEGIN EXCLUSIVE;\n.shell echo held >&2\"; while [ ! -e " + path("go") +
                             " ]; do sleep 0.02; done; } | sqlite3 " + path("data/sdconfig.db");
    Process holder = Process::start({"sh", "-c", hold});
    ASSERT_TRUE(holder.waitForErr("held"));
    Process backup = Process::start(cliCommand({"backup", path("file"), path("data")}), environment());
    // Its folder is made after it has looked for the ring and before it waits for the database.
    run({"sh", "-c", "until ls -d \"$0\".unfinished-*; do sleep 0.02; done", path("file")});
    fs::rename(path("ring"), ring);
    writeFile(path("go"), "");
    EXPECT_EQ(backup.wait(), 1);
    EXPECT_THAT(backup.err(), HasSubstr("a key ring was made meanwhile"));
    EXPECT_FALSE(fs::exists(path("file")));
}

TEST_F(BackupTest, CheckNamesEachFaultAndWhatToDo) {
    fill();
    const std::string sealed = query(path("data/sdconfig.db"), "SELECT value FROM secure_v3 WHERE key = 'k'")[0][0];
    const std::string folder = path("copy");
    const std::string database = folder + "/sdconfig.db";
    const auto sql = [&](const std::string& file, const std::string& text) {
        return "sqlite3 " + folder + "/" + file + " \"" + text + "\"";
    };
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"chmod 640 sdsecurity.keys", "others may read or write it", "chmod 600 " + folder + "/sdsecurity.keys"},
        {"echo $(grep sealing sdsecurity.keys | cut -c 1-16) 4294967296 > sdsecurity.count", "is used up",
         "sdconfigd --rotate-key --data-dir " + folder},
        {"chmod 644 sdconfig.db", "others may get at " + database, "chmod 600 " + database},
        {"chmod 755 .", "others may get at " + folder, "chmod 700"},
        {"mv dmhelper.db x; ln -s x dmhelper.db", "is a symbolic link", "put the file itself in its place"},
        {"truncate -s 12288 sdconfig.db", "is damaged", "restore the folder from a backup"},
        {sql("sdconfig.db", "UPDATE secure_v3 SET value = 'v1AAAA' WHERE key = 'k'"),
         "the secure value \"k\" of " + database + " can't be opened", "from the same backup"},
        {sql("dmhelper.db", "UPDATE dmhelperconfig SET value = '" + sealed + "'"),
         "the policy \"u\" of " + folder + "/dmhelper.db belongs to another row", "set or delete it"},
        {sql("dmhelper.db", "DROP TABLE dmhelperconfig"), "lacks its table dmhelperconfig", "from a backup"},
        {"chmod 640 sdconfigd.lock", "others may get at", "chmod 600"},
        {"mkfifo -m 600 dmhelper.db-wal", "dmhelper.db-wal is not a regular file", "put the file itself"},
        {sql("sdconfig.db", "ALTER TABLE config ADD COLUMN x AS (hex(zeroblob(1e9)))"), "the table config, which no",
         "drop it"},
        {sql("sdconfig.db", "CREATE TRIGGER t AFTER INSERT ON config BEGIN SELECT 1; END"), "the trigger t", "drop it"},
        {sql("sdconfig.db", "UPDATE dbinfor SET value = '2'"), "has version 2", "sdconfig upgrade " + folder},
    };
    for (const auto& [damage, what, next] : cases) {
        fs::remove_all(folder);
        fs::copy(path("data"), folder);
        run({"sh", "-c", "cd \"$0\" && " + damage, folder});
        expectFinding(folder, what, next);
    }
    EXPECT_THAT(cli({"check"}).out, HasSubstr(path("home/sdconfig") + "; next: name the folder"));
    expectFinding(path("etc"), "is no data folder", "name the folder");
    EXPECT_THAT(cli({"backup", path("file"), path("etc")}).err, HasSubstr("is no data folder"));
}

TEST_F(BackupTest, ADigestTellsWhetherTheFolderHoldsWhatWasNoted) {
    const auto digest = [this](const std::string& folder) {
        return json::parse(cli({"check", path(folder), "--digest", "--json"}).out)["digest"];
    };
    EXPECT_TRUE(digest("data").is_null());
    fill();
    const std::string noted = digest("data");
    fs::copy(path("data"), path("earlier"));
    const auto against = [&](const std::string& folder) { return cli({"check", path(folder), "--against", noted}); };
    EXPECT_THAT(against("data").out, EndsWith("findings 0\nit holds what was noted\n"));

    EXPECT_EQ(run({SDCONFIGD, "--rotate-key", "--data-dir", path("data")}, environment()).exitCode, 0);
    {
        const Process service = startService();
        cli({"secure", "set", "k", "w"});
        EXPECT_EQ(against("data").exitCode, 1) << "while it is served";
        for (const char* order : {"first", "second"}) cli({"secure", "set", "other", order});
        EXPECT_NE(against("data").exitCode, 0);
        cli({"secure", "delete", "other"});
        cli({"secure", "set", "k", "v"});
    }
    EXPECT_EQ(against("data").exitCode, 0) << "sealed anew, under another key, in another order of rows";
    EXPECT_NE(digest("data"), noted);
    EXPECT_EQ(digest("earlier"), noted);

    const std::string secure = "sqlite3 sdconfig.db \"", policies = "sqlite3 dmhelper.db \"";
    std::string copied = secure + "INSERT INTO secure_v3(key, value) VALUES('copy', '";
    copied.append(query(path("earlier/sdconfig.db"), "SELECT value FROM secure_v3")[0][0]).append("')\"");
    for (const std::string& change :
         {secure + "DELETE FROM secure_v3\"", secure + "UPDATE secure_v3 SET key = 'K' WHERE key = 'k'\"",
          secure + "INSERT INTO secure_v3(key, value) VALUES('empty', '')\"",
          secure + "UPDATE secure_v3 SET key = CAST(key AS BLOB)\"", secure + "UPDATE secure_v3 SET value = ''\"",
          secure + "INSERT INTO config(key, value) VALUES('k', 'v')\"", policies + "DELETE FROM dmhelperconfig\"",
          copied}) {
        fs::remove_all(path("copy"));
        fs::copy(path("earlier"), path("copy"));
        EXPECT_EQ(against("copy").exitCode, 0);
        run({"sh", "-ec", "cd '" + path("copy") + "'; " + change}, {});
        const Result result = against("copy");
        EXPECT_EQ(result.exitCode, 1) << change;
        EXPECT_THAT(result.out, HasSubstr("the folder does not hold what was noted")) << change;
    }
    fs::remove_all(path("data"));
    fs::create_directory(path("data"));
    fs::permissions(path("data"), fs::perms::owner_all);
    fill();
    EXPECT_THAT(against("data").out, HasSubstr("can't be told whether the folder holds what was noted"));
    EXPECT_EQ(cli({"check", path("data"), "--against", noted + "0"}).exitCode, 2);
}

}  // namespace
}  // namespace test
