// Policies on the command line: what is asked at a terminal, and what an export writes to.
#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>

#include "tests/e2e/sandbox.h"

namespace test {
namespace {

using ::testing::HasSubstr;

using PolicyTest = Sandbox;

TEST_F(PolicyTest, AsksBeforeItDeletes) {
    if (const std::string problem = terminalProblem(); !problem.empty()) GTEST_SKIP() << problem;
    const Process service = startService();
    cli({"secure", "set", "k", "local"});
    for (const char* uri : {"k", "wlan.enabled"}) cli({"policy", "set", uri, "on", "5"});
    TerminalProcess list(cliCommand({"policy", "list"}), environment());
    EXPECT_TRUE(list.waitForScreen("k             5         on     hidden by a local value")) << list.screen();
    writeFile(path("p.json"), "{}");
    const std::tuple<std::vector<std::string>, const char*, const char*, int, const char*> cases[] = {
        {{"apply", path("p.json"), "--prune"}, "Delete 2 policies that the file doesn't name? [y/N] ", "n\n", 1, "2"},
        {{"clear"}, "[y/N] ", "n\n", 1, "2"},
        {{"clear"}, "[y/N] ", "y\n", 0, "0"},
    };
    for (auto [arguments, asked, answer, exitCode, rows] : cases) {
        arguments.insert(arguments.begin(), "policy");
        TerminalProcess terminal(cliCommand(arguments), environment());
        ASSERT_TRUE(terminal.waitForScreen(asked));
        terminal.type(answer);
        EXPECT_EQ(terminal.wait(), exitCode);
        EXPECT_EQ(query(path("data/dmhelper.db"), "SELECT count(*) FROM dmhelperconfig")[0][0], rows);
    }
}

// In a folder like /tmp somebody else may have put it there, to have a file of the caller's overwritten.
TEST_F(PolicyTest, AnExportFollowsNoLinkOfAnotherUsers) {
    if (::geteuid() != 0) GTEST_SKIP() << "a link of another user's takes root";
    const Process service = startService();
    writeFile(path("home/kept"), "kept");
    std::filesystem::create_symlink(path("home/kept"), path("file"));
    std::filesystem::create_symlink(path("home"), path("folder"));
    for (const char* link : {"file", "folder"}) ASSERT_EQ(::lchown(path(link).c_str(), 1, 1), 0);
    for (const char* planted : {"file", "folder/kept", "folder/../home/kept"})
        EXPECT_THAT(cli({"policy", "export", path(planted)}).err, HasSubstr("was made by another user"));
    EXPECT_EQ(readFile(path("home/kept")), "kept");

    ASSERT_EQ(::lchown(path("file").c_str(), 0, 0), 0);
    std::filesystem::permissions(path("home/kept"), std::filesystem::perms(0666));
    ASSERT_EQ(::chown(path("home/kept").c_str(), 1, 1), 0);
    EXPECT_EQ(cli({"policy", "export", path("file")}).exitCode, 0);
    EXPECT_EQ(readFile(path("home/kept")), "{}\n");
    EXPECT_EQ(std::filesystem::status(path("home/kept")).permissions(), std::filesystem::perms(0600));
}

}  // namespace
}  // namespace test
