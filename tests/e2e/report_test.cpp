// The page of a report: what it tells of each key, what it leaves out and says so, and the file that it is.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <regex>

#include "tests/e2e/sandbox.h"

namespace test {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

class ReportTest : public Sandbox {
protected:
    std::string pageFile() const { return path("page.html"); }

    std::string page(std::vector<std::string> options = {}) const {
        options.insert(options.begin(), {"report", "-o", pageFile()});
        const Result result = cli(options);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return readFile(pageFile());
    }

    // A key's line, tags taken for blanks; "" where it has none.
    static std::string lineOf(const std::string& page, const std::string& name) {
        const std::size_t begin = page.find("<tr id=" + name + ">");
        if (begin == std::string::npos) return "";
        return std::regex_replace(page.substr(begin, page.find('\n', begin) - begin), std::regex("(<[^>]*>)+"), " ");
    }

    void putPolicies(const std::string& file, const std::string& text) const {
        std::filesystem::create_directory(path("policies"));
        std::filesystem::permissions(path("policies"), std::filesystem::perms(0755));
        writeFile(path("policies/") + file, text);
        std::filesystem::permissions(path("policies/") + file, std::filesystem::perms(0644));
    }
};

TEST_F(ReportTest, TellsOfEachKeyWhatCountsAndWhatLost) {
    putPolicies("50.json",
                "{\"fleet\": {\"value\": \"of-fleet\", \"priority\": 9, \"description\": \"as agreed\"},\n"
                "\"soft\": {\"value\": \"of-soft\", \"priority\": 3}}");
    putPolicies("60.json", "{\"broken\": ");
    writeFile(path("etc/build.prop"), "sd.one=first\nro.two=kept\nro.two=late\nsd.one=second\nsd.gone=1\n");
    const Process service = startService({"--policy-dir", path("policies")});
    for (const char* key : {"fleet", "soft", "alone", "tie"}) cli({"secure", "set", key, "canary-local"});
    cli({"secure", "set", "empty", ""});
    cli({"policy", "set", "tie", "canary-policy", "5"});
    cli({"policy", "set", "strong", "canary-policy", "6"});
    cli({"policy", "set", "empty", "canary-policy", "5"});
    cli({"delete", "sd.gone"});
    cli({"set", "sd.one", "anew"});
    Process watch = Process::start(cliCommand({"watch", "alone", "sd.later"}), environment());
    ASSERT_TRUE(watch.waitForErr("watching"));

    const std::string text = page();
    EXPECT_THAT(lineOf(text, "k:fleet"), AllOf(HasSubstr(" of-fleet "), HasSubstr("Machine policy"),
                                               HasSubstr("priority 9, overrides"), HasSubstr("50.json, line 1"),
                                               HasSubstr("as agreed"), HasSubstr("a local value: the policy stands")));
    EXPECT_THAT(lineOf(text, "k:soft"), AllOf(HasSubstr("not shown"), HasSubstr("Set locally"),
                                              HasSubstr("50.json, line 2: a local value outweighs 5 or less")));
    EXPECT_THAT(lineOf(text, "k:tie"), HasSubstr("a stored policy of priority 5: a local value outweighs"));
    EXPECT_THAT(lineOf(text, "k:strong"), AllOf(HasSubstr("not shown"), HasSubstr("Stored policy")));
    EXPECT_THAT(lineOf(text, "k:empty"), AllOf(HasSubstr("Hidden policy"), HasSubstr("sdconfig secure delete empty")));
    EXPECT_THAT(lineOf(text, "k:alone"), AllOf(HasSubstr("Set locally"), HasSubstr(" 1")));
    EXPECT_THAT(lineOf(text, "p:sd.one"),
                AllOf(HasSubstr(" anew "), HasSubstr("set at run time"), HasSubstr("line 1: a later line counts"),
                      HasSubstr("line 4: set anew since")));
    EXPECT_THAT(lineOf(text, "p:ro.two"),
                AllOf(HasSubstr(" kept "), HasSubstr("Read-only"), HasSubstr("line 3: an earlier line counts")));
    EXPECT_THAT(lineOf(text, "p:sd.gone"), AllOf(HasSubstr("no value"), HasSubstr("line 5: deleted since")));
    EXPECT_THAT(lineOf(text, "p:sd.later"), AllOf(HasSubstr("Not set"), HasSubstr(" 1")));
    EXPECT_THAT(text, AllOf(HasSubstr("60.json"), HasSubstr("Left out"), HasSubstr("The service answers")));
    EXPECT_THAT(text, AllOf(Not(HasSubstr("canary")), Not(HasSubstr("This page holds secrets"))));
    EXPECT_THAT(page({"--show"}),
                AllOf(HasSubstr("This page holds secrets"), HasSubstr("canary-local"), HasSubstr("canary-policy")));
    watch.kill(SIGKILL);
}

TEST_F(ReportTest, TellsWhatPoliciesWouldChange) {
    putPolicies("50.json",
                "{\"kept\": {\"value\": \"as-is\", \"priority\": 9}, \"goes\": {\"value\": \"1\", \"priority\": 9}}");
    const Process service = startService({"--policy-dir", path("policies")});
    cli({"secure", "set", "mine", "canary"});
    std::filesystem::create_directory(path("new"));
    writeFile(
        path("new/50.json"),
        "{\"kept\": {\"value\": \"as-is\", \"priority\": 9},\n\"mine\": {\"value\": \"theirs\", \"priority\": 9}}");
    writeFile(path("new/70"), "no JSON");
    const std::string text = page({"--with", path("new/50.json"), "--with", path("new/70")});
    const std::string plan = text.substr(text.find("<section id=\"whatif\""),
                                         text.find("<section id=\"keys\"") - text.find("<section id=\"whatif\""));
    EXPECT_THAT(plan, AllOf(HasSubstr(">mine<"), HasSubstr("theirs"), HasSubstr("policies/50.json, line 2"),
                            HasSubstr("stay as they are: 1.")));
    EXPECT_THAT(plan,
                AllOf(HasSubstr(">goes<"), HasSubstr("Not set"), HasSubstr("70.json: "), Not(HasSubstr("canary"))));
    EXPECT_THAT(page(), Not(HasSubstr("id=\"whatif\""))) << "and nothing was installed";
}

TEST_F(ReportTest, TellsWhatKeysAreForAndWhatDoesNotFit) {
    std::filesystem::create_directory(path("keys"));
    writeFile(path("keys/velmar.keys.json"), R"({"keys": {
"sd.port": {"type": "int", "maximum": 65535, "default": 8080, "summary": "Port", "unit": "<ports>"},
"sd.free": {"type": "bool", "default": false},
"sd.wrong": {"type": "boolean"},
"velmar.*.name": {"type": "string", "store": "secure", "pattern": "^[a-z]+$"},
"velmar.theme": {"type": "enum", "enum": ["dark"], "words": {"dark": "Night"}, "store": "secure", "default": "dark"}}})");
    const Process service = startService();
    cli({"set", "sd.port", "70000"});
    cli({"set", "velmar.theme", "dark"});
    cli({"secure", "set", "Velmar.A.Name", "CANARY"});
    cli({"secure", "set", "velmar.b.name", "canary"});
    const std::string text = page({"--keys-dir", path("keys")});
    EXPECT_THAT(lineOf(text, "p:sd.port"),
                AllOf(HasSubstr("Misfit  it is more than the largest, 65535; write"),
                      HasSubstr("Port; a whole number of at most 65535, in &lt;ports&gt;; default: 8080")));
    EXPECT_THAT(lineOf(text, "p:sd.free"),
                AllOf(HasSubstr("no value true or false; default: false"), HasSubstr("Not set")));
    EXPECT_THAT(lineOf(text, "p:velmar.theme"), HasSubstr("Misfit  the key is one of a secure value"));
    EXPECT_THAT(lineOf(text, "k:velmar.theme"), AllOf(HasSubstr("dark: Night; default: dark"), HasSubstr("Not set")));
    EXPECT_THAT(lineOf(text, "k:velmar.a.name"), HasSubstr("Misfit  see why: sdconfig explain Velmar.A.Name"));
    EXPECT_THAT(lineOf(text, "k:velmar.b.name"),
                AllOf(HasSubstr("not shown a text in which"), Not(HasSubstr("Misfit"))));
    EXPECT_THAT(text, AllOf(HasSubstr("3 values don&#39;t fit the description of their keys."),
                            HasSubstr("velmar.keys.json, line 4, &quot;sd.wrong&quot;"), Not(HasSubstr("CANARY"))));
}

// What a service would have written, as far as a reader looks at it.
std::string trailLine(int seq, const std::string& what, const std::string& key, const std::string& by) {
    return "{\"seq\":" + std::to_string(seq) +
           ",\"utc\":\"2026-11-25T23:57:03.123456Z\",\"mono\":4711.5,\"boot\":\"1a2b3c4d\"," + by + ",\"what\":\"" +
           what + "\",\"key\":\"" + key + "\",\"came\":\"changed\",\"before\":\"" + std::string(64, '0') +
           "\",\"mac\":\"" + std::string(32, '0') + "\"}\n";
}

TEST_F(ReportTest, NeedsNoServiceAndTellsOfTheTrail) {
    Process service = startService();
    cli({"secure", "set", "Mixed.Key", "canary"});
    service.kill(SIGTERM);
    service.wait();
    writeFile(path("etc/build.prop"), "sd.one=first\n");
    const std::string peer =
        "\"by\":{\"uid\":4711,\"pid\":12,\"exe\":\"/usr/bin/<settings>\",\"unit\":\"app.scope\",\"name\":\"s\"}";
    writeFile(path("data/trail.jsonl"), trailLine(1, "SET_SECURE", "mixed.key", peer) + "damaged\n" +
                                            trailLine(2, "SET_POLICY", "gone", "\"source\":\"restore\""));
    const std::string text = page({"--data-dir", path("data"), "--product-dir", path("product")});
    EXPECT_THAT(lineOf(text, "k:mixed.key"),
                AllOf(HasSubstr("Mixed.Key"), HasSubstr("2026-11-25 23:57"), HasSubstr("by &lt;settings&gt;")));
    EXPECT_THAT(text, AllOf(HasSubstr("/usr/bin/&lt;settings&gt;, pid 12, of user 4711, in app.scope"),
                            HasSubstr(">gone<"), HasSubstr("restore"), HasSubstr("A part of the trail: trail.jsonl")));
    EXPECT_THAT(text,
                AllOf(HasSubstr("No service runs"), HasSubstr("Who listens, and properties"), HasSubstr("line 1")));
    EXPECT_THAT(text, Not(HasSubstr("canary")));

    if (::geteuid() == 0) {  // root's own, over another user's folder
        for (const auto& entry : std::filesystem::directory_iterator(path("data")))
            ASSERT_EQ(::chown(entry.path().c_str(), 65534, 65534), 0);
        ASSERT_EQ(::chown(path("data").c_str(), 65534, 65534), 0);
        EXPECT_THAT(page({"--data-dir", path("data"), "--show"}),
                    AllOf(HasSubstr("run it as that user: sdconfig --user NAME report"), Not(HasSubstr("canary"))));
    }
    std::filesystem::remove_all(path("data"));
    const std::string bare = page();
    EXPECT_THAT(bare, AllOf(HasSubstr("No service runs"), HasSubstr("There is none, as far as this report can see"),
                            HasSubstr("What the data folder holds")));
}

TEST_F(ReportTest, IsWrittenWholeForItsOwnersEyesOrNotAtAll) {
    writeFile(pageFile(), "before");
    std::filesystem::permissions(pageFile(), std::filesystem::perms(0644));
    const Result written = cli({"report", "--json", "-o", pageFile()});
    const auto told = nlohmann::json::parse(written.out, nullptr, false);
    EXPECT_EQ(told["file"], pageFile());
    EXPECT_EQ(told["done"], true);
    struct stat status {};
    ::stat(pageFile().c_str(), &status);
    EXPECT_EQ(status.st_mode & 0777, 0600U);

    const Result printed = cli({"report"});
    EXPECT_EQ(printed.out.substr(0, 15), "<!DOCTYPE html>");
    EXPECT_EQ(cli({"report", "--json"}).exitCode, 2);
    EXPECT_EQ(run({"sh", "-c", "trap '' PIPE; exec 3>&1; { \"$0\" report; echo $? >&3; } | true", SDCONFIG_CLI},
                  environment())
                  .out,
              "0\n");
    for (const std::string& file : {path("nowhere/page.html"), path("run"), std::string("/dev/full")})
        EXPECT_EQ(cli({"report", "-o", file}).exitCode, 1) << file;
    EXPECT_EQ(run({"sh", "-c", "\"$0\" report >/dev/full", SDCONFIG_CLI}, environment()).exitCode, 1);
    if (!mountDisk("etc", "16k")) GTEST_SKIP() << "needs the right to mount";
    EXPECT_THAT(cli({"report", "-o", path("etc/page.html")}).err, HasSubstr("No space left"));
    EXPECT_TRUE(std::filesystem::is_empty(path("etc")));
}

}  // namespace
}  // namespace test
