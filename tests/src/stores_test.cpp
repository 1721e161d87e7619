// The configuration store and the policy store, observed in their files.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <stdexcept>
#include <tuple>

#include "libsdconfig/sdconfig.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "sql/SQLiteWitness.h"
#include "src/sdconfig_impl.h"
#include "src/sdconfig_impl_policy.h"
#include "src/sdconfig_impl_property.h"
#include "tests/support/scarce_memory.h"
#include "tests/support/support.h"

namespace sd {
namespace {

using test::ScarceMemory;

// SQLite's memory runs out as that of `new` does; it asks for each piece by itself.
const bool sIsScarceForSqlite = [] {
    static sqlite3_mem_methods sOwn;
    sqlite3_config(SQLITE_CONFIG_GETMALLOC, &sOwn);
    sqlite3_mem_methods scarce = sOwn;
    scarce.xMalloc = [](int size) { return ScarceMemory::isRefused() ? nullptr : sOwn.xMalloc(size); };
    scarce.xRealloc = [](void* old, int size) {
        return ScarceMemory::isRefused() ? nullptr : sOwn.xRealloc(old, size);
    };
    return sqlite3_config(SQLITE_CONFIG_MALLOC, &scarce) == 0 && sqlite3_config(SQLITE_CONFIG_LOOKASIDE, 0, 0) == 0;
}();

using Rows = std::vector<std::vector<std::string>>;

// Both singletons on one data folder, emptied before each test.
class StoresTest : public testing::Test {
protected:
    static const std::string& folder() {
        static const test::TempDir folder;
        return folder.path();
    }

    StoresTest() {
        SDConfig::setDataPath(folder());
        SDSecurity::GetInstance()->SetKeyRingFolder(folder());
        mConfig = SDConfigImpl::GetInstance();
        mPolicies = &SDConfigDmHelper::GetInstance();
        test::query(mConfigFile, "DELETE FROM secure_v3; DELETE FROM config");
        test::query(mPolicyFile, "DELETE FROM dmhelperconfig");
        mLog.clear();
    }

    // What was sealed for the key's row.
    std::string unsealed(const std::string& file, const std::string& table, const std::string& key) {
        const Rows rows = test::query(file, "SELECT value FROM " + table + " WHERE key = '" + key + "'");
        const std::string database = std::filesystem::path(file).filename();
        return rows.size() == 1 ? SDSecurity::DecryptForRow({database, table, key}, rows[0][0]) : "no single row";
    }

    // Puts a policy text of our own into the row, as an earlier version or a damaged disk might have.
    void plantPolicy(const std::string& uri, const std::string& text) {
        test::query(mPolicyFile, "INSERT OR REPLACE INTO dmhelperconfig(key, value) VALUES('" + uri + "', '" +
                                     SDSecurity::EncryptForRow({"dmhelper.db", "dmhelperconfig", uri}, text) + "')");
    }

    const std::string mConfigFile = folder() + "/sdconfig.db";
    const std::string mPolicyFile = folder() + "/dmhelper.db";
    test::LogCapture mLog;
    SDConfigImpl* mConfig = nullptr;
    SDConfigDmHelper* mPolicies = nullptr;
};

TEST_F(StoresTest, AFreshFileGetsItsTablesAndVersionAndAFilledOneKeepsItsOwn) {
    const test::TempDir fresh;
    const std::string file = fresh / "sdconfig.db";
    const std::string columns =
        "(id INTEGER PRIMARY KEY AUTOINCREMENT,key TEXT COLLATE NOCASE UNIQUE ON CONFLICT FAIL,value TEXT )";
    {
        SDConfigImpl store(file);
        EXPECT_TRUE(store.isNewInstall());
    }
    EXPECT_EQ(test::query(file, "SELECT sql FROM sqlite_master WHERE name NOT LIKE 'sqlite_%' ORDER BY name"),
              (Rows{{"CREATE TABLE config" + columns},
                    {"CREATE TABLE dbinfor" + columns},
                    {"CREATE TABLE secure" + columns},
                    {"CREATE TABLE secure_v3" + columns}}));
    EXPECT_EQ(test::query(file, "SELECT key, value FROM dbinfor"), (Rows{{"dbVersion", "3"}}));
    EXPECT_EQ(mLog.count("new install, don't need upgrade.", 5), 1);

    test::query(file, "DELETE FROM dbinfor; INSERT INTO secure_v3(key, value) VALUES('a', 'b')");
    SDConfigImpl again(file);
    EXPECT_EQ(test::query(file, "SELECT * FROM dbinfor"), Rows{});
    EXPECT_FALSE(again.isNewInstall());
}

TEST_F(StoresTest, SecureValuesAreSealedReplacedAndDeleted) {
    ASSERT_TRUE(mConfig->SetSecure("Abc", "first"));
    ASSERT_TRUE(mConfig->SetSecure("aBC", "second"));
    EXPECT_EQ(test::query(mConfigFile, "SELECT key FROM secure_v3"), Rows{{"aBC"}});
    EXPECT_EQ(unsealed(mConfigFile, "secure_v3", "aBC"), "second");
    const std::string onDisk = test::readFile(mConfigFile + "-wal") + test::readFile(mConfigFile);
    EXPECT_NE(onDisk.find("aBC"), std::string::npos);
    EXPECT_EQ(onDisk.find("second"), std::string::npos);
    EXPECT_EQ(mConfig->GetSecure("ABC"), "second");
    EXPECT_TRUE(mConfig->isKeyInDB("aBC"));
    EXPECT_FALSE(mConfig->isKeyInDB("abc")) << "membership is exact";

    for (int i = 0; i < 2; ++i) EXPECT_TRUE(mConfig->DeleteSecure("abc"));
    EXPECT_EQ(test::query(mConfigFile, "SELECT * FROM secure_v3"), Rows{});

    ASSERT_TRUE(mConfig->SetSecure("empty", ""));
    EXPECT_EQ(test::query(mConfigFile, "SELECT value FROM secure_v3 WHERE key='empty'"), Rows{{""}});
    EXPECT_TRUE(mConfig->DeleteSecure("empty"));
    EXPECT_TRUE(mConfig->isKeyInDB("empty")) << "an empty row is as good as deleted already";
}

TEST_F(StoresTest, SecureValuesAndKeysOfAnyBytes) {
    ASSERT_TRUE(mConfig->SetSecure("e", "\xC3\xA9"));
    EXPECT_EQ(mConfig->GetSecure("e"), "\xC3\x83\xC2\xA9") << "read as Latin-1, kept as UTF-8";
    ASSERT_TRUE(mConfig->SetSecure("nul", std::string("cut\0off", 7)));
    EXPECT_EQ(mConfig->GetSecure("nul"), "cut");

    const std::string keys[] = {"", std::string(300, 'k'), "'; DROP TABLE secure_v3; --", "\xFF\xFE", "100%_"};
    for (const std::string& key : keys) {
        SCOPED_TRACE(key);
        ASSERT_TRUE(mConfig->SetSecure(key, "v:" + key));
        EXPECT_EQ(mConfig->GetSecure_v3(key).substr(0, 2), "v:");
    }
    const std::string zero("a\0b", 3);  // SQLite would take it for any other key that begins with "a\0"
    EXPECT_FALSE(mConfig->SetSecure(zero, "v"));
    EXPECT_FALSE(mPolicies->SetPolicyWithUri(zero, {{"v", 9}}));
    EXPECT_EQ(mLog.count("holds a zero byte", 7), 2);
    EXPECT_EQ(test::query(mConfigFile, "SELECT count(*) FROM secure_v3"), Rows{{"7"}});
    EXPECT_EQ(test::query(mConfigFile, "PRAGMA integrity_check"), Rows{{"ok"}});

    test::query(mConfigFile, "INSERT INTO secure_v3(key) VALUES('null')");  // a foreign hand's: it has no value
    test::query(mPolicyFile, "INSERT INTO dmhelperconfig(value) VALUES('no key')");
    EXPECT_EQ(mConfig->GetSecure("null"), "");
    EXPECT_EQ(mPolicies->GetAllKeys(), (PolicyList{{"", {}}}));
}

TEST_F(StoresTest, WhatIsKeptEndsAtItsLimits) {
    SDPropertyInf properties;
    const std::string key(64 << 10, 'k'), value(16 << 20, 'x');
    for (const auto& [k, v, kept] : {std::tuple{key, value, true}, {key + "k", "", false}, {"k", value + "x", false}}) {
        EXPECT_EQ(mConfig->SetSecure(k, v), kept);
        EXPECT_EQ(mConfig->GetSecure(k) == v && !v.empty(), kept);
        EXPECT_EQ(mPolicies->SetPolicyWithUri(k, {{v, 9}}), kept);
        EXPECT_EQ(properties.SetProperty(k, v), kept);
    }
    EXPECT_TRUE(mConfig->SetSecure("cut", std::string("cut\0", 4) + value)) << "as long as what is kept of it";
    EXPECT_EQ(mConfig->GetSecure("cut"), "cut");
    EXPECT_EQ(mLog.count("a property is longer than what is kept", 7), 2);
}

TEST_F(StoresTest, KeysAreClassifiedExactly) {
    const char* keys[] = {"ro.sd.keepAliveToken",       "ro.sd.uuid",          "encryptedPassword",
                          "velmar.proxy.http.password", "ro.sd.build.version", "ro.sd.product.channel",
                          "ro.velmar.switch.env",       "RO.sd.uuid",          "ro.sd.build.versio"};
    std::string classes;
    for (const char* key : keys) classes += isKeyInTPM(key) ? 'T' : isSpecialKeyInBuildProp(key) ? 'B' : '-';
    EXPECT_EQ(classes, "TTTTBBB--");
}

TEST_F(StoresTest, AValueThatWasMovedOpensNoMore) {
    const std::string moves[] = {
        "UPDATE OR REPLACE secure_v3 SET key = 'B' WHERE key = 'a'",
        "UPDATE secure_v3 SET value = (SELECT value FROM secure_v3 WHERE key = 'a') WHERE key = 'b'",
        "UPDATE secure_v3 SET value = (SELECT value FROM policies.dmhelperconfig WHERE key = 'b') WHERE key = 'b'"};
    for (const std::string& move : moves) {
        SCOPED_TRACE(move);
        ASSERT_TRUE(mConfig->SetSecure("a", "1") && mConfig->SetSecure("b", "2"));
        ASSERT_TRUE(mPolicies->SetPolicyWithUri("b", {{"3", 3}}));
        test::query(mConfigFile, "ATTACH '" + mPolicyFile + "' AS policies; " + move);
        mLog.clear();
        EXPECT_EQ(mConfig->GetSecure_v3("b"), "");
        EXPECT_EQ(mLog.count("sdconfig.db, secure_v3, b: an envelope of ", 7), 1);
        EXPECT_TRUE(mLog.has("belongs to another row", 7));
    }
    ASSERT_TRUE(mConfig->SetSecure("a", "1"));
    test::query(mConfigFile, "UPDATE secure_v3 SET key = 'A' WHERE key = 'a'");
    EXPECT_EQ(mConfig->GetSecure_v3("a"), "1") << "one key in both letter cases";
    test::query(mPolicyFile, "UPDATE dmhelperconfig SET key = 'c'");
    EXPECT_TRUE(mPolicies->GetPolicyFromDMtable("c").empty());
}

TEST_F(StoresTest, WhatVersion100SealedOpensUntilTheRingRequiresTheBoundForm) {
    const test::TempDir earlier;
    test::writeFile(earlier / "sdsecurity.keys",
                    "sdsecurity-keys 1\n"
                    "dc4bc7547e35e387 000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f\n");
    std::filesystem::permissions(earlier / "sdsecurity.keys", std::filesystem::perms(0600));
    SDSecurity& security = *SDSecurity::GetInstance();
    security.SetKeyRingFolder(earlier.path());
    for (const auto& [file, table, text] :
         {std::tuple(mConfigFile, "secure_v3", "early"), std::tuple(mPolicyFile, "dmhelperconfig", "early&&&7")})
        test::query(file, std::string("INSERT INTO ") + table + "(key, value) VALUES('k', '" +
                              security.FastEncrypt(text) + "')");
    EXPECT_EQ(mConfig->GetSecure_v3("k"), "early");
    EXPECT_EQ(mPolicies->GetPolicyWithUri("k"), (PolicyMap{{"early", 7}}));
    EXPECT_TRUE(mConfig->SetSecure("late", "v"));
    EXPECT_TRUE(security.RequireBoundForm());
    EXPECT_EQ(mConfig->GetSecure_v3("late"), "v");
    EXPECT_EQ(mConfig->GetSecure_v3("k"), "");
    EXPECT_TRUE(mPolicies->isUnopenable("k"));
    EXPECT_TRUE(mLog.has("is bound to no row, which its key ring no longer allows", 7));
}

TEST_F(StoresTest, AWriteThatFailsCostsNothing) {
    const auto expectKept = [this] {
        EXPECT_EQ(mConfig->GetSecure("kept"), "value");
        EXPECT_EQ(mPolicies->GetPolicyFromDMtable("kept"), (PolicyMap{{"policy", 3}}));
        EXPECT_EQ(test::query(mConfigFile, "SELECT key FROM secure_v3"), Rows{{"Kept"}});
        EXPECT_EQ(test::query(mPolicyFile, "SELECT key FROM dmhelperconfig"), Rows{{"Kept"}});
    };
    ASSERT_TRUE(mConfig->SetSecure("Kept", "value"));
    ASSERT_TRUE(mPolicies->SetPolicyWithUri("Kept", {{"policy", 3}}));
    for (const auto& [file, table] : {std::pair{mConfigFile, "secure_v3"}, {mPolicyFile, "dmhelperconfig"}})
        test::query(file, std::string("CREATE TRIGGER no BEFORE INSERT ON ") + table +
                              " WHEN length(NEW.value) > 500 BEGIN SELECT RAISE(ABORT, 'full'); END");
    EXPECT_FALSE(mConfig->SetSecure("kept", std::string(1000, 'x')));
    EXPECT_FALSE(mPolicies->SetPolicyWithUri("kept", {{std::string(1000, 'x'), 3}}));
    expectKept();
    test::query(mConfigFile, "DROP TRIGGER no");

    const test::TempDir broken;
    test::writeFile(broken / "sdsecurity.keys", "no ring");
    SDSecurity::GetInstance()->SetKeyRingFolder(broken.path());
    EXPECT_FALSE(mConfig->SetSecure("kept", "new"));
    EXPECT_FALSE(mPolicies->SetPolicyWithUri("kept", {{"new", 3}}));
    EXPECT_EQ(mLog.count("encryption failed, the key is kept", 7), 2);
    SDSecurity::GetInstance()->SetKeyRingFolder(folder());
    expectKept();

    test::query(mPolicyFile,
                "DROP TRIGGER no; CREATE TRIGGER no BEFORE DELETE ON dmhelperconfig WHEN OLD.key = 'stuck' "
                "BEGIN SELECT RAISE(ABORT, 'no'); END");
    for (const char* uri : {"stuck", "zzz"}) ASSERT_TRUE(mPolicies->SetPolicyWithUri(uri, {{"v", 3}}));
    EXPECT_FALSE(mPolicies->ClearAllKeys());
    EXPECT_EQ(mLog.count("DeletePolicyWithUri failed", 7), 1);
    test::query(mPolicyFile, "DROP TRIGGER no");
    EXPECT_EQ(test::query(mPolicyFile, "SELECT key FROM dmhelperconfig"), (Rows{{"stuck"}, {"zzz"}}));
}

TEST_F(StoresTest, ASetIsOneCommitThatHappensOrNot) {
    struct {
        int count = 0;
        bool refused = false;
    } commits;
    const auto onCommit = [](void* told) {
        auto& state = *static_cast<decltype(commits)*>(told);
        ++state.count;
        return state.refused ? 1 : 0;
    };
    ASSERT_TRUE(mConfig->SetSecure("Kept", "value"));
    sqlite3_commit_hook(mConfig->handle(), onCommit, &commits);
    EXPECT_TRUE(mConfig->SetSecure("Kept", "value"));
    EXPECT_EQ(commits.count, 1);
    commits.refused = true;
    EXPECT_FALSE(mConfig->SetSecure("kept", "new"));
    sqlite3_commit_hook(mConfig->handle(), nullptr, nullptr);
    EXPECT_EQ(mConfig->GetSecure_v3("kept"), "value");
    EXPECT_EQ(test::query(mConfigFile, "SELECT key FROM secure_v3"), Rows{{"Kept"}});

    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(mConfigFile.c_str(), &other), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK) << "nothing is left open";
    sqlite3_busy_timeout(mConfig->handle(), 1);
    EXPECT_FALSE(mConfig->SetSecure("kept", "new"));
    sqlite3_close(other);
    sqlite3_busy_timeout(mConfig->handle(), 5000);
    EXPECT_EQ(mConfig->GetSecure_v3("kept"), "value");
    EXPECT_TRUE(mConfig->SetSecure("kept", "new"));
}

TEST_F(StoresTest, NothingIsWrittenToAFileThatIsNotInItsPlaceAnyMore) {
    const std::string away = folder() + ".away";
    EXPECT_TRUE(mConfig->SetSecure("k", "kept"));
    std::filesystem::rename(folder(), away);
    std::filesystem::copy(away, folder());
    EXPECT_FALSE(mConfig->SetSecure("k", "lost"));
    EXPECT_FALSE(mConfig->DeleteSecure("k"));
    EXPECT_FALSE(mPolicies->SetPolicyWithUri("k", {{"lost", 9}}));
    EXPECT_GE(mLog.count("was moved, removed or replaced", 7), 3);
    EXPECT_EQ(mConfig->GetSecure("k"), "kept");
    std::filesystem::remove_all(folder());
    std::filesystem::rename(away, folder());
    EXPECT_TRUE(mConfig->SetSecure("k", "new"));
}

TEST_F(StoresTest, PoliciesAreKeptSealedWithTheirPriority) {
    ASSERT_TRUE(mPolicies->SetPolicyWithUri("Uri", {{"on", 10}}));
    EXPECT_EQ(unsealed(mPolicyFile, "dmhelperconfig", "Uri"), "on&&&10");
    ASSERT_TRUE(mPolicies->SetPolicyWithUri("uRI", {{"a", 7}, {"b", 9}}));
    EXPECT_EQ(test::query(mPolicyFile, "SELECT key FROM dmhelperconfig"), Rows{{"uRI"}});
    EXPECT_EQ(unsealed(mPolicyFile, "dmhelperconfig", "uRI"), "a&&&7") << "the first entry alone";
    ASSERT_TRUE(mPolicies->SetPolicyWithUri("negative", {{std::string("on9\0y", 5), 3}}));
    EXPECT_EQ(unsealed(mPolicyFile, "dmhelperconfig", "negative"), "on9") << "a zero byte ends the whole text";
    ASSERT_TRUE(mPolicies->SetPolicyWithUri("negative", {{"x", -4}}));
    EXPECT_EQ(unsealed(mPolicyFile, "dmhelperconfig", "negative"), "x&&&-4");
    EXPECT_EQ(mPolicies->GetAllKeys(), (PolicyList{{"uRI", {{"a", 7}}}, {"negative", {}}}));

    EXPECT_FALSE(mPolicies->SetPolicyWithUri("uri", {}));
    EXPECT_EQ(mPolicies->GetPolicyFromDMtable("uri"), (PolicyMap{{"a", 7}}));
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(mPolicies->DeletePolicyWithUri("URI"));
    EXPECT_TRUE(mPolicies->ClearAllKeys());
    EXPECT_EQ(test::query(mPolicyFile, "SELECT * FROM dmhelperconfig"), Rows{});
}

TEST_F(StoresTest, StoredPolicyTextsReadAsTheyAlwaysDid) {
    const struct {
        const char* text;
        PolicyMap expected;
        bool malformed;
    } cases[] = {
        {"on&&&10", {{"on", 10}}, false},
        {"&&&3", {{"null_value", 3}}, false},
        {"on7", {{"on", 7}}, false},
        {"7", {{"null_value", 7}}, false},
        {"a&&&b&&&3", {}, true},
        {"x&&&-4", {}, true},
        {"x", {}, true},
        {"x&&&\xC3\xA9", {}, true},
        {"x&&&2147483647", {{"x", 2147483647}}, false},
    };
    for (const auto& [text, expected, malformed] : cases) {
        SCOPED_TRACE(text);
        mLog.clear();
        plantPolicy("k", text);
        EXPECT_EQ(mPolicies->GetPolicyFromDMtable("k"), expected);
        EXPECT_EQ(mLog.has("valueWithPriority data format", 7), malformed);
    }
    plantPolicy("k", "x&&&");
    EXPECT_THROW(mPolicies->GetPolicyFromDMtable("k"), std::invalid_argument);
    plantPolicy("k", "x&&&2147483648");
    EXPECT_THROW(mPolicies->GetPolicyWithUri("k"), std::out_of_range);
}

TEST_F(StoresTest, PoliciesAreWeighedAgainstTheLocalValue) {
    const PolicyMap none;
    const struct {
        const char* what;
        const char* local;  // null: no row
        PolicyMap policy;
        PolicyMap effective;
        bool strong;
    } cases[] = {
        {"nothing", nullptr, none, {{"null_value", 5}}, false},
        {"local alone", "off", none, {{"off", 5}}, false},
        {"strong over local", "off", {{"on", 6}}, {{"on", 6}}, true},
        {"strong and empty", "off", {{"", 6}}, {{"null_value", 6}}, true},
        {"a tie goes to local", "off", {{"on", 5}}, {{"off", 5}}, false},
        {"weak without local", nullptr, {{"on", 5}}, {{"on", 5}}, false},
        {"weak hidden by an empty row", "", {{"on", 3}}, {{"null_value", 5}}, false},
        {"weak and empty", nullptr, {{"", 3}}, {{"null_value", 3}}, false},
        {"null_value means empty", nullptr, {{"null_value", 9}}, {{"null_value", 9}}, true},
    };
    for (const auto& [what, local, policy, effective, strong] : cases) {
        SCOPED_TRACE(what);
        test::query(mConfigFile, "DELETE FROM secure_v3");
        test::query(mPolicyFile, "DELETE FROM dmhelperconfig");
        if (local) mConfig->SetSecure("k", local);
        if (!policy.empty()) mPolicies->SetPolicyWithUri("k", policy);
        EXPECT_EQ(mPolicies->GetPolicyWithUri("k"), effective);
        EXPECT_EQ(mPolicies->isStrongControl("k"), strong);
        const std::string value = effective.begin()->first;
        EXPECT_EQ(mConfig->GetSecure("k"), value == "null_value" ? "" : value);
    }
}

// Is told of commits as the trail is.
struct Witness : data::SQLiteWitness {
    int underWay = 0;
    bool isCommitted = false;
    void beforeCommit(data::SQLiteDatabase& /*db*/) override { ++underWay; }
    void afterCommit(bool committed) override { --underWay, isCommitted = committed; }
};

TEST_F(StoresTest, WhatMemoryRunsOutOverIsStoredWholeOrNotAndReadRightOrNot) {
    ASSERT_TRUE(sIsScarceForSqlite);
    for (const bool isPolicy : {false, true}) {
        const auto set = [&](const std::string& value) {
            return isPolicy ? mPolicies->SetPolicyWithUri("k", {{value, 9}}) : mConfig->SetSecure("k", value);
        };
        const auto get = [&] {
            return isPolicy ? mPolicies->GetPolicyWithUri("k").begin()->first : mConfig->GetSecure_v3("k");
        };
        sqlite3* const db = isPolicy ? mPolicies->sealedTable().database().handle() : mConfig->handle();
        std::string stored = "before";
        ASSERT_TRUE(set(stored));
        const auto tryOut = [&](std::uint64_t n, bool lasts) {
            const std::string value = std::to_string(n) + (isPolicy ? ", policy" : "") + (lasts ? ", and on" : "");
            Witness witness;
            bool isDone = false;
            {
                const data::SQLiteWitnessed witnessed(witness);
                (void)ScarceMemory::passes(n, lasts, [&] { isDone = set(value); });
            }
            if (witness.isCommitted) stored = value;
            std::string read;
            if (!ScarceMemory::passes(n, lasts, [&] { read = get(); })) read = stored;
            EXPECT_EQ(std::tuple(read, get()), std::tuple(stored, stored)) << value;
            EXPECT_EQ(std::tuple(witness.underWay, isDone), std::tuple(0, witness.isCommitted)) << value;
            EXPECT_EQ(sqlite3_next_stmt(db, nullptr), nullptr) << value;
            test::query(isPolicy ? mPolicyFile : mConfigFile, "BEGIN IMMEDIATE");  // which it keeps from nobody
        };
        ScarceMemory::forEach([&](std::uint64_t n) {
            for (const bool lasts : {false, true}) tryOut(n, lasts);
        });
    }
}

}  // namespace
}  // namespace sd
