// The machine's policies on the command line: whom they govern, what is wrong with them, and what a change would bring.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/e2e/sandbox.h"

namespace test {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class MachinePolicyTest : public Sandbox {
protected:
    MachinePolicyTest() {
        for (const char* folder : {"vendor", "admin"}) {
            std::filesystem::create_directory(path(folder));
            ::chmod(path(folder).c_str(), 0755);
        }
    }

    void put(const std::string& file, const std::string& text) const {
        writeFile(path(file), text);
        ::chmod(path(file).c_str(), 0644);
    }
    Process startGoverned() const {
        return startService({"--policy-dir", path("vendor"), "--policy-dir", path("admin")});
    }
    json object(const std::vector<std::string>& arguments) const {
        json parsed = json::parse(cli(arguments).out, nullptr, false);
        EXPECT_FALSE(parsed.is_discarded());
        return parsed;
    }
    void expect(const std::vector<std::string>& arguments, int exitCode, const std::string& out) const {
        const Result result = cli(arguments);
        EXPECT_EQ(result.exitCode, exitCode) << result.err;
        EXPECT_EQ(result.out, out);
    }
};

TEST_F(MachinePolicyTest, WhoeverIsRefusedIsToldTheFile) {
    put("admin/10.json",
        "{\"k\": {\"value\": \"caf\xc3\xa9\", \"priority\": 9, \"description\": \"by law\"},\n"
        "\"soft\": {\"value\": \"s\", \"priority\": 3}}");
    {
        const Process plain = startService({"--policy-dir", path("vendor")});
        ASSERT_EQ(cli({"policy", "set", "K", "stored", "8"}).exitCode, 0);
    }
    const Process service = startGoverned();
    const std::string place = path("admin/10.json") + ", line 1";

    for (const auto& arguments :
         {std::vector<std::string>{"policy", "set", "K", "mine", "100"}, {"policy", "delete", "k"}}) {
        const Result refused = cli(arguments);
        EXPECT_EQ(refused.exitCode, 1);
        EXPECT_THAT(refused.err, HasSubstr("a policy of the machine governs it, which stands in " + place));
    }
    EXPECT_THAT(cli({"secure", "set", "k", "local"}).err, HasSubstr(place + ", overrides what was set"));
    expect({"policy", "list"}, 0,
           "K\t8\tstored\toutweighed by the machine's: " + place + "\nk\t9\tcaf\xc3\xa9\tin force: " + place +
               "\nsoft\t3\ts\tin force, as a default: " + path("admin/10.json") + ", line 2\n");
    EXPECT_THAT(
        cli({"explain", "k", "--show"}).out,
        StartsWith(
            "secure value: set: a policy of priority 9: above 5, it overrides whatever is set locally\n"
            "  value: \"caf\xc3\xa9\"\n  policy of the machine: priority 9, \"caf\xc3\xa9\"\n    it stands in: " +
            place +
            "\n    description: by law\n  stored policy: priority 8, \"stored\"\n  local value: \"local\"\n"
            "  without the policy of the machine: the stored policy's value\nproperty: not set\n"));

    const json exported = object({"policy", "export", "-", "--machine"});
    EXPECT_EQ(exported, json::parse("{\"k\": {\"value\": \"caf\xc3\xa9\", \"priority\": 9},"
                                    "\"soft\": {\"value\": \"s\", \"priority\": 3}}"));
    EXPECT_EQ(object({"policy", "export", "-"}).size(), 1u);

    put("f.json", R"({"k": {"value": "x", "priority": 20}, "n": {"value": "x", "priority": 20}})");
    EXPECT_THAT(cli({"policy", "apply", path("f.json"), "--dry-run"}).out, HasSubstr("= k: "));
    expect({"policy", "apply", path("f.json"), "--prune", "--yes"}, 1,
           "k: left as the machine's policy has it, in " + place + "\nn: in force\n");
    EXPECT_THAT(cli({"policy", "clear", "--yes"}).err, HasSubstr("2 policies of the machine stay"));
    const json listed = object({"policy", "list", "--json"})["policies"];
    ASSERT_EQ(listed.size(), 2u);  // the stored one beneath is gone
    EXPECT_EQ(listed[0]["source"], "machine");
    EXPECT_EQ(listed[0]["line"], 1);
}

TEST_F(MachinePolicyTest, LintFindsAll) {
    put("bad",
        "{\n\"a\": {\"value\": 1, \"priority\": \"7\"},\n\"A\": {\"value\": \"secret\", \"color\": [{\"x\": [1]}]},\n"
        "\"n\": 5,\n\"u\": {\"value\": \"\", \"priority\": 1, \"users\": [4294967296, null, \"root\"]},\n"
        "\"cut\": {\"value");
    std::vector<std::string> found;
    const Result bad = cli({"policy", "lint", path("bad"), "--json"});
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_THAT(bad.out, Not(HasSubstr("secret")));
    const json faults = json::parse(bad.out)["findings"];
    for (const json& one : faults) {
        EXPECT_TRUE(one["fault"]);
        EXPECT_NE(one["next"], "");
        found.push_back(one["line"].dump() + one["uri"].dump() + one["what"].get<std::string>().substr(0, 12));
    }
    EXPECT_THAT(found, ElementsAre("2\"a\"has to be a ", "2\"a\"is a text; i", "3\"A\"differs only",
                                   "3\"A\"is no field ", "3\"A\"has no \"prio", "4\"n\"is no object",
                                   "5\"u\"has a uid be", "5\"u\"has to be a ", "6\"cut\"ends too ear"));

    // Each is sound by itself. The vendor's 20 counts for nothing beside the administrator's.
    put("vendor/10.json", R"({"k": {"value": "a", "priority": 9}, "s": {"value": "a", "priority": 9}})");
    put("vendor/20.json", R"({"k": {"value": "lost", "priority": 9}})");
    put("admin/20.json", R"({"K": {"value": "b", "priority": 9}, "s": {"value": "a", "priority": 9}})");
    put("admin/30.json", R"({"k": {"value": "pilot", "priority": 9, "users": ["root", "@no-such-group"]}})");
    put("admin/40.json", "");
    found.clear();
    const json warnings = object({"policy", "lint", path("vendor"), path("admin"), "--json"})["findings"];
    for (const json& one : warnings) {
        EXPECT_FALSE(one["fault"]);
        found.push_back(one["file"].get<std::string>().substr(path("").size()) + " " +
                        one["what"].get<std::string>().substr(0, 24));
    }
    EXPECT_THAT(found, ElementsAre("admin/20.json differs only in letter c",
                                   "admin/20.json disagrees with " + path("").substr(0, 9),
                                   "admin/20.json says again what stands i", "admin/30.json differs only in letter c",
                                   "admin/30.json \"users\" names \"@no-such-"));
    EXPECT_EQ(cli({"policy", "lint", path("vendor"), path("admin")}).exitCode, 0);
    EXPECT_EQ(cli({"policy", "lint", path("vendor"), path("admin"), "--strict"}).exitCode, 1);

    writeFile(path("large"), std::string((4u << 20) + 1, ' '));
    EXPECT_THAT(cli({"policy", "lint", path("large")}).out, HasSubstr("it is longer than 4 MiB"));
}

TEST_F(MachinePolicyTest, AFileIsInstalledWholeAndTakenAway) {
    put("vendor/50-fleet.json", R"({"k": {"value": "vendor", "priority": 9}})");
    const Process service = startGoverned();
    ASSERT_EQ(cli({"secure", "set", "k", "secret"}).exitCode, 0);
    put("f", R"({"k": {"value": "on", "priority": 9}})");
    const std::vector<std::string> install{"policy",   "install",      path("f"),    "--name",
                                           "50-fleet", "--policy-dir", path("admin")};
    std::vector<std::string> dry = install;
    dry.emplace_back("--dry-run");
    EXPECT_THAT(cli(dry).out, HasSubstr(R"(~ k: "vendor" -> "on": )"));
    EXPECT_FALSE(std::filesystem::exists(path("admin/50-fleet.json")));

    EXPECT_THAT(cli(install).out, HasSubstr("; " + path("admin/50-fleet.json") + ", line 1\ninstalled "));
    struct stat status {};
    ASSERT_EQ(::stat(path("admin/50-fleet.json").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
    EXPECT_EQ(readFile(path("admin/50-fleet.json")), readFile(path("f")));
    EXPECT_TRUE(waitUntil([&] { return cli({"policy", "get", "k"}).out == "on\n"; }, kProcessLimitMs));

    put("f", R"({"k": {"value": "on"}})");
    EXPECT_EQ(cli(install).exitCode, 1);
    for (const char* name : {"../x", ".hidden", "a b", "x/../y"})
        EXPECT_EQ(cli({"policy", "remove", name, "--policy-dir", path("admin")}).exitCode, 1) << name;
    EXPECT_EQ(cli({"policy", "get", "k"}).out, "on\n");

    const Result removed = cli({"policy", "remove", "50-fleet", "--policy-dir", path("admin"), "--json"});
    EXPECT_EQ(json::parse(removed.out)["users"][0]["changes"][0]["after"]["value"], "vendor");
    EXPECT_THAT(removed.out, Not(HasSubstr("secret")));
    EXPECT_TRUE(waitUntil([&] { return cli({"policy", "get", "k"}).out == "vendor\n"; }, kProcessLimitMs));
    EXPECT_TRUE(std::filesystem::is_empty(path("admin")));
}

TEST_F(MachinePolicyTest, StatusAndDoctorTellWhatIsLeftOut) {
    put("vendor/10.json", R"({"k": {"value": "vendor", "priority": 9}})");
    put("admin/10.json", "");
    put("admin/20.json", R"({"k": {"value": "on", "priority": 9, "users": ["@no-such-group", "0"]}})");
    const Process service = startGoverned();
    EXPECT_EQ(cli({"policy", "status"}).exitCode, 0);
    EXPECT_THAT(cli({"doctor"}).out, HasSubstr("ok: machine policies: "));

    put("admin/30.json", "{");
    put("admin/40.json", "{}");
    ::chmod(path("admin/40.json").c_str(), 0666);
    const auto isToldOf = [&] { return cli({"policy", "status"}).exitCode == 1; };
    ASSERT_TRUE(waitUntil(isToldOf, kProcessLimitMs));
    ASSERT_TRUE(waitUntil(
        [&] {
            return cli({"policy", "status"}).out.find("40.json: left out") != std::string::npos;
        },
        kProcessLimitMs));
    const json status = object({"policy", "status", "--json"});
    std::vector<std::string> states;
    for (const json& file : status["files"]) states.push_back(file["state"]);
    EXPECT_THAT(states, ElementsAre("replaced", "masks", "read", "left_out", "left_out"));
    EXPECT_EQ(status["nobody"][0]["name"], "@no-such-group");
    EXPECT_FALSE(status["ok"]);
    const std::string told = cli({"doctor"}).out;
    EXPECT_THAT(told, HasSubstr("problem: machine policies: " + path("admin/30.json") + ": line 1: "));
    EXPECT_THAT(told, HasSubstr("40.json"));
    EXPECT_THAT(told, HasSubstr("writ"));
}

TEST_F(MachinePolicyTest, AFolderIsTriedOnDataACopyAndABackup) {
    put("vendor/10.json", R"({"gone": {"value": "now", "priority": 9}})");
    put("admin/10.json", R"({"k": {"value": "new", "priority": 9}, "soft": {"value": "s", "priority": 3}})");
    {
        const Process service = startService({"--policy-dir", path("vendor")});
        ASSERT_EQ(cli({"secure", "set", "k", "secret"}).exitCode, 0);
        ASSERT_EQ(cli({"policy", "set", "soft", "stored", "8"}).exitCode, 0);
        ASSERT_EQ(cli({"backup", path("b"), path("data")}, "pass\n").exitCode, 0);
        expect(
            {"policy", "apply", "--dry-run", "--policy-dir", path("admin")}, 0,
            "~ gone: \"now\" -> (no value): neither a policy nor a local value\n"
            "~ k: (a local value) -> \"new\": a policy of priority 9: above 5, it overrides whatever is set locally; " +
                path("admin/10.json") +
                ", line 1\n~ soft: \"stored\" -> \"s\": a policy of priority 3: there is no "
                "local value to outweigh it; " +
                path("admin/10.json") + ", line 1\n");
        EXPECT_EQ(cli({"policy", "get", "gone"}).out, "now\n");  // nothing was changed
    }
    std::filesystem::copy(path("data"), path("copy"));
    const std::vector<std::string> tried{"policy", "apply", "--dry-run", "--policy-dir", path("admin")};
    std::vector<std::string> onCopy = tried;
    onCopy.insert(onCopy.end(), {"--data-dir", path("copy")});
    std::vector<std::string> onBackup = tried;
    onBackup.insert(onBackup.end(), {"--backup", path("b")});
    const std::string ofCopy = cli(onCopy).out;
    EXPECT_THAT(ofCopy, StartsWith("~ k: (a local value) -> \"new\""));
    EXPECT_EQ(cli(onBackup, "pass\n").out, ofCopy);
    EXPECT_EQ(cli(onBackup, "wrong\n").exitCode, 1);
    ::chmod(path("admin/10.json").c_str(), 0666);
    EXPECT_THAT(cli(onCopy).err, HasSubstr("nothing of it counts"));
    EXPECT_EQ(cli(onCopy).exitCode, 1);
    EXPECT_EQ(cli({"policy", "apply", "--dry-run"}).exitCode, 2);
    EXPECT_EQ(cli({"policy", "apply", path("admin/10.json"), "--dry-run", "--policy-dir", path("admin")}).exitCode, 2);
}

}  // namespace
}  // namespace test
