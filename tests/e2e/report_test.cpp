// The page of a report where the data is another user's, or the disk is full.
#include <gmock/gmock.h>
#include <unistd.h>

#include "tests/e2e/sandbox.h"

namespace test {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

using ReportTest = Sandbox;

TEST_F(ReportTest, ShowsRootNothingOfAnotherUsersFolder) {
    if (::geteuid() != 0) GTEST_SKIP() << "another user's folder takes root";
    {
        const Process service = startService();
        cli({"secure", "set", "k", "canary"});
    }
    for (const auto& entry : std::filesystem::directory_iterator(path("data")))
        ASSERT_EQ(::chown(entry.path().c_str(), 65534, 65534), 0);
    ASSERT_EQ(::chown(path("data").c_str(), 65534, 65534), 0);
    EXPECT_THAT(cli({"report", "--data-dir", path("data"), "--show"}).out,
                AllOf(HasSubstr("run it as that user: sdconfig --user NAME report"), Not(HasSubstr("canary"))));
}

TEST_F(ReportTest, LeavesNoHalfOfItOnAFullDisk) {
    if (!mountDisk("etc", "16k")) GTEST_SKIP() << "needs the right to mount";
    EXPECT_THAT(cli({"report", "-o", path("etc/page.html")}).err, HasSubstr("No space left"));
    EXPECT_TRUE(std::filesystem::is_empty(path("etc")));
}

}  // namespace
}  // namespace test
