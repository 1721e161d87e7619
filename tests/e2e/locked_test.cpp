// A service and commands whose key ring is wrapped, and that nothing at hand opens.
#include <gmock/gmock.h>

#include <filesystem>

#include "platform/sdsecurity/sdsecurity.h"
#include "tests/e2e/sandbox.h"

namespace test {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using Kind = sd::SDSecurity::SlotKind;
using Outcome = sd::SDSecurity::SlotOutcome;
using Use = sd::SDSecurity::SlotUse;

constexpr char kWords[] = "correct horse";

class LockedTest : public Sandbox {
protected:
    // A folder with a value, a policy and a wrapped ring, and no service.
    LockedTest() {
        std::filesystem::permissions(path("data"), std::filesystem::perms::owner_all);
        {
            const Process service = startService();
            for (const char* key : {"a", "b"}) EXPECT_EQ(cli({"secure", "set", key, "value"}).exitCode, 0);
            EXPECT_EQ(cli({"policy", "set", "p", "w", "100"}).exitCode, 0);
        }
        sd::SDSecurity& security = *sd::SDSecurity::GetInstance();
        security.SetKeyRingFolder(path("data"));
        sd::SDSecurity::SlotKeys keys;
        security.MakeSlotKey(Kind::Recovery, Use::Fresh, sd::SDSecurity::MakeRecoveryCode(), keys.recovery);
        security.MakeSlotKey(Kind::Passphrase, Use::Fresh, kWords, keys.passphrase);
        EXPECT_EQ(security.Protect(Kind::Passphrase, keys).outcome, Outcome::Done);
    }
    std::string rows() const {
        std::string all;
        for (const char* database : {"data/sdconfig.db", "data/dmhelper.db"})
            all += run({"sqlite3", path(database), ".dump"}).out;
        return all;
    }
    // What a command says on both of its outputs.
    std::string told(const std::vector<std::string>& arguments, const std::string& input = "") const {
        const Result result = cli(arguments, input);
        return result.out + result.err;
    }
};

TEST_F(LockedTest, IsServedWithoutItsKeysAndLeavesEveryRow) {
    const std::string before = rows();
    {
        Process service = startService();
        EXPECT_TRUE(service.waitForErr("the key ring can't be opened now"));
        EXPECT_THAT(service.err(), Not(HasSubstr("damaged")));
        EXPECT_EQ(cli({"set", "sd.x", "1"}).exitCode, 0);
        EXPECT_EQ(cli({"get", "sd.x"}).out, "1\n");
        for (int i = 0; i < 3; ++i) EXPECT_EQ(cli({"secure", "get", "a"}).out, "");
        for (const char* value : {"other", ""}) EXPECT_NE(cli({"secure", "set", "a", value}).exitCode, 0);
        EXPECT_NE(cli({"policy", "set", "p", "x", "120"}).exitCode, 0);
        EXPECT_NE(cli({"policy", "set", "q", "x", "120"}).exitCode, 0);
        for (const char* what : {"rotate", "prune"})
            EXPECT_THAT(told({"key", what, what[0] == 'p' ? "--yes" : "--reseal"}),
                        HasSubstr("the key ring is locked"));
        const std::string log = service.err();
        std::size_t lines = 0;
        const std::string line = "sdsecurity.keys: it is locked";
        for (std::size_t at = 0; (at = log.find(line, at)) != std::string::npos; ++at) ++lines;
        EXPECT_EQ(lines, 2U) << "the service's and the layer's, not one for each call: " << log;
        EXPECT_THAT(told({"secure", "get", "a"}), Not(HasSubstr("damaged")));
    }
    EXPECT_EQ(rows(), before);

    const TempDir unit;
    writeFile(unit / "sdsecurity.passphrase", kWords, 0400);
    const ScopedEnv credentials("CREDENTIALS_DIRECTORY", unit.path().c_str());
    const Process service = startService();
    EXPECT_EQ(cli({"secure", "get", "a"}).out, "value\n");
    EXPECT_EQ(cli({"policy", "get", "p"}).out, "w\n");
    EXPECT_EQ(cli({"secure", "set", "a", "other"}).exitCode, 0);
    EXPECT_THAT(service.err(), Not(HasSubstr("can't be opened")));
}

TEST_F(LockedTest, ARingThatWasHandedOverOpensByWhatIsTyped) {
    const TempDir unit, other;
    std::filesystem::rename(path("data/sdsecurity.keys"), unit / "sdsecurity.keys");
    const auto startWith = [&](const TempDir& folder) {
        const ScopedEnv credentials("CREDENTIALS_DIRECTORY", folder.path().c_str());
        return startService();
    };
    {
        const Process service = startWith(unit);
        EXPECT_EQ(cli({"secure", "get", "a"}).out, "");
        EXPECT_THAT(told({"key", "unlock"}, "other\n"), HasSubstr("that is not the passphrase"));
        EXPECT_THAT(told({"key", "unlock"}, std::string(kWords) + "\n"), HasSubstr("the key ring is open"));
        EXPECT_EQ(cli({"secure", "get", "a"}).out, "value\n");
        EXPECT_THAT(cli({"doctor"}).out, HasSubstr("handed over in " + unit.path() + ", this program has not"));
    }
    std::filesystem::rename(unit / "sdsecurity.keys", path("data/sdsecurity.keys"));
    const Process service = startService();
    writeFile(other / "sdsecurity.keys", "another one");
    const ScopedEnv credentials("CREDENTIALS_DIRECTORY", other.path().c_str());
    for (const char* by : {"unlock", "recover"})
        EXPECT_THAT(told({"key", by}, std::string(kWords) + "\n"),
                    AllOf(HasSubstr("can't be read here: " + path("data/sdsecurity.keys")),
                          HasSubstr("sdsecurity.passphrase in $CREDENTIALS_DIRECTORY")));
}

}  // namespace
}  // namespace test
