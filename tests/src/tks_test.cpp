// The store of the earlier layout, and the upgrade of a database that other programs made.
#include <gtest/gtest.h>

#include <optional>

#include "platform/sdsecurity/sdsecurity.h"
#include "src/sdconfig_impl_tks.h"
#include "tests/support/legacy_database.h"
#include "tests/support/support.h"

namespace sd {
namespace {

using Rows = std::vector<std::vector<std::string>>;

const std::string kLong = std::string(2999, '0') + "3";
const std::string kSeventy = std::string(69, '0') + "7";

class TksTest : public testing::Test {
protected:
    TksTest() {
        SDSecurity::GetInstance()->SetKeyRingFolder(mFolder.path());
        test::makeLegacyDatabase(mFile);
    }
    Rows query(const std::string& sql) const { return test::query(mFile, sql); }
    std::string version() const { return query("SELECT value FROM dbinfor WHERE key = 'dbVersion'").at(0).at(0); }
    void useSince() const { query(test::kUsedSince); }
    void forbid(const std::string& key) const {
        query("DROP TRIGGER IF EXISTS no; CREATE TRIGGER no BEFORE INSERT ON secure_v3 WHEN NEW.key = '" + key +
              "' BEGIN SELECT RAISE(ABORT, 'no'); END");
    }

    const test::TempDir mFolder;
    const std::string mFile = mFolder / "sdconfig.db";
    test::LogCapture mLog;
};

TEST_F(TksTest, CarriesEveryRowOverOnce) {
    useSince();
    query("UPDATE dbinfor SET value = '10'");
    const SDConfigImplTKS upgraded{mFile};
    EXPECT_EQ(query("SELECT value FROM dbinfor UNION ALL SELECT count(*) FROM secure_v3"), (Rows{{"10"}, {"1"}}))
        << "a later version is left alone";
    query("UPDATE dbinfor SET value = '2'");
    mLog.clear();
    const Rows legacy = query("SELECT * FROM config UNION ALL SELECT * FROM secure");
    std::optional<SDConfigImplTKS> store(mFile);
    const std::pair<const char*, std::string> values[] = {
        {"sd.ui.theme", "dark"}, {"empty", ""}, {"velmar.client.id", "client-4711"}, {"mail.password", kSeventy},
        {"token", "tok"},        {"user", ""},  {"long", kLong.substr(0, 2048)},     {"hollow", ""},
    };
    for (const auto& [key, value] : values) {
        EXPECT_TRUE(store->isKeyInDB(key)) << key;
        EXPECT_EQ(store->GetSecure_v3(key), value) << key;
    }
    EXPECT_EQ(query("SELECT count(*) FROM secure_v3"), (Rows{{std::to_string(std::size(values))}}));
    EXPECT_EQ(query("SELECT * FROM config UNION ALL SELECT * FROM secure"), legacy);
    EXPECT_EQ(query("SELECT seq FROM sqlite_sequence WHERE name = 'secure_v3'"), Rows{{"10"}})
        << "each but the id once";
    EXPECT_EQ(version(), "3");
    const std::string speaker = "src/sdconfig_impl_tks upgrade";
    const struct {
        std::string line;
        int level;
        int count;
    } lines[] = {
        {"src/sdconfig_impl_tks SDConfigImplTKS(", 5, 2},
        {"latestDBVersion=3, upgradeDbVersion=2", 5, 1},
        {"upgrade from 1 to 3", 5, 1},
        {speaker + "Config_to3(", 5, 4},  // its own line and 3 keys
        {"before strip key = ", 5, 101},
        {"key without-at, format is not right", 6, 1},
        {"key = user@host@@0, value is empty", 6, 1},
        {"key = hollow@@0, value is empty", 6, 1},
        {"velmar.client.id's value is empty", 6, 1},
        {"upgradeDB takes ", 5, 1},
        {"after upgrade, current db version : 3", 5, 1},
        {speaker, 7, 0},
    };
    for (const auto& [line, level, count] : lines) EXPECT_EQ(mLog.count(line, level), count) << line;

    store.reset();
    query("UPDATE config SET value = 'light'");
    EXPECT_EQ(store.emplace(mFile).GetSecure_v3("sd.ui.theme"), "dark");
}

TEST_F(TksTest, StampsWithoutCopyingWhereNothingIsSealedYet) {
    EXPECT_EQ(SDConfigImplTKS(mFile).GetSecure_v2("mail.password"), kSeventy);
    EXPECT_EQ(version(), "3");
    EXPECT_EQ(query("SELECT count(*) FROM secure_v3"), Rows{{"0"}});
    EXPECT_EQ(mLog.count("src/sdconfig_impl_tks upgradeDB("), 0);
    query("DELETE FROM config; DELETE FROM secure; UPDATE dbinfor SET value = '9'");
    EXPECT_TRUE(SDConfigImplTKS(mFile).isNewInstall());
    EXPECT_EQ(mLog.count("src/sdconfig_impl_tks upgradeDB("), 3);
    EXPECT_EQ(version(), "3");
}

TEST_F(TksTest, AFailedCopyIsTriedAgainAndAClientIdMakesUpForIt) {
    useSince();
    forbid("sd.ui.theme");
    SDConfigImplTKS store(mFile);
    EXPECT_EQ(version(), "2");
    EXPECT_EQ(mLog.count("upgrade failed, key = sd.ui.theme", 7), 1);
    EXPECT_EQ(mLog.count("upgrade from 1 to 3 failed", 7), 1);
    forbid("long");
    EXPECT_TRUE(store.upgradeDB());
    EXPECT_EQ(version(), "3");
    EXPECT_EQ(mLog.count("upgrade failed, key = long@@0", 7), 1);
    EXPECT_FALSE(store.isKeyInDB("token")) << "the copy ends at the first failure";
    query("UPDATE config SET value = '' WHERE key = 'velmar.client.id'");
    EXPECT_FALSE(store.upgradeSecure_to3());
    query("UPDATE config SET value = 'id' WHERE key = 'velmar.client.id'");
    forbid("velmar.client.id");
    EXPECT_FALSE(store.upgradeSecure_to3());
    EXPECT_EQ(mLog.count("upgrade failed, key = velmar.client.id", 7), 1);

    query("DROP TABLE config; DROP TABLE secure");
    store.GetConfig_v2("any");  // tells the connection that the tables are gone
    EXPECT_FALSE(store.upgradeConfig_to3() || store.upgradeSecure_to3());
    EXPECT_EQ(mLog.count("upgrade failed, get keyList error", 7), 2);
}

TEST_F(TksTest, AccessorsOfTheEarlierLayout) {
    query("DELETE FROM secure");
    SDConfigImplTKS store(mFile);
    EXPECT_TRUE(store.SetSecure_v2("long", kLong));
    EXPECT_EQ(store.GetSecure_v2("long"), kLong.substr(0, 2048));
    EXPECT_TRUE(store.DeleteSecure_v2("long"));
    EXPECT_EQ(query("SELECT count(*) FROM secure WHERE key LIKE 'long@@%'"), (Rows{{"30"}})) << "beyond what is read";
    EXPECT_TRUE(store.SetSecure_v2("mail", kSeventy));
    EXPECT_EQ(query("SELECT key, length(value) FROM secure WHERE key LIKE 'mail%' ORDER BY id"),
              (Rows{{"mail@@0", "65"}, {"mail@@1", "65"}, {"mail@@2", "25"}}));
    EXPECT_TRUE(store.SetSecure_v2(std::string(300, 'n'), "cut"));
    EXPECT_EQ(query("SELECT max(length(key)) FROM secure"), Rows{{"255"}});
    EXPECT_TRUE(store.SetSecure_v2("MAIL", "short"));
    EXPECT_EQ(store.GetSecure_v2("mail"), "short");
    EXPECT_TRUE(store.SetSecure_v2("mail", ""));
    EXPECT_EQ(store.GetSecure_v2("mail"), "");
    query(
        "INSERT INTO secure(key, value) VALUES('gap@@0', 'no base64'), ('gap@@3', 'unreached'), "
        "('gap@@1', (SELECT value FROM secure WHERE key = 'long@@65'))");
    EXPECT_EQ(store.GetSecure_v2("gap"), std::string(32, '0')) << "a broken piece counts as empty, a missing one ends";
    query("CREATE TRIGGER no BEFORE DELETE ON secure BEGIN SELECT RAISE(ABORT, 'no'); END");
    EXPECT_FALSE(store.DeleteSecure_v2("gap"));

    EXPECT_TRUE(store.SetConfig_v2("SD.ui.theme", "v"));
    EXPECT_EQ(store.GetConfig_v2("sd.ui.theme"), "v");
    EXPECT_TRUE(store.DeleteConfig_v2("sd.ui.theme"));
    EXPECT_EQ(store.GetConfig_v2("sd.ui.theme"), "");
}

}  // namespace
}  // namespace sd
