// backup and restore: what a backup gives back, or refuses to.
#include <gmock/gmock.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

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

class BackupTest : public Sandbox {
protected:
    BackupTest() { fs::permissions(path("data"), fs::perms::owner_all); }

    // A stopped service's data folder with a secure value and a policy.
    void fill() const {
        Process service = startService();
        EXPECT_EQ(cli({"secure", "set", "k", "v"}).exitCode, 0);
        EXPECT_EQ(cli({"policy", "set", "u", "forced", "7"}).exitCode, 0);
        EXPECT_EQ(service.stop(), 0);
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
        const auto before = contentsOf(path("."));
        expectRefusal(command(), told);
        EXPECT_EQ(contentsOf(path(".")), before) << told;
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
    service.stop();

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

    std::string forged = readFile(path("file"));
    forged[forged.find("\nstate ") + 8] ^= 1;
    writeFile(path("file"), withItsSum(forged));
    EXPECT_THAT(restore("newer").err, HasSubstr("the passphrase does not open the key ring, or the file was changed"));

    fs::remove(path("data/trail.jsonl"));  // of which the first format knew nothing
    EXPECT_EQ(backup({"--without-keys", "--force"}).exitCode, 0);
    std::string first = readFile(path("file"));
    first[16] = '1';
    first.erase(first.find("state "), first.find("keys none") - first.find("state "));
    writeFile(path("file"), withItsSum(first));
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
    EXPECT_THAT(cli({"check", path("new")}).out, HasSubstr("hold sealed values but the key ring"));
}

TEST_F(BackupTest, ARingMadeMeanwhileIsNotForgotten) {
    fill();
    const std::string ring = path("data/sdsecurity.keys");
    fs::rename(ring, path("ring"));
    run({"sqlite3", path("data/sdconfig.db"), "PRAGMA journal_mode = DELETE"});
    const Process holder = hold(path("data/sdconfig.db"), "BEGIN EXCLUSIVE");
    Process backup = Process::start(cliCommand({"backup", path("file"), path("data")}), environment());
    // Its folder is made after it has looked for the ring and before it waits for the database.
    run({"sh", "-c", "until ls -d \"$0\".unfinished-*; do sleep 0.02; done", path("file")});
    fs::rename(path("ring"), ring);
    release();
    EXPECT_EQ(backup.wait(), 1);
    EXPECT_THAT(backup.err(), HasSubstr("a key ring was made meanwhile"));
    EXPECT_FALSE(fs::exists(path("file")));
}

}  // namespace
}  // namespace test
