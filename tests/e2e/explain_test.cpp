// The reader of the data folder behind commands that need no service, which leaves no trace.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <map>

#include "tests/e2e/sandbox.h"

namespace test {
namespace {

using ::testing::HasSubstr;

class ExplainTest : public Sandbox {
protected:
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

TEST_F(ExplainTest, ReadsTheDataInEveryStateAndLeavesNoTrace) {
    const std::string data = path("data");
    const auto expectRead = [&](const char* state, const std::string& folder) {
        SCOPED_TRACE(state);
        const auto before = contents(folder);
        EXPECT_THAT(cli({"explain", "k", "--show", "--data-dir", folder}).out, HasSubstr("\n  value: \"latest\"\n"));
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

}  // namespace
}  // namespace test
