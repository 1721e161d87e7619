// Data of an earlier version: rows as odd as they get, and a file that others use. commands_test.cpp has the rest.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "base/unique_fd.h"
#include "tests/e2e/sandbox.h"
#include "tests/support/legacy_database.h"

namespace test {
namespace {

using nlohmann::json;
using ::testing::EndsWith;
using ::testing::HasSubstr;

class UpgradeTest : public Sandbox {
protected:
    UpgradeTest() { makeLegacyDatabase(mDatabase); }

    Result upgrade(std::vector<std::string> options = {}) const {
        options.insert(options.begin(), {"upgrade", path("data")});
        return cli(options);
    }

    const std::string mDatabase = path("data/sdconfig.db");
};

TEST_F(UpgradeTest, NamesOddRowsAndWhatACutOffCopyingLeft) {
    const auto piece = [](const std::string& block) {  // ends in its own padding
        return run({"openssl", "enc", "-aes-256-cbc", "-nopad", "-base64", "-K", hex(sd::kLegacyKey), "-iv",
                    hex(sd::kLegacyIv)},
                   {}, block)
            .out;
    };
    const std::string fifteen = "fifteen bytes..";
    const std::string sound = fifteen + '\1';
    const std::string longName(297, 'l');
    const std::string cutName(254, 'c');  // all its pieces have one key
    std::string repeated;
    for (int i = 0; i < 64; ++i) repeated += fifteen;
    const struct {
        std::string name;
        std::string separator;
        std::string block;
        std::string read;
        std::size_t lost = 1;
    } cases[] = {
        {"padding 0", "@@0", fifteen + '\0', ""},
        {"padding 17", "@@0", fifteen + '\21', ""},
        {"padding 0x80", "@@0", fifteen + '\x80', fifteen + "\x80\n", 0},
        {"padding 0xFF", "@@0", fifteen + '\xFF', fifteen + "\xFF\n", 0},
        {"zero byte", "@@0", std::string("fourteen\0bytes\2\2", 16), "fourteen\n"},
        {longName, "@@0", sound, ""},
        {cutName.substr(2), "@@0", sound, fifteen + "\n", 0},
        {cutName, "@", sound, repeated + "\n"},
        {"", "@@0", sound, ""},
    };
    for (const auto& [name, separator, block, read, lost] : cases)
        query(mDatabase, std::string("INSERT INTO secure(key, value) VALUES('")
                             .append(name + separator)
                             .append("', '")
                             .append(piece(block))
                             .append("')"));
    const json report = json::parse(upgrade({"--force", "--json"}).out);
    query(mDatabase, "DELETE FROM secure_v3 WHERE key IN ('empty', 'token')");
    const Result again = upgrade();
    EXPECT_EQ(again.exitCode, 0);
    EXPECT_THAT(again.err, HasSubstr("secure_v3 lacks: 2;"));
    EXPECT_THAT(again.out, HasSubstr("  token, not in secure_v3\n"));
    const Process service = startService();
    for (const auto& [name, separator, block, read, lost] : cases) {
        SCOPED_TRACE(name);
        const auto found = std::find_if(report["secure"].begin(), report["secure"].end(),
                                        [&, &key = name](const json& entry) { return entry["key"] == key; });
        ASSERT_NE(found, report["secure"].end());
        EXPECT_EQ((*found)["lost"].size(), lost);
        EXPECT_EQ(cli({"secure", "get", name}).out, read);
    }
}

TEST_F(UpgradeTest, KeepsOffADatabaseThatIsInUse) {
    query(mDatabase, kUsedSince);
    {
        const Process service = startService({"--log-level", "8"});
        const std::string holder = "is in use by process " + std::to_string(service.pid());
        for (const char* option : {"--force", "--dry-run"}) expectRefusal(upgrade({option}), holder);
        Environment other = environment();
        other["XDG_RUNTIME_DIR"] = path("home");
        std::filesystem::permissions(path("home"), std::filesystem::perms::owner_all);
        for (const char* how : {"", ", which has to end first: kill "}) {
            expectRefusal(run({SDCONFIGD, "--log-level", "8", "--data-dir", path("data")}, other), holder + how);
            std::filesystem::remove(path("data/sdconfigd.lock"));  // the folder itself is held, too
        }
        EXPECT_EQ(cli({"status"}).exitCode, 0);
    }
    {
        const sd::UniqueFd held(::open(path("data").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        ASSERT_EQ(::flock(held.get(), LOCK_EX | LOCK_NB), 0);
        expectRefusal(upgrade({"--force"}), "; find it with: fuser -v ");
    }
    // Some other program with an idle connection, which takes no part in the service's lock.
    Process idle = hold(mDatabase, "SELECT 1 FROM config");
    expectRefusal(upgrade({"--force"}), "the database " + mDatabase + " is in use by process");
    release();
    idle.wait();
    EXPECT_THAT(upgrade({"--force"}).out, EndsWith("upgraded to version 3\n"));
}

TEST_F(UpgradeTest, RefusesWhatItCannotWrite) {
    const char* const file = mDatabase.c_str();
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        GTEST_SKIP() << "mounting takes a privilege";
    ASSERT_EQ(::mount(file, file, nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(::mount(nullptr, file, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    expectRefusal(upgrade({"--force"}), "can't be written");
}

}  // namespace
}  // namespace test
