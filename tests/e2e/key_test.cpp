// The keys of the ring by the command line, beside a service that serves.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "tests/e2e/sandbox.h"

namespace test {
namespace {

using nlohmann::json;
using ::testing::AllOf;
using ::testing::HasSubstr;

class KeyTest : public Sandbox {
protected:
    json keys() const { return json::parse(cli({"key", "list", "--data-dir", path("data"), "--json"}).out)["keys"]; }
    std::string id(std::size_t number) const { return keys()[number]["key"]; }
    void sql(const std::string& statement) const {
        EXPECT_EQ(run({"sqlite3", path("data/sdconfig.db"), ".timeout 5000", statement}).exitCode, 0);
    }
};

TEST_F(KeyTest, GoesOnAndLeavesWhatCantBeOpened) {
    {
        const Process service = startService();
        for (const char* key : {"good", "bad"}) cli({"secure", "set", key, "v"});
    }
    // As a service leaves it that was killed when the key had been made.
    sql("INSERT INTO dbinfor(key, value) VALUES('replacedKey', '" + id(0) + "')");
    EXPECT_EQ(run({SDCONFIGD, "--rotate-key", "--data-dir", path("data")}, environment()).exitCode, 0);
    sql("UPDATE secure_v3 SET value='v1garbage' WHERE key='bad'");
    const Process service = startService();
    const Result result = cli({"key", "rotate", "--reseal"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.err,
                AllOf(HasSubstr("it goes on under its key " + id(1)),
                      HasSubstr("1 row was left as it is: secure value \"bad\"; see why with: sdconfig check; set")));
    EXPECT_EQ(keys().size(), 2U);
    EXPECT_EQ(cli({"secure", "get", "good"}).out, "v\n");
    cli({"secure", "delete", "bad"});
    EXPECT_EQ(json::parse(cli({"key", "rotate", "--reseal", "--json"}).out)["went_on"], false);
    EXPECT_EQ(keys().size(), 3U);
    for (int i = 0; i <= 10; ++i)
        sql("INSERT INTO secure_v3(key, value) VALUES('bad" + std::to_string(i) + "', 'v1garbage')");
    EXPECT_THAT(cli({"key", "rotate", "--reseal"}).err,
                AllOf(HasSubstr("11 rows were left as they are: "), HasSubstr("\"bad9\", and 1 more; see why")));
}

TEST_F(KeyTest, AFullDiskStopsItAndLosesNothing) {
    if (!mountDisk("data", "4m")) GTEST_SKIP() << "a small disk of one's own takes a privilege";
    const Process service = startService();
    for (int i = 0; i < 40; ++i) cli({"secure", "set", "k" + std::to_string(i)}, std::string(12'000, 'x'));
    const auto fill = [this](int pagesLeft) {
        const std::string filler =
            "f=" + path("data/filler") + "; cat /dev/zero >$f 2>/dev/null; truncate -s $(($(stat";
        run({"sh", "-c", filler + " -c %s $f) - 4096 * " + std::to_string(pagesLeft) + ")) $f"}, {});
    };
    const auto expectStopped = [&](const char* told, std::size_t count, const std::vector<std::string>& arguments) {
        const Result result = cli(arguments);
        EXPECT_EQ(result.exitCode, 1) << result.out;
        EXPECT_THAT(result.err, HasSubstr(told));
        EXPECT_EQ(keys().size(), count);
        EXPECT_EQ(json::parse(cli({"check", path("data"), "--json"}).out)["findings"].size(), 0U);
    };
    fill(0);
    expectStopped("on a full disk; nothing was lost", 1, {"key", "rotate", "--reseal"});
    expectStopped("can't read or change its key ring", 1, {"key", "rotate"});
    EXPECT_THAT(service.err(), HasSubstr("sdsecurity.keys.new: No space left on device"));
    fill(16);
    expectStopped("on a full disk; nothing was lost", 2, {"key", "rotate", "--reseal"});
    std::filesystem::remove(path("data/filler"));
    const json resealed = json::parse(cli({"key", "rotate", "--reseal", "--json"}).out);
    EXPECT_EQ(resealed["went_on"], true);
    EXPECT_EQ(resealed["done"], true);
    EXPECT_EQ(cli({"key", "prune", "--yes"}).exitCode, 0);
    EXPECT_EQ(keys().size(), 1U);
    for (int i = 0; i < 40; ++i)
        EXPECT_EQ(cli({"secure", "get", "k" + std::to_string(i)}).out, std::string(12'000, 'x') + "\n");
}

}  // namespace
}  // namespace test
