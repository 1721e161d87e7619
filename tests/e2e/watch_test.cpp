// watch: changes as lines, restarts of the service beneath it, and the command that it runs.
#include <gmock/gmock.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <sstream>

#include "libsdconfig/dmconfig.h"
#include "libsdconfig/sdconfig.h"
#include "tests/e2e/sandbox.h"

namespace test {
namespace {

using ::testing::HasSubstr;

class WatchTest : public Sandbox {
protected:
    Process watch(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), "watch");
        Process process = Process::start(cliCommand(arguments), environment());
        EXPECT_TRUE(process.waitForErr("watching ")) << process.err();
        return process;
    }
    static void expectOut(const Process& process, const std::string& out) {
        EXPECT_TRUE(waitUntil([&] { return process.out() == out; })) << process.out() << process.err();
    }
    static void expectEnds(Process& process, int signal) { EXPECT_EQ(process.stop(signal), 0) << process.err(); }
    // In ticks.
    static long processorTime(const Process& process) {
        const std::string status = readFile("/proc/" + std::to_string(process.pid()) + "/stat");
        std::istringstream fields(status.substr(status.rfind(')') + 1));
        std::string skipped;
        for (int i = 0; i < 11; ++i) fields >> skipped;
        long user = 0, system = 0;
        fields >> user >> system;
        return user + system;
    }
    // This process as another client.
    sd::SDConfig& client() {
        mRuntime.emplace("XDG_RUNTIME_DIR", path("run").c_str());
        return *sd::SDConfig::GetInstance();
    }
    bool isRegistered(const std::string& key) {
        client();
        return sd::DMConfig::GetInstance()->IsAllConfigsAlreadyListened({key});
    }

private:
    std::optional<ScopedEnv> mRuntime;
};

TEST_F(WatchTest, PrintsEveryChangeUntilItIsInterrupted) {
    const Process service = startService({"--no-audit"});  // else who made a change stands behind it
    Process text = watch({"k", "theme", "k", "[a,b]"});
    Process objects = watch({"k", "--json"});
    cli({"secure", "set", "k", "local"});
    cli({"policy", "set", "k", "weak", "5"});
    cli({"policy", "set", "k", "two\nlines", "6"});
    cli({"policy", "delete", "k"});
    cli({"policy", "set", "theme", "gr\xc3\xbcn", "6"});  // a strong policy and a property make the same event
    cli({"policy", "delete", "theme"});
    std::string printed = "k local\nk two\\x0alines\nk local\ntheme gr\xc3\xbcn\ntheme \n";
    expectOut(text, printed);  // of a deletion it prints what stands by then
    cli({"set", "theme", "gr\xc3\xbcn"});
    cli({"delete", "theme"});
    cli({"set", "[a,b]", "{}"});
    expectOut(text, printed += "theme gr\xc3\xbcn\ntheme \n[a,b] {}\n");
    expectOut(objects,
              "{\"key\":\"k\",\"value\":\"local\",\"strong\":false}\n"
              "{\"key\":\"k\",\"value\":\"two\\nlines\",\"strong\":true}\n"
              "{\"key\":\"k\",\"value\":\"local\",\"strong\":false}\n");
    EXPECT_TRUE(isRegistered("theme"));
    expectEnds(text, SIGINT);
    EXPECT_FALSE(isRegistered("theme"));
    EXPECT_TRUE(isRegistered("k"));
    expectEnds(objects, SIGTERM);
    EXPECT_FALSE(isRegistered("k"));

    EXPECT_EQ(cli({"watch"}).exitCode, 2);
    EXPECT_EQ(run({"sh", "-c", "exec " SDCONFIG_CLI " watch $(seq 123)"}, environment()).exitCode, 2);
}

TEST_F(WatchTest, APatternTakesKeysThatComeLater) {
    Process service = startService();
    for (int i = 0; i < 125; ++i) client().SetSecure("many." + std::to_string(i), "1");  // more than one call takes
    Process process = watch({"k.*", "many.*"});
    cli({"secure", "set", "other", "1"});
    cli({"secure", "set", "k.new", "1"});
    expectOut(process, "k.new 1\n");
    cli({"policy", "set", "k.new", "2", "6"});
    cli({"secure", "set", "many.99", "2"});
    expectOut(process, "k.new 1\nk.new 2\nmany.99 2\n");
    expectEnds(process, SIGINT);
}

TEST_F(WatchTest, OutlivesAKilledServiceAndMissesNothing) {
    Process service = startService();
    Process first = watch({"k", "other"});
    Process second = watch({"k"});  // whichever registers first, the other finds the key registered
    cli({"policy", "set", "k", "before", "6"});
    expectOut(first, "k before\n");
    service.stop(SIGKILL);
    EXPECT_TRUE(first.waitForErr("the service is gone"));
    EXPECT_TRUE(second.waitForErr("the service is gone"));
    Process next = startService();
    cli({"policy", "set", "k", "meanwhile", "7"});
    for (Process* process : {&first, &second}) {
        EXPECT_TRUE(process->waitForErr("has been restarted"));
        expectOut(*process, "k before\nk meanwhile\n");
    }
    cli({"policy", "set", "k", "after", "7"});
    cli({"secure", "set", "other", "x"});
    expectOut(first, "k before\nk meanwhile\nk after\nother x\n");
    expectOut(second, "k before\nk meanwhile\nk after\n");
    expectEnds(first, SIGTERM);
    EXPECT_TRUE(waitUntil([this] { return isRegistered("k"); }));  // the second one sees to that
    EXPECT_EQ(second.err().find("been restarted"), second.err().rfind("been restarted")) << "told once";
    next.stop();
    EXPECT_TRUE(waitUntil([&] { return second.err().rfind("is gone") > second.err().find("been restarted"); }));
    const std::string told = second.err();
    const long used = processorTime(second);
    EXPECT_FALSE(waitUntil([&] { return second.err() != told; }, 1500)) << "told once, and not with each look";
    EXPECT_LT(processorTime(second) - used, ::sysconf(_SC_CLK_TCK) / 5) << "it waits, and does not look all the time";
    expectEnds(second, SIGINT);
}

TEST_F(WatchTest, RunsACommandForEachChangeInOrder) {
    const Process service = startService();
    const std::string log = path("log");
    Process process = watch({"k", "zero", "big", "--exec",
                             "read line; echo \"$SDCONFIG_KEY=$SDCONFIG_VALUE,$line\" >> " + log + "; while [ ! -e " +
                                 path("go") + " ]; do sleep 0.01; done; exit $SDCONFIG_VALUE"});
    for (const char* value : {"1", "2", "3"}) cli({"set", "k", value});
    cli({"secure", "set", "big"}, std::string(200000, 'x'));
    EXPECT_TRUE(client().SetProperty("zero", std::string("a\0b", 3)));
    cli({"set", "k", "0"});
    EXPECT_TRUE(waitUntil([&] { return readFile(log) == "k=1,\n"; }));
    writeFile(path("go"), "");
    EXPECT_TRUE(waitUntil([&] { return readFile(log) == "k=1,\nk=2,\nk=3,\nk=0,\n"; })) << readFile(log);
    expectEnds(process, SIGTERM);
    EXPECT_THAT(process.err(), HasSubstr("the command ended with 3"));
    EXPECT_THAT(process.err(), HasSubstr("not run for \"big\": Argument list too long"));
    EXPECT_THAT(process.err(), HasSubstr("not run for \"zero\": the value has a zero byte"));
    EXPECT_EQ(process.err().find("ended with 0"), std::string::npos);
}

TEST_F(WatchTest, EndsWithItsReaderAndNotWithItsCommand) {
    const Process service = startService();
    Process piped = Process::start({"sh", "-c", SDCONFIG_CLI " watch k | head -n 1"}, environment());
    ASSERT_TRUE(piped.waitForErr("watching ")) << piped.err();
    cli({"set", "k", "1"});
    expectOut(piped, "k 1\n");
    EXPECT_TRUE(waitUntil([&, value = 2]() mutable {
        cli({"set", "k", std::to_string(value++)});  // nobody reads it
        return piped.wait(10) == 0;
    }));
    EXPECT_FALSE(isRegistered("k"));

    Process process = watch({"k", "--exec",
                             "touch " + path("begun") + "; while [ ! -e " + path("go") +
                                 " ]; do sleep 0.01; done; touch " + path("ended")});
    cli({"set", "k", "first"});
    cli({"set", "k", "second"});
    ASSERT_TRUE(waitUntil([this] { return std::filesystem::exists(path("begun")); }));
    ASSERT_TRUE(waitUntil([&] { return process.out() == "k first\nk second\n"; }));
    process.kill(SIGTERM);
    ASSERT_TRUE(process.waitForErr("not run for any more: 1"));
    writeFile(path("go"), "");
    EXPECT_EQ(process.wait(), 0);
    EXPECT_TRUE(std::filesystem::exists(path("ended")));
}

}  // namespace
}  // namespace test
