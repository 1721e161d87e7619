// The service as a process: its start and its end, restarts beneath a living client, and what it refuses to serve.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>

#include "libsdconfig/sdconfig.h"
#include "tests/e2e/sandbox.h"
#include "trail/reader.h"

namespace test {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

// What the service tells the manager that started it.
class Manager {
public:
    explicit Manager(const std::string& path)
        : mEnv("NOTIFY_SOCKET", path.c_str()), mSocket(socketAt(path, SOCK_DGRAM | SOCK_NONBLOCK)) {}
    ~Manager() { ::close(mSocket); }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    // The next message that came; "" without one.
    std::string told() const {
        char text[100] = {};
        return ::recv(mSocket, text, sizeof text - 1, 0) > 0 ? text : "";
    }

private:
    const ScopedEnv mEnv;
    const int mSocket;
};

class DaemonTest : public Sandbox {
protected:
    // A start that fails: one line that holds `told`.
    void expectRefusal(const std::string& told, const std::vector<std::string>& options = {}, int exitCode = 1) {
        std::vector<std::string> arguments{SDCONFIGD, "--log-level", "8", "--data-dir", path("data")};
        arguments.insert(arguments.end(), options.begin(), options.end());
        Sandbox::expectRefusal(run(arguments, environment()), told, exitCode);
        EXPECT_FALSE(std::filesystem::exists(socketPath()));
    }

    static std::vector<std::string> trailOf(const std::string& folder);
    void serveUntil(int signal, const std::function<void()>& act, const std::vector<std::string>& options = {}) const;

    unsigned int mode(const std::string& name) const {
        struct stat status {};
        return ::stat(path(name).c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
    }
};

TEST_F(DaemonTest, StartsPrivatelyTellsItsManagerAndEndsCleanly) {
    const Manager manager(path("notify"));
    std::filesystem::remove(path("data"));
    Process service = startService({"--data-dir", path("data/deeper")});
    EXPECT_EQ(manager.told(), "READY=1");
    for (const char* folder : {"data", "data/deeper", "run/sdbus"}) EXPECT_EQ(mode(folder), 0700u) << folder;
    const Result second = run({SDCONFIGD, "--data-dir", path("other")}, environment());
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_THAT(second.err, HasSubstr("already running as process " + std::to_string(service.pid())));
    EXPECT_FALSE(std::filesystem::exists(path("other")));
    EXPECT_EQ(cli({"secure", "set", "k", "v"}).exitCode, 0);
    for (const char* file :
         {"data/deeper/sdconfig.db", "data/deeper/dmhelper.db", "data/deeper/sdsecurity.keys", "run/sdbus/sdconfig"})
        EXPECT_EQ(mode(file), 0600u) << file;
    EXPECT_EQ(service.stop(), 0);
    EXPECT_EQ(manager.told(), "STOPPING=1");
    EXPECT_TRUE(std::filesystem::is_empty(path("run/sdbus")));
}

TEST_F(DaemonTest, FindsTheUsersFolderWithoutAHome) {
    const std::string usual = std::string(::getpwuid(::geteuid())->pw_dir) + "/.local/share/sdconfig";
    for (const char* home : {"", "relative"})
        EXPECT_THAT(run({SDCONFIGD, "--help"}, {{"HOME", home}, {"XDG_DATA_HOME", home}}).out, HasSubstr(usual));
    EXPECT_THAT(run({SDCONFIGD, "--help"}, {{"XDG_RUNTIME_DIR", "/run/"}}).out, HasSubstr("/var/lib/sdconfig"));
}

TEST_F(DaemonTest, GivesASignOfLifeWhileItAnswers) {
    const ScopedEnv watchdog("WATCHDOG_USEC", "200000");
    const Manager manager(path("notify"));
    const auto isAlive = [&manager] { return manager.told() == "WATCHDOG=1"; };
    const Process service = startService();
    EXPECT_TRUE(waitUntil(isAlive) && waitUntil(isAlive));
    Process holder = hold(path("data/sdconfig.db"), "BEGIN IMMEDIATE");
    Process setter = Process::start(cliCommand({"secure", "set", "k", "v"}), environment());
    EXPECT_TRUE(waitUntil([&] { return !waitUntil(isAlive, 500); })) << "it tells so though it is held up";
    release();
    EXPECT_EQ(holder.wait(), 0);
    EXPECT_TRUE(waitUntil(isAlive));
    EXPECT_EQ(setter.wait(), 0) << setter.err();
}

TEST_F(DaemonTest, StartsBehindASocketThatItsManagerHolds) {
    const int listener = listenAt(socketPath());
    ::fcntl(listener, F_SETFD, 0);  // so that it is handed over
    Process list = Process::start(cliCommand({"list"}), environment());
    pollfd called{listener, POLLIN, 0};
    ASSERT_EQ(::poll(&called, 1, kProcessLimitMs), 1) << list.err();
    const std::string start = "export LISTEN_PID=$$ LISTEN_FDS=1; exec \"$0\" --data-dir \"$1\" 3<&";
    const Process service =
        Process::start({"sh", "-c", start + std::to_string(listener), SDCONFIGD, path("data")}, environment());
    EXPECT_EQ(list.wait(), 0) << list.err() << service.err();
    EXPECT_THAT(cli({"status"}).out, HasSubstr("pid: " + std::to_string(service.pid()) + "\n"));
    ::close(listener);
}

TEST_F(DaemonTest, RefusesWhatItCannotServe) {
    const std::string database = path("data/sdconfig.db");
    writeFile(database, std::string(8192, 'x'));
    expectRefusal("can't open the database " + database + ": file is not a database");
    EXPECT_EQ(readFile(database), std::string(8192, 'x'));
    std::filesystem::remove(database);
    std::filesystem::create_directory(path("data/dmhelper.db"));
    expectRefusal(path("data/dmhelper.db") + " is not a regular file");
    std::filesystem::remove(path("data/dmhelper.db"));
    ASSERT_EQ(::mkfifo(path("data/sdconfig.db-journal").c_str(), 0600), 0);
    expectRefusal("sdconfig.db-journal is not a regular file");
    std::filesystem::remove(path("data/sdconfig.db-journal"));

    writeFile(path("openssl.cnf"), "openssl_conf = a\n[a]\nproviders = b\n[b]\nnull = c\n[c]\nactivate = 1\n");
    {
        const ScopedEnv withoutCiphers("OPENSSL_CONF", path("openssl.cnf").c_str());
        expectRefusal("nothing can be sealed or opened: OpenSSL failed");
    }
    writeFile(path(OPENSSL_SONAME), "no library");
    {
        const ScopedEnv withoutOpenSsl("LD_LIBRARY_PATH", path("").c_str());
        expectRefusal("nothing can be sealed or opened: " + path(OPENSSL_SONAME) + ": file too short");
    }
}

TEST_F(DaemonTest, TellsOnceThatThereIsNoBuildProp) {
    expectRefusal("--product-dir names no folder: " + path("nowhere") + "; name ", {"--product-dir", path("nowhere")},
                  2);
    for (const char* file : {"/etc/build.prop", "/velmar/etc/build.prop"})
        if (std::filesystem::exists(file)) GTEST_SKIP() << "this machine has " << file;
    Process service = Process::start({SDCONFIGD, "--data-dir", path("data")}, environment());
    ASSERT_TRUE(service.waitForErr("sdconfigd: ready on "));
    EXPECT_EQ(cli({"secure", "set", "k", "v"}).exitCode, 0);
    EXPECT_TRUE(service.waitForErr("there is no build.prop"));
    EXPECT_THAT(service.err(), ::testing::Not(HasSubstr(" E ")));
}

TEST_F(DaemonTest, AFullDiskCostsNothingAndIsTold) {
    if (!mountDisk("data", "24k")) GTEST_SKIP() << "a small disk of one's own takes a privilege";
    expectRefusal("is there room on the disk?");
    ASSERT_TRUE(mountDisk("data", "2m"));
    const Process service = startService({"--log-level", "8"});
    EXPECT_EQ(cli({"secure", "set", "k", "small"}).exitCode, 0);
    EXPECT_EQ(cli({"secure", "set", "k"}, std::string(4 << 20, 'x')).exitCode, 1);
    EXPECT_EQ(cli({"secure", "get", "k"}).out, "small\n");
    EXPECT_EQ(cli({"secure", "set", "k", "other"}).exitCode, 0);
    EXPECT_EQ(cli({"secure", "get", "k"}).out, "other\n");
    // The trail has what came meanwhile once there is room again.
    ASSERT_EQ(::mount("none", path("data").c_str(), "tmpfs", MS_REMOUNT, "mode=700,size=8m"), 0);
    EXPECT_TRUE(waitUntil([this] { return trailOf(path("data")).size() == 4; }, 20000));
    EXPECT_THAT(trailOf(path("data")),
                testing::ElementsAre("START=", "SET_SECURE k=changed", "SET_SECURE k=failed", "SET_SECURE k=changed"));
}

// What "what key=came" the trail has of each entry whose `what` is not left out; and its START's, as "START came
// count".
std::vector<std::string> DaemonTest::trailOf(const std::string& folder) {
    std::vector<std::string> told;
    sd::trail::Reader reader(folder, sd::trail::Order::OldestFirst);
    for (sd::trail::Line line; reader.next(line);) {
        EXPECT_EQ(line.problem, "");
        const sd::trail::Entry& entry = line.entry;
        const std::string count = entry.count ? " " + std::to_string(*entry.count) : "";
        if (entry.key.value_or("").compare(0, 14, "config.device.") == 0) continue;  // of a client's start
        told.push_back(entry.what + (entry.key ? " " + *entry.key : "") + "=" + entry.came + count);
    }
    return told;
}

void DaemonTest::serveUntil(int signal, const std::function<void()>& act,
                            const std::vector<std::string>& options) const {
    Process service = startService(options);
    act();
    service.stop(signal);
}

TEST_F(DaemonTest, AKillTakesNothingFromTheTrail) {
    serveUntil(SIGKILL, [this] {
        for (const char* key : {"a", "b", "c"}) EXPECT_EQ(cli({"secure", "set", key, "1"}).exitCode, 0);
        EXPECT_EQ(cli({"policy", "set", "c", "2", "9"}).exitCode, 0);
    });
    const std::string file = path("data/trail.jsonl");
    const std::string whole = readFile(file);
    // What the disk lost of it, in the middle of a line, stands in the databases.
    writeFile(file, whole.substr(0, whole.find("\"b\"")));
    serveUntil(SIGTERM, [] {});
    EXPECT_EQ(readFile(file).substr(0, whole.size()), whole);
    serveUntil(SIGTERM, [] {}, {"--upgrade"});  // of which there is no entry where nothing is to be done
    const std::vector<std::string> told = trailOf(path("data"));
    EXPECT_THAT(told, testing::ElementsAre("START=", "SET_SECURE a=changed", "SET_SECURE b=changed",
                                           "SET_SECURE c=changed", "SET_POLICY c=changed", "DAMAGE=", "START=unclean 3",
                                           "END=", "START=clean", "END="));
    EXPECT_EQ(mode("data/trail.jsonl"), 0600U);
}

TEST_F(DaemonTest, KeepsAsManyFilesOfTheTrailAsItIsTold) {
    EXPECT_THAT(run({SDCONFIGD, "--help"}, environment()).out,
                AllOf(HasSubstr("--audit-size MIB:INT in [1 - 1048576]=8\n"),
                      HasSubstr("--audit-keep N:INT in [1 - 1000]=4\n")));  // and the manual page
    const Process service = startService({"--audit-size", "1", "--audit-keep", "1"});
    const std::string key(60000, 'k');
    const auto files = [this] {
        std::vector<std::string> names;
        for (const auto& file : std::filesystem::directory_iterator(path("data")))
            if (const std::string name = file.path().filename(); name.rfind("trail-", 0) == 0) names.push_back(name);
        return names;
    };
    const auto isTheSecond = [&] { return files().size() == 1 && files()[0] > "trail-000000000002"; };
    for (int i = 0; i < 200 && !isTheSecond(); ++i)  // files go on in the background
        ASSERT_EQ(cli({"secure", "set", key + std::to_string(i), "1"}).exitCode, 0);
    EXPECT_TRUE(waitUntil(isTheSecond)) << testing::PrintToString(files());
}

TEST_F(DaemonTest, KeepsNoTrailWhereItIsToldSo) {
    const auto change = [this] {
        EXPECT_EQ(cli({"secure", "set", "k", "1"}).exitCode, 0);
        EXPECT_EQ(cli({"policy", "set", "k", "1", "9"}).exitCode, 0);
    };
    serveUntil(SIGTERM, change, {"--no-audit"});
    EXPECT_FALSE(std::filesystem::exists(path("data/trail.jsonl")));
    for (const char* database : {"data/sdconfig.db", "data/dmhelper.db"})
        EXPECT_TRUE(query(path(database), "SELECT 1 FROM sqlite_master WHERE name='trail'").empty());
}

TEST_F(DaemonTest, RefusesSealedRowsWithoutTheirRing) {
    const std::string ring = path("data/sdsecurity.keys");
    {
        const Process service = startService();
        EXPECT_EQ(cli({"secure", "set", "k", "v"}).exitCode, 0);
    }
    std::filesystem::rename(ring, ring + ".away");
    expectRefusal("hold sealed values but the key ring " + ring, {"--rotate-key"});
    expectRefusal("hold sealed values but the key ring " + ring);
    for (const char* file : {"dmhelper.db", "dmhelper.db-wal", "dmhelper.db-shm"})
        std::filesystem::remove(path("data/") + file);
    writeFile(ring, "damaged");
    expectRefusal("the key ring can't be used: " + ring);
    EXPECT_EQ(readFile(ring), "damaged");
    EXPECT_FALSE(std::filesystem::exists(path("data/dmhelper.db"))) << "the next start would take it for emptied";
    std::filesystem::rename(ring + ".away", ring);
    const std::string before = readFile(ring);
    const Process service = startService();
    const Result other = run({SDCONFIGD, "--rotate-key", "--data-dir", path("etc")}, environment());
    EXPECT_EQ(other.exitCode, 1);
    EXPECT_THAT(other.err, HasSubstr("the running service keeps its data in " + path("data")));
    EXPECT_EQ(run({SDCONFIGD, "--rotate-key"}, environment()).exitCode, 0);
    EXPECT_THAT(readFile(ring), AllOf(HasSubstr(before.substr(before.find("\nsum ") - 64, 64)), Not(before)));
    EXPECT_EQ(cli({"secure", "get", "k"}).out, "v\n");
}

TEST_F(DaemonTest, RefusesDamageAndLeavesItAsItIs) {
    const std::string database = path("data/sdconfig.db");
    const std::string log = database + "-wal";
    const auto refuse = [&](const std::string& file, const std::string& bytes, const std::string& told) {
        writeFile(file, bytes);
        expectRefusal(told);
        EXPECT_EQ(readFile(file), bytes) << told;
    };
    {
        const Process service = startService();
        for (const char* value : {"1", "2"}) EXPECT_EQ(cli({"secure", "set", "k", value}).exitCode, 0);
        service.kill(SIGKILL);  // a log stays
    }
    std::filesystem::remove(socketPath());
    const std::string soundDatabase = readFile(database);
    const std::string soundLog = readFile(log);
    std::string damaged;
    for (const auto& [byte, told] : {std::pair<std::size_t, const char*>(100, "32"), {3, "0"}}) {
        damaged = soundLog;
        damaged[byte] ^= 2;
        refuse(log, damaged, "the log " + log + " is damaged at byte " + told);
    }
    writeFile(log, soundLog);
    refuse(database, "", "missing or empty beside its log");
    EXPECT_EQ(readFile(log), soundLog);
    std::filesystem::remove(log);
    refuse(database, soundDatabase, "is there but empty, though values were sealed");

    writeFile(log, soundLog);
    {
        Process service = startService();
        EXPECT_EQ(cli({"secure", "get", "k"}).out, "2\n");
        EXPECT_EQ(service.stop(), 0);
    }
    damaged = readFile(database);
    damaged.replace(damaged.size() - 4096, 4096, 4096, '\0');
    refuse(database, damaged, "the database " + database + " is damaged (");
}

TEST_F(DaemonTest, ChecksTheDatabasesUnlessTheLastServiceEndedCleanlyAndNothingChanged) {
    const std::string mark = path("data/sdconfigd.clean");
    const auto startSays = [&](const std::string& told, int end = SIGTERM) {
        Process service = startService({"--log-level", "5"});
        EXPECT_THAT(service.err(), HasSubstr(told));
        EXPECT_FALSE(std::filesystem::exists(mark)) << "it was to go before anything is served";
        EXPECT_EQ(cli({"secure", "get", "k"}).exitCode, 0);
        service.stop(end);
    };
    {
        Process service = startService({"--log-level", "5"});
        EXPECT_THAT(service.err(), HasSubstr("no service ended cleanly here before"));
        EXPECT_EQ(cli({"secure", "set", "k", "v"}).exitCode, 0);
        EXPECT_EQ(service.stop(), 0);
    }
    EXPECT_EQ(mode("data/sdconfigd.clean"), 0600u);
    startSays("the last service ended cleanly");
    EXPECT_THAT(cli({"check", path("data")}).out, HasSubstr("secure values 7"));
    startSays("the last service ended cleanly", SIGKILL);
    startSays("no service ended cleanly here before");

    // Each keeps names and sizes; the first keeps what the file holds and when it was written, too.
    for (const std::string change : {
             "touch -r $f t; head -c 16 $f | dd of=$f conv=notrunc; touch -r t $f",
             "cp -p $f t; mv t $f",
             "cp -p data/sdsecurity.keys t; mv t data/sdsecurity.keys",
             "echo log >data/dmhelper.db-wal",
             "sed -i s/cleanly/clearly/ data/sdconfigd.clean",
         }) {
        ASSERT_EQ(run({"sh", "-ec", "cd '" + path("") + "'; f=data/sdconfig.db; " + change}, {}).exitCode, 0) << change;
        startSays("something changed since the last service ended");
    }
    {
        Process service = startService({"--log-level", "5"});
        EXPECT_THAT(service.err(), HasSubstr("the last service ended cleanly"));
        std::filesystem::copy_file(path("data/sdconfig.db"), path("t"));
        std::filesystem::rename(path("t"), path("data/sdconfig.db"));
        EXPECT_EQ(service.stop(), 0);
    }
    EXPECT_FALSE(std::filesystem::exists(mark)) << "nobody looked at what took the database's place";
    std::filesystem::create_directory(mark);
    expectRefusal("can't remove " + mark);
    std::filesystem::remove(mark);

    const std::string database = path("data/sdconfig.db");
    Process service = startService();
    const std::string damage = "dd if=/dev/zero of='" + database + "' bs=4096 seek=1 count=9 conv=notrunc";
    ASSERT_EQ(run({"sh", "-c", damage}, {}).exitCode, 0);
    EXPECT_NE(cli({"secure", "get", "k"}).exitCode, 0);
    EXPECT_EQ(service.stop(), 0);
    expectRefusal("the database " + database + " is damaged (");
}

TEST_F(DaemonTest, LinesHideValuesAndNoCoreIsDumpedUnlessTheServiceIsToldSo) {
    const auto limits = [](const Process& service) {
        return readFile("/proc/" + std::to_string(service.pid()) + "/limits");
    };
    const auto noDumps = HasSubstr("\nMax core file size        1  ");
    {
        const Process service = startService({"--log-level", "5"});
        const std::string told = cli({"-v", "secure", "set", "ro.sd.uuid", "canary"}).err;
        EXPECT_THAT(told, AllOf(HasSubstr("value is [6 bytes, "), Not(HasSubstr("canary"))));
        cli({"policy", "set", "ro.sd.client.id", "canary", "9"});
        cli({"set", "ro.a", "set"});
        cli({"set", "ro.a", "canary"});
        EXPECT_THAT(service.err(), AllOf(HasSubstr("latestVal is [6 bytes, "), HasSubstr("ro.a=[6 bytes, "),
                                         HasSubstr("encrypted is ["), Not(HasSubstr("canary"))));
        EXPECT_THAT(limits(service), noDumps);
    }
    const Process service = startService({"--log-level", "5", "--log-secrets", "--allow-dumps"});
    cli({"get", "any"});
    EXPECT_EQ(cli({"secure", "get", "ro.sd.uuid"}).out, "canary\n");
    EXPECT_THAT(service.err(), HasSubstr("value is canary"));
    EXPECT_THAT(limits(service), Not(noDumps));
}

// As a host that brings its own layers may have it.
TEST_F(DaemonTest, ServesWithALogLayerOfAnEarlierVersion) {
    Environment environment = this->environment();
    environment["LD_LIBRARY_PATH"] = EARLIER_LOG;
    Process service = Process::start({SDCONFIGD, "--log-level", "5", "--data-dir", path("data")}, environment);
    ASSERT_TRUE(service.waitForErr("sdconfigd: ready on ")) << service.err();
    EXPECT_THAT(service.err(), HasSubstr("the log layer can't hide values"));
    EXPECT_EQ(cli({"secure", "set", "ro.sd.uuid", "v"}).exitCode, 0);
    EXPECT_EQ(cli({"secure", "get", "ro.sd.uuid"}).out, "v\n");
    EXPECT_THAT(service.err(), HasSubstr("earlier: sdconfig "));
}

TEST_F(DaemonTest, AClientLivesThroughAKillAndARestart) {
    const ScopedEnv runtime("XDG_RUNTIME_DIR", path("run").c_str());
    sd::SDConfig& config = *sd::SDConfig::GetInstance();
    for (int round = 0; round < 3; ++round) {
        Process service = startService();
        const std::string value = std::to_string(round);
        EXPECT_EQ(config.GetSecure("kept"), round == 0 ? "" : std::to_string(round - 1));
        EXPECT_TRUE(config.SetSecure("kept", value));
        service.stop(SIGKILL);
        EXPECT_EQ(config.GetSecure("kept"), "");
    }
    EXPECT_EQ(query(path("data/sdconfig.db"), "PRAGMA integrity_check"),
              (std::vector<std::vector<std::string>>{{"ok"}}));
}

TEST_F(DaemonTest, TheCallInHandIsAnsweredBeforeTheEnd) {
    Process service = startService({"--log-level", "5", "--log-secrets"});
    cli({"secure", "set", "ro.sd.uuid", "old"});
    cli({"get", "any"});  // what the call before logs behind its answer is logged now
    const std::size_t before = service.err().size();
    const Process holder = hold(path("data/sdconfig.db"), "BEGIN IMMEDIATE");
    Process secret = Process::start(cliCommand({"secure", "set", "ro.sd.uuid", "v"}), environment());
    ASSERT_TRUE(waitUntil([&] { return service.err().find("value is old", before) != std::string::npos; }))
        << service.err();  // it has read the old value, and waits for the lock next
    service.kill(SIGTERM);
    release();
    EXPECT_EQ(secret.wait(), 0) << secret.err();
    EXPECT_EQ(service.wait(), 0);
}

}  // namespace
}  // namespace test
