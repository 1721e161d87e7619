// Descriptions of keys: what values fit them, which of them counts for a key, and what is left out of wrong files.
#include "descriptions/descriptions.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "descriptions/lint.h"
#include "descriptions/value_check.h"
#include "descriptions/words.h"
#include "tests/support/support.h"

namespace sd {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::string fileOf(const std::string& descriptions) {
    return "{\"keys\": {\n" + descriptions + "\n}}";
}

std::vector<DescriptionLint> lint(const std::vector<std::string>& texts) {
    Descriptions descriptions;
    for (std::size_t i = 0; i < texts.size(); ++i) descriptions.add(std::to_string(i), texts[i]);
    std::vector<DescriptionLint> found = lintDescriptions(descriptions.readFiles());
    for (const auto& [file, fault] : descriptions.leftOut()) found.push_back({true, file, fault});
    return found;
}

KeyDescription described(const std::string& fields) {
    const DescriptionFile file = readDescriptions(fileOf("\"k\": {" + fields + "}"));
    EXPECT_THAT(file.faults, IsEmpty()) << (file.faults.empty() ? "" : file.faults[0].what) << fields;
    return file.descriptions.empty() ? KeyDescription() : file.descriptions[0];
}

TEST(ValueTest, EachTypeHasOneForm) {
    struct Case {
        const char* fields;
        const char* text;
        const char* stored;  // "!" and a piece of what is told, where it doesn't fit
    };
    const Case cases[] = {
        {R"("type": "bool")", "YES", "true"},
        {R"("type": "bool")", " 0 ", "false"},
        {R"("type": "bool")", "maybe", "!neither"},
        {R"("type": "int")", "-9223372036854775808", "-9223372036854775808"},
        {R"("type": "int")", "9223372036854775808", "!beyond 64 bits"},
        {R"("type": "int")", "+007", "7"},
        {R"("type": "int")", "1.5", "!no whole number"},
        {R"("type": "int", "maximum": 10)", "11", "!more than the largest, 10"},
        {R"("type": "number", "minimum": -0.5)", "-0.50", "-0.5"},
        {R"("type": "number")", "1e3", "1000"},
        {R"("type": "number")", "0,5", "!no number"},
        {R"("type": "number")", "nan", "!no number"},
        {R"("type": "duration")", "90 m", "1h30m"},
        {R"("type": "duration")", "1w 0.5s", "7d500ms"},
        {R"("type": "duration")", "5", "!no unit"},
        {R"("type": "duration")", "5 sec", "!no duration"},
        {R"("type": "duration")", "1m1h", "!no duration"},
        {R"("type": "duration", "minimum": "1s")", "1ms", "!less than the smallest, 1s"},
        {R"("type": "size")", "1.5gib", "1536MiB"},
        {R"("type": "size")", "1024000", "1000KiB"},
        {R"("type": "size")", "0.1B", "!no size"},
        {R"("type": "size")", "8EiB", "!no size"},
        {R"("type": "enum", "enum": ["Dark", "light"])", "DARK", "Dark"},
        {R"("type": "enum", "enum": ["a", "A"])", "a", "a"},
        {R"("type": "url")", "HTTPS://Me@Host.ORG:443/A b", "!blank"},
        {R"("type": "url")", "HTTPS://Me@Host.ORG:443/Ab?c", "https://Me@host.org:443/Ab?c"},
        {R"("type": "url")", "http://[::1]:99999/", "!port"},
        {R"("type": "url")", "host/path", "!no scheme"},
        {R"("type": "url")", "http:///x", "!no host"},
        {R"("type": "url")", "http://h/%2", "!without two digits"},
        {R"("type": "path")", "//var/./x/../y/", "/var/x/../y"},
        {R"("type": "path")", "//", "/"},
        {R"("type": "path")", "~/x", "!shell alone"},
        {R"("type": "url")", "mailto:a@b", "mailto:a@b"},
        {R"("type": "url")", "X:y", "x:y"},
        {R"("type": "url")", "http:x", "!has no host"},
        {R"("type": "url")", "a_b:c", "!has no scheme"},
        {R"("type": "url")", "SVN+ssh-2.0://h/%41", "svn+ssh-2.0://h/%41"},
        {R"("type": "color")", " #AbC ", "#aabbcc"},
        {R"("type": "color")", "#11223380", "#11223380"},
        {R"("type": "color")", "red", "!no color"},
        {R"("type": "json")", "{ \"a b\" : [1, 2.50, \"\\\" x\"] }", "{\"a b\":[1,2.50,\"\\\" x\"]}"},
        {R"("type": "json")", "{", "!no JSON"},
        {R"("type": "string", "pattern": "^[a-zä]+$")", "ähm", "ähm"},
        {R"("type": "string", "pattern": "^[a-z]+$")", "A", "!pattern"},
        {R"("type": "array", "items": {"type": "int"})", "1, +2 ,3", "[1,2,3]"},
        {R"("type": "array", "items": {"type": "string"})", R"([ "a, \"b", "\u00e4\u20ac\ud83d\ude01\n\u001B" ])",
         "[\"a, \\\"b\",\"ä€😁\\n\\u001b\"]"},
        {R"("type": "array", "items": {"type": "size"})", "[]", "[]"},
        {R"("type": "array", "items": {"type": "int", "maximum": 2})", "[1,3]", "!item, number 2, that is more"},
        {R"("type": "array", "items": {"type": "string"})", "[\"\\ud800\"]", "!no JSON array"},
        {R"("type": "int")", "", ""},
    };
    for (const auto& [fields, text, stored] : cases) {
        const KeyDescription description = described(fields);
        const CheckedValue checked = checkValue(description, text);
        if (stored[0] == '!') {
            EXPECT_THAT(checked.what, HasSubstr(stored + 1)) << fields << " " << text;
            EXPECT_FALSE(checked.remedy.empty()) << fields << " " << text;
        } else {
            EXPECT_EQ(checked.stored, stored) << fields << " " << text << ": " << checked.what;
            EXPECT_EQ(checkValue(description, checked.stored).stored, stored) << "it reads back";
        }
    }
    EXPECT_THAT(checkValue(described(R"("type": "string")"), {"a\0b", 3}).what, HasSubstr("zero byte"));
    const KeyDescription theme = described(R"("type": "enum", "enum": ["dark", "light"])");
    for (const char* const slip : {"drak", "sarl", "drax"})
        EXPECT_THAT(checkValue(theme, slip).remedy, HasSubstr("did you mean \"dark\"?"));
    EXPECT_THAT(checkValue(theme, "fjok").remedy, Not(HasSubstr("did you mean")));
}

TEST(DescriptionTest, ThousandRightFilesHaveNoFinding) {
    const char* kinds[] = {
        R"("type": "bool", "default": true, "since": "1.1")",
        R"("type": "int", "minimum": -1, "maximum": 9223372036854775807, "default": 0, "unit": "%")",
        R"("type": "number", "default": 0.5, "store": "secure", "governable": true)",
        R"("type": "string", "pattern": "^[^\\s]*$", "default": "ä\u00df")",
        R"("type": "enum", "enum": ["a", "b c"], "words": {"a": "A"}, "default": "b c",
           "translations": {"de": {"words": {"a": "Ä"}}, "pt_BR": {"summary": "x"}})",
        R"("type": "duration", "minimum": "1 s", "default": "90m")",
        R"("type": "json", "default": {"a": [1, null, {"b": "c"}]}, "description": "two\nlines")",
        R"("type": "array", "items": {"type": "url"}, "default": ["http://h/"])",
        R"("type": "string", "secret": true, "summary": "Password")",
        R"("type": "path", "deprecated": true, "replacedBy": "right.n0.kind0")",
    };
    std::vector<std::string> files;
    for (int i = 0; i < 1000; ++i) {
        std::string keys;
        for (std::size_t kind = 0; kind < std::size(kinds); ++kind)
            keys += std::string(kind == 0 ? "" : ",") + "\"right.n" + std::to_string(i) + ".kind" +
                    std::to_string(kind) + "\": {" + kinds[kind] + "}";
        files.push_back(R"({"$schema": "x", "description": "y", )" + fileOf(keys).substr(1));
    }
    EXPECT_THAT(lint(files), IsEmpty());
}

TEST(DescriptionTest, FilesAreComparedWithEachOther) {
    const auto found = lint({fileOf(R"("a.b": {"type": "int"}, "a.*.c": {"type": "int"}, "a.x": {"type": "int"},
        "c.*.*": {"type": "int"}, "d.*": {"type": "int"},
        "a.old": {"type": "int", "deprecated": true, "replacedBy": "a.nwe"})"),
                             fileOf(R"("A.B": {"type": "bool"}, "a.x": {"type": "int"}, "a.new": {"type": "int"},
        "a.*.*": {"type": "int"}, "a.1.c": {"type": "bool"}, "b.*": {"type": "int"},
        "c.*.yes": {"type": "int"}, "d.e*.f": {"type": "int"})")});
    std::vector<std::string> told;
    for (const DescriptionLint& one : found) {
        EXPECT_FALSE(one.isFault);
        told.push_back(one.file + " " + one.fault.key + " " + one.fault.what + "; " + one.fault.remedy);
    }
    EXPECT_THAT(told, testing::UnorderedElementsAre(
                          AllOf(HasSubstr("0 a.old"), HasSubstr("did you mean \"a.new\"")),
                          AllOf(HasSubstr("1 A.B"), HasSubstr("contradicts 0, line 2")),
                          AllOf(HasSubstr("1 a.x"), HasSubstr("is described in 0, line 2 already")),
                          AllOf(HasSubstr("1 a.*.*"), HasSubstr("count as those of \"a.*.c\"")),
                          AllOf(HasSubstr("1 c.*.yes"), HasSubstr("shadows keys of \"c.*.*\"")),
                          AllOf(HasSubstr("1 a.1.c"), HasSubstr("another type or store than \"a.*.c\"")),
                          AllOf(HasSubstr("1 a.1.c"), HasSubstr("another type or store than \"a.*.*\""))));
}

TEST(DescriptionTest, KeysComeBeforeGlobsAndTheLastFileCounts) {
    Descriptions all;
    all.add("1", fileOf(R"("p.*.name": {"type": "string"}, "p.*.*": {"type": "json"}, "P.lj-*.name": {"type": "url"},
        "p.1.name": {"type": "int"}, "p.2.name": {"type": "int", "default": 1}, "s.*": {"type": "int", "secret": true})"));
    all.add("2",
            fileOf(R"("p.2.name": {"type": "bool"}, "p.1.name": {"type": "wrong"}, "esc\u0061ped": {"type": "int"})"));
    const auto typeOf = [&all](const std::string& key) {
        const auto found = all.find(key);
        return found ? found->file + nameOf(found->description.value.type) : "none";
    };
    EXPECT_EQ(typeOf("p.1.name"), "1int") << "what is left out lets the earlier one count";
    EXPECT_EQ(typeOf("p.2.name"), "2bool");
    EXPECT_EQ(typeOf("p.x.name"), "1string");
    EXPECT_EQ(typeOf("p.x.y"), "1json");
    EXPECT_EQ(typeOf("P.lj-5.name"), "1url");
    EXPECT_EQ(typeOf("p.lj-5.name"), "1string") << "properties tell upper from lower case";
    EXPECT_EQ(typeOf("S.X"), "1int") << "secure values don't";
    EXPECT_EQ(typeOf("p..name"), "none");
    EXPECT_EQ(typeOf("p.x.y.name"), "none");
    EXPECT_EQ(typeOf("escaped"), "2int");
    EXPECT_EQ(all.near("p.1.nmae"), "p.1.name");
    ASSERT_EQ(all.leftOut().size(), 1u) << "once, however often it is met";
    EXPECT_EQ(all.leftOut()[0].fault.place(), "line 2, \"p.1.name\", \"type\"");
}

TEST(DescriptionTest, ABrokenFileHarmsNoOther) {
    const struct {
        const char* text;
        const char* what;
    } broken[] = {
        {"", "is no JSON object"},
        {"[]", "is no JSON object"},
        {"\xef\xbb\xbf{}", "byte order mark"},
        {"{}", "has no \"keys\""},
        {R"({"keys": []})", "no JSON object"},
        {R"({"keys": {}, "keys": {}})", "twice"},
        {R"({"kyes": {}})", "no file of descriptions has"},
        {"{\"keys\": {\n\"a\": {\"type\": [}\n}}", "is no JSON at this place"},
        {"{\"keys\": {\"a\": {\"b", "ends too early"},
        {R"({"keys": {}} x)", "goes on behind"},
    };
    for (const auto& [text, what] : broken) {
        Descriptions all;
        all.add("broken", text);
        all.add("sound", fileOf(R"("a": {"type": "int"})"));
        EXPECT_TRUE(all.find("a")) << text;
        ASSERT_EQ(all.leftOut().size(), 1u) << text;
        EXPECT_THAT(all.leftOut()[0].fault.what, HasSubstr(what)) << text;
        EXPECT_FALSE(all.leftOut()[0].fault.remedy.empty());
    }
    Descriptions deep;
    deep.add("deep", fileOf("\"a\": " + std::string(100000, '[')));
    EXPECT_THAT(deep.leftOut().at(0).fault.what, HasSubstr("64 deep"));
    Descriptions globs;
    std::string many;
    for (int i = 0; i < 1001; ++i) many += (i ? ",\"a.*." : "\"a.*.") + std::to_string(i) + "\": {\"type\": \"int\"}";
    globs.add("globs", fileOf(many));
    EXPECT_THAT(globs.leftOut().at(0).fault.what, HasSubstr("more than 1,000 globs"));
    Descriptions full;
    std::string half = fileOf(R"("a": {"type": "int"})");
    half.resize(std::size_t{32} << 20, ' ');
    for (const char* name : {"one", "two"}) full.add(name, half);
    EXPECT_TRUE(full.leftOut().empty());
    full.add("more", fileOf(R"("b": {"type": "int"})"));
    EXPECT_THAT(full.leftOut().at(0).fault.what, HasSubstr("more than 64 MiB"));
}

// A search that goes back would take longer than the universe is old.
TEST(DescriptionTest, HostilePatternsAndManyKeysTakeLinearTime) {
    std::string many;
    for (int i = 0; i < 100'000; ++i)
        many += "\"many.k" + std::to_string(i) + "\": {\"type\": \"int\", \"default\": " + std::to_string(i) + "},\n";
    Descriptions all;
    all.add("many", fileOf(many + R"("hostile": {"type": "string", "pattern": "^(a*)*(a|aa)+(.*)*b$"})"));
    EXPECT_EQ(all.find("many.k99999")->description.defaultValue, "99999");
    EXPECT_EQ(all.find("many.k99999")->description.line, 100'001);
    const KeyDescription hostile = all.find("hostile")->description;
    EXPECT_THAT(checkValue(hostile, std::string(100'000, 'a')).what, HasSubstr("pattern"));
    EXPECT_TRUE(checkValue(hostile, std::string(100'000, 'a') + "b").fits());
    EXPECT_EQ(all.names().size(), 100'001u);
}

class DescriptionFoldersTest : public testing::Test {
protected:
    DescriptionFoldersTest() {
        for (const char* folder : {"vendor", "admin"}) fs::create_directory(mFolder / folder);
    }
    void write(const std::string& name, const std::string& type) const {
        test::writeFile(mFolder / name, fileOf(R"("k": {"type": ")" + type + "\"}"));
    }
    // The type of the key, and what is left out.
    std::vector<std::string> read() const {
        Descriptions all({{mFolder / "vendor", ::geteuid()}, {mFolder / "admin", ::geteuid()}});
        const auto found = all.find("k");
        std::vector<std::string> told{found ? nameOf(found->description.value.type) : "none"};
        for (const auto& [file, fault] : all.leftOut())
            told.push_back(file.substr(mFolder.path().size() + 1) + " " + fault.what);
        return told;
    }

    test::TempDir mFolder;
};

TEST_F(DescriptionFoldersTest, LaterFoldersReplaceAndOnlyOwnersAreTrusted) {
    write("vendor/10.keys.json", "int");
    write("vendor/.hidden.keys.json", "url");
    write("vendor/x.json", "url");
    EXPECT_THAT(read(), ElementsAre("int"));
    write("admin/10.keys.json", "bool");
    EXPECT_THAT(read(), ElementsAre("bool"));
    ::chmod((mFolder / "admin/10.keys.json").c_str(), 0666);
    EXPECT_THAT(read(), ElementsAre("int", HasSubstr("10.keys.json is writable by everybody")));
    fs::remove(mFolder / "admin/10.keys.json");
    fs::create_symlink("/dev/null", mFolder / "admin/10.keys.json");
    EXPECT_THAT(read(), ElementsAre("none"));
    fs::remove(mFolder / "admin/10.keys.json");
    ::chmod((mFolder / "vendor").c_str(), 0777);
    EXPECT_THAT(read(), ElementsAre("none", HasSubstr("vendor is writable by everybody")));
}

TEST(WordsTest, ComeInTheLanguageOfTheEnvironment) {
    const KeyDescription description =
        described(R"("type": "enum", "enum": ["a", "b"], "summary": "s", "description": "d",
        "words": {"a": "A", "b": "B"}, "translations": {"de": {"summary": "z", "words": {"a": "Ä"}}, "de_AT": {"summary": "ö"}})");
    const test::ScopedEnv all("LC_ALL", nullptr);
    const test::ScopedEnv messages("LC_MESSAGES", "de_AT.UTF-8");
    const test::ScopedEnv language("LANGUAGE", nullptr);
    const KeyWords words = wordsIn(wantedLocales(), description);
    EXPECT_EQ(words.summary + words.description + words.values.at("a") + words.values.at("b"), "ödÄB");
    const test::ScopedEnv first("LANGUAGE", "fr:de");
    EXPECT_EQ(wordsIn(wantedLocales(), description).summary, "z");
    const test::ScopedEnv none("LC_ALL", "C.UTF-8");
    EXPECT_EQ(wordsIn(wantedLocales(), description).summary, "s");
}

}  // namespace
}  // namespace sd
