// Where a value comes from, and the reader of the data folder behind it, which leaves no trace.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <map>
#include <nlohmann/json.hpp>

#include "tests/e2e/sandbox.h"

namespace test {
namespace {

using nlohmann::json;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

class ExplainTest : public Sandbox {
protected:
    json explain(const std::string& key, std::vector<std::string> options = {}) const {
        options.insert(options.begin(), {"explain", key, "--json"});
        const Result result = cli(options);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return json::parse(result.out, nullptr, false);
    }
    // Every file of a folder with its content.
    static std::map<std::string, std::string> contents(const std::string& folder) {
        std::map<std::string, std::string> files;
        for (const auto& entry : std::filesystem::directory_iterator(folder))
            files[entry.path().filename()] = readFile(entry.path());
        return files;
    }
    void expectListFails(const std::string& folder, const std::string& told) const {
        const Result result = cli({"list", "--data-dir", folder});
        EXPECT_EQ(result.exitCode, 3);  // as without a service from every command that needs none
        EXPECT_THAT(result.err, HasSubstr(told));
    }
};

TEST_F(ExplainTest, TellsEveryOrigin) {
    const Process service = startService();
    for (const char* key : {"strong", "tie"}) cli({"secure", "set", key, "secret-local"});
    for (const char* key : {"hidden", "OTHER"}) cli({"secure", "set", key, ""});
    const struct {
        const char* key;
        const char* priority;
    } policies[] = {{"strong", "6"}, {"tie", "5"}, {"weak", "3"}, {"hidden", "5"}, {"other", "5"}};
    for (const auto& [key, priority] : policies) cli({"policy", "set", key, "secret-policy", priority});
    const struct {
        const char* key;
        const char* origin;
        const char* value;
        const char* without;
    } cases[] = {
        {"strong", "strong_policy", "secret-policy\n", "local"}, {"tie", "local", "secret-local\n", "local"},
        {"weak", "weak_policy", "secret-policy\n", "unset"},     {"hidden", "hidden_by_empty_row", "", "unset"},
        {"other", "weak_policy", "secret-policy\n", "unset"},    {"nothing", "unset", "", "unset"},
    };
    for (const auto& [key, origin, value, without] : cases) {
        SCOPED_TRACE(key);
        const json secure = explain(key, {"--show"})["secure"];
        EXPECT_EQ(secure["origin"], origin);
        EXPECT_EQ(secure["layers"]["without_policy"]["origin"], without);
        EXPECT_EQ(cli({"secure", "get", key}).out, value);
        EXPECT_EQ(secure.value("value", "") + (secure["set"] ? "\n" : ""), value);
        for (const auto& arguments : {std::vector<std::string>{"explain", key}, {"explain", key, "--json"}, {"list"}})
            EXPECT_THAT(cli(arguments).out, Not(HasSubstr("secret-")));
    }
    EXPECT_THAT(cli({"list"}).out, AllOf(HasSubstr("secure\tstrong\n"), HasSubstr("policy\tstrong\n")));
    EXPECT_THAT(cli({"list", "--show"}).out,
                AllOf(HasSubstr("secure\tstrong\tsecret-local\n"), HasSubstr("policy\tstrong\t6\tsecret-policy\n")));

    query(path("data/sdconfig.db"), "UPDATE secure_v3 SET key = 'moved' WHERE key = 'strong'");
    EXPECT_EQ(explain("moved")["secure"]["layers"]["local"]["fault"], "belongs to another row");
    EXPECT_THAT(cli({"explain", "moved"}).out, HasSubstr("a row that reads as empty: it belongs to another row\n"));
    std::filesystem::rename(path("data/sdconfig.db"), path("data/away"));  // so that only the service tells
    EXPECT_EQ(cli({"list"}).out, "policy\thidden\npolicy\tother\npolicy\tstrong\npolicy\ttie\npolicy\tweak\n");
    EXPECT_THAT(cli({"list"}).err, HasSubstr(path("data") + " has no database of secure values"));
    EXPECT_EQ(explain("strong")["secure"]["origin"], "strong_policy");
    EXPECT_EQ(explain("tie")["secure"]["origin"], "local_or_policy");
    EXPECT_EQ(explain("hidden")["secure"]["origin"], "unset_or_hidden");
    EXPECT_EQ(explain("tie")["secure"]["layers"], nullptr);
    EXPECT_THAT(cli({"explain", "tie"}).err, HasSubstr("what the service alone tells"));
    EXPECT_EQ(cli({"explain", "tie", "--data-dir", path("etc")}).exitCode, 2);
}

TEST_F(ExplainTest, ReadsTheDataInEveryStateAndLeavesNoTrace) {
    const std::string data = path("data");
    const auto expectRead = [&](const char* state, const std::string& folder) {
        SCOPED_TRACE(state);
        const auto before = contents(folder);
        EXPECT_EQ(explain("k", {"--show", "--data-dir", folder})["secure"]["value"], "latest");
        EXPECT_EQ(contents(folder), before);
    };
    Process service = startService();
    cli({"secure", "set", "k", "first"});
    cli({"secure", "set", "k", "latest"});
    expectRead("served", data);
    service.kill(SIGKILL);
    service.wait();
    expectRead("left by a killed service", data);
    std::filesystem::copy(data, path("copy"));
    for (const char* index : {"copy/sdconfig.db-shm", "copy/dmhelper.db-shm"}) std::filesystem::remove(path(index));
    expectRead("copied without its index", path("copy"));
    Process next = startService();
    next.kill(SIGTERM);
    EXPECT_EQ(next.wait(), 0);
    EXPECT_EQ(contents(data).count("sdconfig.db-wal"), 0u);
    expectRead("left by a stopped service", data);
    ASSERT_EQ(::mkfifo((data + "/sdconfig.db-wal").c_str(), 0600), 0);
    expectListFails(data, "sdconfig.db-wal is not a regular file");
    std::filesystem::remove(data + "/sdconfig.db-wal");
    query(data + "/sdconfig.db", "PRAGMA journal_mode = DELETE");
    expectRead("with a journal of the other kind", data);

    EXPECT_EQ(cli({"explain", "k"}).exitCode, 3);  // no service, and no data in the usual folder
    EXPECT_EQ(cli({"policy", "list"}).exitCode, 3);
    EXPECT_THAT(cli({"policy", "list", "--data-dir", data}).err, HasSubstr("not running; this was read from " + data));
    std::filesystem::rename(data + "/dmhelper.db", path("away"));
    EXPECT_THAT(cli({"policy", "list", "--data-dir", data}).err, HasSubstr("has no database of policies"));
    expectRead("without policies", data);
    std::filesystem::rename(path("away"), data + "/dmhelper.db");
    expectListFails(path("etc"), path("etc/sdconfig.db") + " is not there");
    std::filesystem::rename(data + "/sdsecurity.keys", path("ring"));
    EXPECT_THAT(cli({"list", "--data-dir", data}).out, HasSubstr("secure\tk\n"));
    EXPECT_THAT(cli({"list", "--show", "--data-dir", data}).err, HasSubstr("the key ring can't be used"));
    EXPECT_FALSE(std::filesystem::exists(data + "/sdsecurity.keys"));
    query(data + "/dmhelper.db", "DROP TABLE dmhelperconfig");
    expectListFails(data, "lacks its table dmhelperconfig; restore the folder");
    writeFile(data + "/sdconfig.db", std::string(8192, 'x'));
    expectListFails(data, "is not a database");
    std::filesystem::remove(data + "/sdconfig.db");
    std::filesystem::create_directory(data + "/sdconfig.db");
    expectListFails(data, "is not a regular file");
}

TEST_F(ExplainTest, TellsTheFileOfAProperty) {
    writeFile(path("etc/build.prop"), "ro.sd.model=X1\nvolume=3\nvolume=4\n");
    const Process service = startService();
    cli({"set", "set.later", "x"});
    cli({"set", "volume", "9"});
    const std::string file = path("product/../etc/build.prop");
    const auto property = [&](const char* key) { return explain(key, {"--product-dir", path("product")})["property"]; };
    EXPECT_EQ(property("ro.sd.model"),
              json::parse(R"({"set":true,"origin":"file","value":"X1","file":")" + file + R"(","read_only":true})"));
    EXPECT_EQ(property("volume")["origin"], "service");
    EXPECT_EQ(property("set.later")["origin"], "service");
    EXPECT_EQ(property("set.later")["file"], nullptr);
    cli({"set", "volume", "4"});  // what the last line of the file says
    EXPECT_EQ(property("volume")["origin"], "file");
    cli({"delete", "volume"});
    EXPECT_EQ(property("volume")["origin"], "deleted");
    EXPECT_EQ(explain("ro.sd.model")["property"]["origin"], "file");  // the service's folder is known
    EXPECT_THAT(cli({"explain", "ro.sd.model"}).out, HasSubstr("read-only"));
}

}  // namespace
}  // namespace test
