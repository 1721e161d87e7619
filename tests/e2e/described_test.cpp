// Descriptions of keys on the command line: what is refused, what is stored, and what is told.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/e2e/sandbox.h"

namespace test {
namespace {

using nlohmann::json;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr char kKeys[] = R"({"keys": {
"velmar.port": {"type": "int", "minimum": 1, "maximum": 65535, "default": 8080, "summary": "Port"},
"velmar.on": {"type": "bool"},
"velmar.host": {"type": "string", "pattern": "^[a-z.]+$"},
"velmar.theme": {"type": "enum", "enum": ["dark", "light"], "store": "secure", "default": "light"},
"velmar.pin": {"type": "string", "secret": true, "pattern": "^[0-9]{4}$", "governable": false},
"velmar.cache": {"type": "size", "store": "secure", "maximum": "1GiB", "default": "64MiB"},
"velmar.wait": {"type": "duration", "store": "secure", "minimum": "1s"},
"velmar.old": {"type": "int", "store": "secure", "deprecated": true, "replacedBy": "velmar.wait"},
"velmar.*.name": {"type": "string", "store": "secure"},
"velmar.wrong": {"type": "boolean"}
}})";

class DescribedTest : public Sandbox {
protected:
    DescribedTest() {
        std::filesystem::create_directory(path("keys"));
        writeFile(path("keys/velmar.keys.json"), kKeys);
    }
    Result described(std::vector<std::string> arguments, const std::string& input = "") const {
        arguments.insert(arguments.end(), {"--keys-dir", path("keys")});
        return cli(arguments, input);
    }
    std::string out(const std::vector<std::string>& arguments) const { return described(arguments).out; }
};

TEST_F(DescribedTest, ValuesAreCheckedAndStoredInOneForm) {
    const Process service = startService();
    EXPECT_EQ(described({"set", "velmar.port", "+0443"}).exitCode, 0);
    EXPECT_EQ(cli({"get", "velmar.port"}).out, "443\n");
    const Result beyond = described({"set", "velmar.port", "70000"});
    EXPECT_EQ(beyond.exitCode, 2);
    EXPECT_THAT(beyond.err, AllOf(HasSubstr("\"70000\" is more than the largest, 65535"),
                                  HasSubstr("write a whole number from 1 to 65535, or say --unchecked")));
    EXPECT_EQ(cli({"get", "velmar.port"}).out, "443\n") << "nothing was changed";
    EXPECT_EQ(described({"set", "velmar.port", "70000", "--unchecked"}).exitCode, 0);
    EXPECT_THAT(out({"explain", "velmar.port"}),
                AllOf(HasSubstr("default: \"8080\"\n"), HasSubstr("misfit: the value is more than the largest")));
    EXPECT_EQ(described({"set", "velmar.on", "YES", "--json"}).out, "{\"key\":\"velmar.on\",\"done\":true}\n");
    EXPECT_EQ(cli({"get", "velmar.on"}).out, "true\n");
    EXPECT_THAT(described({"set", "velmar.prot", "1"}).err, HasSubstr("did you mean \"velmar.port\"?"));
    EXPECT_EQ(cli({"get", "velmar.prot"}).out, "1\n") << "a note stops nothing";
    EXPECT_THAT(described({"set", "VELMAR.PORT", "1"}).err, HasSubstr("did you mean \"velmar.port\"?"));
    EXPECT_THAT(described({"set", "velmar.wrong", "1"}).err, Not(HasSubstr("mean \"velmar.wrong\"")));

    // Patterns are the second program's.
    EXPECT_EQ(described({"set", "velmar.host", "example.org"}).exitCode, 0);
    EXPECT_THAT(described({"set", "velmar.host", "Example"}).err, HasSubstr("does not fit the pattern"));
    // That one takes what the first one found, and nothing that isn't of the key or isn't sound.
    const auto setHost = [&](const std::string& handedOver, const std::string& folder) {
        const std::string second = std::string(SDCONFIG_CLI) + "-data";
        return run({"env", "SDCONFIG_DESCRIBED_AS=" + handedOver, second, "set", "velmar.host", "Example", "--keys-dir",
                    path(folder)},
                   environment());
    };
    const std::string begin = "7 /x.keys.json\n{\"keys\": {\"velmar.host\": {\"type\": \"string\", \"pattern\": ";
    std::filesystem::create_directory(path("none"));
    EXPECT_THAT(setHost(begin + "\"^a\"}}}", "none").err, HasSubstr("does not fit the pattern \"^a\""));
    for (const std::string& bad :
         {begin + "\"(\"}}}", begin, std::string("7"), std::string("7 x\n{\"keys\": {\"sd.x\": {}}}")})
        EXPECT_THAT(setHost(bad, "keys").err, HasSubstr("does not fit the pattern \"^[a-z.]+$\"")) << bad;
    EXPECT_EQ(described({"secure", "set", "velmar.pin"}, "1234\n").exitCode, 0);
    const Result pin = described({"secure", "set", "VELMAR.PIN"}, "s3cr3t\n");
    EXPECT_EQ(pin.exitCode, 2);
    EXPECT_THAT(pin.err, AllOf(HasSubstr("the value does not fit"), Not(HasSubstr("s3cr3t"))));
    EXPECT_EQ(cli({"secure", "get", "velmar.pin"}).out, "1234\n");
    EXPECT_THAT(described({"secure", "set", "velmar.port", "1"}).err, HasSubstr("one of a property"));
    EXPECT_THAT(described({"set", "velmar.theme", "dark"}).err, HasSubstr("use: sdconfig secure set"));
    EXPECT_THAT(described({"policy", "set", "velmar.pin", "1234", "6"}).err, HasSubstr("no policy may govern"));
    EXPECT_EQ(described({"policy", "set", "velmar.cache", "1024 kib", "6"}).exitCode, 0);
    EXPECT_EQ(cli({"policy", "get", "velmar.cache"}).out, "1MiB\n");
    EXPECT_THAT(described({"secure", "set", "velmar.old", "1"}).err, HasSubstr("use \"velmar.wait\" instead"));

    EXPECT_EQ(out({"list", "--described", "velmar.*"}),
              "secure\tvelmar.old\nsecure\tvelmar.pin\npolicy\tvelmar.cache\n"
              "described\tvelmar.theme\tlight\ndescribed\tvelmar.wait\t-\n");
    EXPECT_THAT(out({"explain", "velmar.theme"}), HasSubstr("default: \"light\", which programs take"));
}

TEST_F(DescribedTest, MistakesInPoliciesAreNamedByLine) {
    struct Mistake {
        const char* policy;  // a line of the file
        bool isFault;
        const char* what;
        const char* next;
    };
    const Mistake mistakes[] = {
        {R"("velmar.theme": {"value": "drak", "priority": 6})", true, "none of the allowed", "did you mean \"dark\""},
        {R"("velmar.cache": {"value": "2GiB", "priority": 6})", true, "more than the largest", "at most 1GiB"},
        {R"("velmar.a.name": {"value": "x&&&", "priority": 6})", true, "&&&", "another value"},
        {R"("velmar.wait": {"value": "90", "priority": 6})", true, "has no unit", "put one behind"},
        {R"("velmar.pin": {"value": "1234", "priority": 6})", true, "no policy may govern", "leave it"},
        {R"("velmar.port": {"value": "1", "priority": 6})", true, "no policy governs", "secure value"},
        {R"("velmar.prot": {"value": "1", "priority": 6})", false, "described nowhere", "\"velmar.port\""},
        {R"("velmar.old": {"value": "1", "priority": 6})", false, "deprecated", "velmar.wait"},
        {R"("VELMAR.B.NAME": {"value": "x", "priority": 200})", true, "0 to 127", "without quotes"},
    };
    std::string text;
    for (const Mistake& one : mistakes) text += std::string(text.empty() ? "{" : ",\n") + one.policy;
    writeFile(path("p.json"), text + "}");
    const Result result = described({"policy", "lint", path("p.json"), "--json"});
    EXPECT_EQ(result.exitCode, 1);
    const json findings = json::parse(result.out)["findings"];
    int line = 0;
    for (const Mistake& mistake : mistakes) {
        ++line;
        const bool isNamed = std::any_of(findings.begin(), findings.end(), [&](const json& one) {
            return one["line"] == line && one["file"] == path("p.json") && one["fault"] == mistake.isFault &&
                   one["what"].get<std::string>().find(mistake.what) != std::string::npos &&
                   one["next"].get<std::string>().find(mistake.next) != std::string::npos;
        });
        EXPECT_TRUE(isNamed) << mistake.policy;
    }
    EXPECT_EQ(findings.size(), std::size(mistakes));

    writeFile(path("p.json"),
              "{\"velmar.theme\":\n{\"value\": \"DARK\", \"priority\": 6},\n\"velmar.wait\":\n"
              "{\"value\": \"5\", \"priority\": 6}}");
    const Process service = startService();
    const Result refused = described({"policy", "apply", path("p.json")});
    EXPECT_EQ(refused.exitCode, 2);
    EXPECT_THAT(refused.err, AllOf(HasSubstr("p.json, line 3, \"velmar.wait\": \"5\" has no unit"),
                                   HasSubstr("1 policy is not as the descriptions")));
    EXPECT_EQ(cli({"policy", "list"}).out, "") << "nothing was sent";
    std::filesystem::create_directory(path("policies"));
    const std::vector<std::string> install{"policy", "install", path("p.json"), "--policy-dir", path("policies")};
    EXPECT_EQ(described(install).exitCode, 2);
    EXPECT_TRUE(std::filesystem::is_empty(path("policies")));
    writeFile(path("p.json"), "{\"velmar.theme\": {\"value\": \"DARK\", \"priority\": 6}}");
    EXPECT_THAT(described(install).err, HasSubstr("1 value is in another form"));
    EXPECT_EQ(described({"policy", "apply", path("p.json")}).exitCode, 0);
    EXPECT_EQ(cli({"policy", "get", "velmar.theme"}).out, "dark\n");
}

TEST_F(DescribedTest, KeysAreDescribedWithoutAService) {
    EXPECT_EQ(out({"describe", "velmar.port"}),
              "velmar.port: Port\n  type: int: a whole number from 1 to 65535\n  default: \"8080\"\n"
              "  kept as: a property\n  described in: " +
                  path("keys/velmar.keys.json") + ", line 2\n");
    EXPECT_THAT(out({"describe", "velmar.x.name"}), HasSubstr("described as: velmar.*.name\n"));
    EXPECT_EQ(out({"describe", "velmar.p*"}), "velmar.pin\tstring\t-\t\nvelmar.port\tint\t8080\tPort\n");
    EXPECT_EQ(out({"describe", "velmar.theme", "--values"}), "dark\nlight\n");
    EXPECT_EQ(out({"describe", "velmar.o*", "--names"}), "velmar.old\nvelmar.on\n");
    const Result all = described({"describe", "--json"});
    EXPECT_EQ(json::parse(all.out)["keys"].size(), 9u);
    EXPECT_THAT(all.err, AllOf(HasSubstr("velmar.keys.json, line 11, \"velmar.wrong\", \"type\""),
                               HasSubstr("did you mean \"bool\"?")));
    const Result none = described({"describe", "velmar.prot"});
    EXPECT_EQ(none.exitCode, 1);
    EXPECT_THAT(none.err, HasSubstr("did you mean \"velmar.port\"?"));
    ASSERT_EQ(::mkfifo(path("keys/pipe.keys.json").c_str(), 0600), 0);
    const Result lint = cli({"keys", "lint", path("keys")});
    EXPECT_EQ(lint.exitCode, 1);
    EXPECT_THAT(lint.out, HasSubstr("pipe.keys.json: it is no regular file"));
    EXPECT_THAT(lint.out, HasSubstr("fault: " + path("keys/velmar.keys.json") + ", line 11, \"velmar.wrong\""));
}

}  // namespace
}  // namespace test
