// The reader of the data folder behind commands that need no service, which leaves no trace.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <csignal>

#include "tests/e2e/sandbox.h"

namespace test {
namespace {

using ::testing::HasSubstr;

class ExplainTest : public Sandbox {
protected:
    void expectListFails(const std::string& folder, const std::string& told) const {
        expectRefusal(cli({"list", "--data-dir", folder}), told, 3);  // as every command that needs no service
    }
};

TEST_F(ExplainTest, ReadsTheDataInEveryStateAndLeavesNoTrace) {
    const std::string data = path("data");
    const auto expectRead = [&](const char* state, const std::string& folder) {
        SCOPED_TRACE(state);
        const auto before = contentsOf(folder);
        EXPECT_THAT(cli({"explain", "k", "--show", "--data-dir", folder}).out, HasSubstr("\n  value: \"latest\"\n"));
        EXPECT_EQ(contentsOf(folder), before);
    };
    Process service = startService();
    cli({"secure", "set", "k", "first"});
    cli({"secure", "set", "k", "latest"});
    expectRead("served", data);
    service.stop(SIGKILL);
    expectRead("left by a killed service", data);
    std::filesystem::copy(data, path("copy"));
    for (const char* index : {"copy/sdconfig.db-shm", "copy/dmhelper.db-shm"}) std::filesystem::remove(path(index));
    expectRead("copied without its index", path("copy"));
    Process next = startService();
    EXPECT_EQ(next.stop(), 0);
    EXPECT_FALSE(std::filesystem::exists(data + "/sdconfig.db-wal"));
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
