// Policies on the command line: single ones, and files of them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/e2e/sandbox.h"

namespace test {
namespace {

using nlohmann::json;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

class PolicyTest : public Sandbox {
protected:
    void expect(const std::vector<std::string>& arguments, int exitCode, const std::string& out) const {
        const Result result = cli(arguments);
        EXPECT_EQ(result.exitCode, exitCode) << result.err;
        EXPECT_EQ(result.out, out);
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), exitCode == 0 ? 0 : 1) << result.err;
    }
    std::string rowCount() const {
        return query(path("data/dmhelper.db"), "SELECT count(*) FROM dmhelperconfig")[0][0];
    }
    std::string fileOf300() const {
        json policies;
        for (int i = 0; i < 300; ++i)
            policies["uri" + std::to_string(i)] = {{"value", std::to_string(i)}, {"priority", 6}};
        writeFile(path("policies.json"), policies.dump());
        return path("policies.json");
    }
};

TEST_F(PolicyTest, FilesOfTheMachineGovernWhateverIsCalled) {
    for (const char* folder : {"vendor", "admin"}) std::filesystem::create_directory(path(folder));
    writeFile(path("vendor/10.json"), R"({"k": {"value": "vendor", "priority": 9}})");
    writeFile(path("admin/10.json"), R"({"k": {"value": "on", "priority": 9, "description": "why"}})");
    Process service = startService({"--policy-dir", path("vendor"), "--policy-dir", path("admin")});
    expect({"policy", "get", "k"}, 0, "on\n");
    EXPECT_EQ(cli({"policy", "set", "k", "mine", "100"}).exitCode, 1);
    EXPECT_EQ(cli({"policy", "delete", "K"}).exitCode, 1);
    EXPECT_TRUE(service.waitForErr(path("admin/10.json") + ", line 1"));
    EXPECT_EQ(cli({"policy", "clear", "--yes"}).exitCode, 0);
    expect({"policy", "strong", "k"}, 0, "strong\n");

    Process watch = Process::start(cliCommand({"watch", "k"}), environment());
    ASSERT_TRUE(watch.waitForErr("watching"));
    std::filesystem::remove(path("admin/10.json"));
    EXPECT_TRUE(waitUntil([&] { return watch.out().find("vendor") != std::string::npos; }, kProcessLimitMs));
    expect({"policy", "get", "k"}, 0, "vendor\n");
}

TEST_F(PolicyTest, OneAtATime) {
    const Process service = startService();
    expect({"secure", "set", "k", "local"}, 0, "");
    expect({"policy", "set", "K", "on", "6"}, 0, "");
    expect({"policy", "get", "k"}, 0, "on\n");
    expect({"policy", "get", "k", "--json"}, 0, "{\"uri\":\"k\",\"set\":true,\"value\":\"on\",\"priority\":6}\n");
    expect({"policy", "strong", "k"}, 0, "strong\n");
    EXPECT_THAT(cli({"policy", "set", "k", "on", "5"}).err, HasSubstr("the local secure value outweighs this policy"));
    expect({"policy", "get", "k"}, 0, "local\n");
    EXPECT_EQ(cli({"policy", "strong", "k"}).out, "not strong\n");
    EXPECT_EQ(cli({"policy", "strong", "k"}).exitCode, 1);
    expect({"policy", "set", "m", "caf\xc3\xa9 \xe2\x82\xac", "0"}, 0, "");
    expect({"policy", "get", "m"}, 0, "caf\xc3\xa9 \xe2\x82\xac\n");
    expect({"policy", "set", "empty", "", "127"}, 0, "");
    expect({"policy", "get", "empty"}, 1, "");
    expect({"policy", "list"}, 0,
           "empty\t127\t\tin force\nk\t5\ton\thidden by a local value\n"
           "m\t0\tcaf\xc3\xa9 \xe2\x82\xac\tin force, as a default\n");
    EXPECT_EQ(json::parse(cli({"policy", "list", "--json"}).out)["policies"][1],
              json::parse(R"({"uri": "k", "readable": true, "value": "on", "priority": 5, "in_force": false,
                              "origin": "local"})"));
    TerminalProcess terminal(cliCommand({"policy", "list"}), environment());
    EXPECT_TRUE(terminal.waitForScreen("k      5         on      hidden by a local value")) << terminal.screen();

    query(path("data/dmhelper.db"), "UPDATE dmhelperconfig SET value = 'v1damage' WHERE key = 'empty'");
    EXPECT_THAT(cli({"policy", "list"}).out, HasSubstr("empty\t-\t(can't be read)\tnot in force\nk\t5\t"));
    expect({"policy", "delete", "k"}, 0, "");
    expect({"policy", "delete", "k", "--json"}, 0, "{\"uri\":\"k\",\"done\":true}\n");

    for (const char* value : {"a&&&b", "a&", "null_value"}) expect({"policy", "set", "k", value, "7"}, 2, "");
    for (const char* priority : {"128", "-1", "5.5", "1e9", "", "7 "})
        expect({"policy", "set", "k", "on", priority}, 2, "");
    EXPECT_EQ(rowCount(), "2");
}

TEST_F(PolicyTest, WhatTheServiceRefusesIsTold) {
    const Process service = startService();
    expect({"policy", "set", "k", "on", "6"}, 0, "");
    for (const char* change : {"INSERT", "DELETE"})
        query(path("data/dmhelper.db"), std::string("CREATE TRIGGER no") + change + " BEFORE " + change +
                                            " ON dmhelperconfig BEGIN SELECT RAISE(ABORT, 'no'); END");
    writeFile(path("policies.json"), R"({"new": {"value": "on", "priority": 6}})");
    expect({"policy", "set", "new", "on", "6"}, 1, "");
    expect({"policy", "delete", "k"}, 1, "");
    expect({"policy", "clear", "--yes"}, 1, "");
    expect({"policy", "apply", path("policies.json")}, 1, "new: not stored\n");
    EXPECT_EQ(rowCount(), "1");
}

TEST_F(PolicyTest, ClearAsks) {
    if (const std::string problem = terminalProblem(); !problem.empty()) GTEST_SKIP() << problem;
    const Process service = startService();
    expect({"policy", "set", "k", "on", "6"}, 0, "");
    expect({"policy", "clear"}, 2, "");
    for (const auto& [answer, exitCode, rows] : {std::tuple{"n\n", 1, "1"}, {"y\n", 0, "0"}}) {
        TerminalProcess terminal(cliCommand({"policy", "clear"}), environment());
        ASSERT_TRUE(terminal.waitForScreen("[y/N] "));
        terminal.type(answer);
        EXPECT_EQ(terminal.wait(), exitCode);
        EXPECT_EQ(rowCount(), rows);
    }
    expect({"policy", "set", "k", "on", "6"}, 0, "");
    expect({"policy", "clear", "--yes"}, 0, "");
    EXPECT_EQ(rowCount(), "0");
}

TEST_F(PolicyTest, AFileIsCheckedWholeBeforeAnythingIsSent) {
    const Process service = startService();
    const std::string good = R"("good": {"value": "secret", "priority": 6})";
    const struct {
        std::string text;
        const char* told;
    } cases[] = {
        {"", "line 1: "},
        {"{" + good, "line 1, \"good\": ends too early"},
        {"{" + good + "}}", "line 1"},
        {"\xef\xbb\xbf{" + good + "}", "byte order mark"},
        {"[]", "is no object of policies"},
        {"{" + good + ",\n\"k\": \"secret\"}", R"(line 2, "k": is no object)"},
        {"{" + good + ",\n\n\"GOOD\": {}}", R"(line 3, "GOOD": differs only in letter case from "good" in line 1)"},
        {"{" + good + ",\n" + good + "}", "line 2, \"good\": stands there twice"},
        {"{\"\": {}}", "a URI that is empty"},
        {"{\"" + std::string(70000, 'u') + "\": {}}", "longer than 64 KiB"},
        {"{\"k\": {\"value\": \"secret\"}}", "has no \"priority\""},
        {"{\"k\": {\"priority\": 1}}", "has no \"value\""},
        {"{\"k\": {\"value\": \"secret\", \"value\": \"\"}}", R"("k", "value": stands there twice)"},
        {"{\"k\": {\"prio\": 1}}", R"("k", "prio": is no field)"},
        {"{\"k\": {\"value\": 7}}", R"("k", "value": has to be a text)"},
        {"{\"k\": {\"value\": \"secret\\u0000\"}}", "zero byte"},
        {"{\"k\": {\"value\": \"secret&&&7\"}}", "contains \"&&&\""},
        {"{\"k\": {\"value\": \"secret\xff\"}}", "not UTF-8"},
        {"{\"k\": {\"priority\": \"5\"}}", R"("k", "priority": is a text)"},
        {"{\n\"k\": {\"priority\": 128\n}}", R"(line 2, "k", "priority": has to be a whole number)"},
        {"{\"k\": {\"priority\": -1}}", "from 0 to 127"},
        {"{\"k\": {\"priority\": 5.5}}", "from 0 to 127"},
        {"{\"k\": {\"priority\": 1e9}}", "from 0 to 127"},
        {std::string((16 << 20) + 1, ' '), "longer than 16 MiB"},
    };
    for (const auto& [text, told] : cases) {
        const Result result = cli({"policy", "apply", "-"}, text);
        SCOPED_TRACE(result.err);
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_THAT(result.err, AllOf(HasSubstr(told), Not(HasSubstr("secret"))));
    }
    EXPECT_THAT(cli({"policy", "apply", path("data")}).err, HasSubstr("Is a directory"));
    EXPECT_EQ(rowCount(), "0");
}

TEST_F(PolicyTest, ALargeFileArrivesWholeAndComesBack) {
    const Process service = startService({"--log-level", "8"});
    const std::string file = fileOf300();
    const json report = json::parse(cli({"policy", "apply", file, "--json"}).out);
    EXPECT_EQ(report["policies"].size(), 300u);
    for (const json& policy : report["policies"]) EXPECT_EQ(policy["outcome"], "in_force") << policy;
    EXPECT_EQ(rowCount(), "300");

    const Result list = cli({"policy", "list", "--json"});
    EXPECT_EQ(json::parse(list.out)["policies"].size(), 300u);
    EXPECT_EQ(list.err, "");
    writeFile(path("out.json"), "");
    std::filesystem::permissions(path("out.json"), std::filesystem::perms(0640));
    EXPECT_EQ(cli({"policy", "export", path("out.json"), "--json"}).out,
              R"({"file":")" + path("out.json") + "\",\"policies\":300,\"complete\":true}\n");
    EXPECT_EQ(json::parse(readFile(path("out.json"))), json::parse(readFile(file)));
    EXPECT_EQ(std::filesystem::status(path("out.json")).permissions(), std::filesystem::perms(0640));

    query(path("data/dmhelper.db"), "UPDATE dmhelperconfig SET value = 'v1damage' WHERE key = 'uri7'");
    EXPECT_THAT(cli({"policy", "list"}).out, HasSubstr("uri7\t-\t(can't be read)\tnot in force\n"));
    const Result exported = cli({"policy", "export", "-"});
    EXPECT_EQ(exported.exitCode, 1);
    EXPECT_THAT(exported.err, HasSubstr("\"uri7\" is left out"));
    EXPECT_EQ(json::parse(exported.out).size(), 299u);

    std::filesystem::remove(path("data/dmhelper.db"));  // the service goes on with the file that has no name any more
    const Result cut = cli({"policy", "list"});
    EXPECT_THAT(cut.err, HasSubstr("there may be more"));
    EXPECT_EQ(cli({"policy", "export", path("out.json")}).exitCode, 1);
    const std::string weak = R"({"weak": {"value": "v", "priority": 5}})";
    EXPECT_EQ(cli({"policy", "apply", "-"}, weak).out, "weak: it can't be told whether it is stored\n");
    EXPECT_THAT(cli({"policy", "apply", "-", "--prune", "--yes"}, weak).err,
                HasSubstr("which policies the file doesn't"));
    EXPECT_THAT(cli({"policy", "export", path("etc")}).err, HasSubstr("no regular file"));
}

TEST_F(PolicyTest, PruningMakesTheFileTheWholeTruth) {
    const Process service = startService({"--log-level", "8"});
    cli({"policy", "apply", fileOf300()});
    const std::string file = path("p.json");
    writeFile(file, R"({"URI7": {"value": "new", "priority": 6}, "added": {"value": "new", "priority": 6}})");
    const Result preview = cli({"policy", "apply", file, "--prune", "--dry-run"});
    EXPECT_THAT(
        preview.out,
        HasSubstr("~ uri8: \"8\" -> (no value): deleted, since the file doesn't name it, which leaves neither "));
    EXPECT_EQ(std::count(preview.out.begin(), preview.out.end(), '\n'), 301);
    expect({"policy", "apply", file, "--prune"}, 2, "");
    {
        TerminalProcess terminal(cliCommand({"policy", "apply", file, "--prune"}), environment());
        ASSERT_TRUE(terminal.waitForScreen("Delete 299 policies that the file doesn't name? [y/N] "));
        terminal.type("n\n");
        EXPECT_EQ(terminal.wait(), 1);
    }
    const std::string database = path("data/dmhelper.db");
    query(
        database,
        "CREATE TRIGGER no BEFORE INSERT ON dmhelperconfig WHEN new.key = 'added' BEGIN SELECT RAISE(ABORT, ''); END");
    const Result kept = cli({"policy", "apply", file, "--prune", "--yes"});  // what the file adds may replace another
    EXPECT_EQ(kept.exitCode, 1);
    EXPECT_THAT(kept.out, AllOf(HasSubstr("added: not stored\n"), HasSubstr("uri8: not deleted\n")));
    EXPECT_EQ(rowCount(), "300");

    query(database,
          "DROP TRIGGER no; CREATE TRIGGER no BEFORE DELETE ON dmhelperconfig WHEN old.key = 'uri8' "
          "BEGIN SELECT RAISE(ABORT, ''); END");
    const Result partly = cli({"policy", "apply", file, "--prune", "--yes"});
    EXPECT_EQ(partly.exitCode, 1);
    EXPECT_THAT(partly.out, AllOf(HasSubstr("uri8: not deleted\n"), HasSubstr("uri9: deleted\n")));
    query(database, "DROP TRIGGER no");
    expect({"policy", "apply", file, "--prune", "--yes"}, 0, "URI7: in force\nadded: in force\nuri8: deleted\n");
    EXPECT_EQ(rowCount(), "2");
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
    expect({"policy", "export", path("file")}, 0, "");
    EXPECT_EQ(readFile(path("home/kept")), "{}\n");
    EXPECT_EQ(std::filesystem::status(path("home/kept")).permissions(), std::filesystem::perms(0600));
}

TEST_F(PolicyTest, ADryRunTellsWhatWouldChange) {
    const Process service = startService();
    expect({"secure", "set", "local", "hidden"}, 0, "");
    expect({"policy", "set", "weak", "old", "3"}, 0, "");
    writeFile(path("p.json"), R"({"local": {"value": "new", "priority": 5}, "weak": {"value": "new", "priority": 4},
                                  "strong": {"value": "new", "priority": 6}})");
    const std::string preview = cli({"policy", "apply", path("p.json"), "--dry-run"}).out;
    EXPECT_THAT(preview, AllOf(HasSubstr("= local: (a local value): the local secure value"),
                               HasSubstr("~ weak: \"old\" -> \"new\": a policy of priority 4"),
                               HasSubstr("~ strong: (no value) -> \"new\": a policy of priority 6")));
    EXPECT_THAT(cli({"policy", "apply", path("p.json"), "--dry-run", "--show"}).out, HasSubstr("\"hidden\""));
    EXPECT_EQ(rowCount(), "1");
    expect({"policy", "apply", path("p.json")}, 0,
           "local: outweighed by what is set locally\nweak: in force\nstrong: in force\n");

    std::filesystem::rename(path("data/sdconfig.db"), path("data/away"));  // so that only the service tells
    const json blind = json::parse(cli({"policy", "apply", path("p.json"), "--dry-run", "--json"}).out)["policies"];
    EXPECT_EQ(blind[0]["after"], nullptr);
    EXPECT_EQ(blind[0]["before"].count("value"), 0u);
    EXPECT_EQ(blind[1]["after"]["value"], "new");

    query(path("data/dmhelper.db"),
          "CREATE TRIGGER no BEFORE INSERT ON dmhelperconfig WHEN new.key IN ('weak', 'strong') "
          "BEGIN SELECT RAISE(ABORT, ''); END");
    for (const char* uri : {"weak", "strong"}) expect({"policy", "delete", uri}, 0, "");
    expect({"policy", "apply", path("p.json")}, 1,
           "local: outweighed by what is set locally\nweak: not stored\nstrong: not stored\n");
}

}  // namespace
}  // namespace test
