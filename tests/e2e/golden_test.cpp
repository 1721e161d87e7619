// The log of a scripted run, compared with golden.log: those who read logs know each line by its level, tag, file,
// function and words, and some by their number. ">" marks what the service says, the rest is of this process.

#include <functional>
#include <optional>
#include <regex>

#include "libsdconfig/dmconfig.h"
#include "libsdconfig/sdconfig.h"
#include "platform/sdbus/sdbus.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "sdtks/sdtks.h"
#include "sql/SQLiteDatabase.h"
#include "sql/SQLiteStatement.h"
#include "sql/SQLiteTable.h"
#include "src/sdconfig_impl_policy.h"
#include "src/sdconfig_impl_tks.h"
#include "tests/e2e/sandbox.h"
#include "tests/support/arguments.h"

namespace test {
namespace {

using sd::DMConfig;
using sd::SDConfig;

struct Silent : DMConfig::Listener {
    void onChanged(const std::string&, const std::string&, bool) override {}
};

class GoldenTest : public Sandbox {
protected:
    using Action = std::function<void()>;

    // Adds what this process and then the service say to it.
    void step(const std::string& what, const Action& action) {
        mLog.clear();
        action();
        mText += "# " + what + "\n";
        for (const auto& [level, tag, text] : mLog.lines()) {
            std::string line("IWE", static_cast<std::size_t>(level - 5), 1);
            line.append(" ").append(tag).append(": ").append(std::regex_replace(text, std::regex("\n"), "\n    "));
            add("  ", line);
        }
        if (!mService) return;
        // It serves one call at a time: with this one's answer everything of those before it is there.
        SDConfig::GetInstance()->GetConst("fence");
        const std::string all = mService->err();
        static const std::regex kEntry("\\d\\d:\\d\\d:\\d\\d\\.\\d{3} ([IWE] .*(\n    .*)*)\n");
        for (std::sregex_iterator entry(all.begin() + mRead, all.end(), kEntry), end; entry != end; ++entry)
            add("> ", (*entry)[1]);
        mRead = static_cast<long>(all.size());
    }

    // A call that the facades don't make, or that isn't answered.
    template <typename... Arguments>
    void call(const std::string& method, const Arguments&... arguments) {
        const auto proxy = SDBusSerivceManager::initSync(-1)->getServiceProxyInterface("sdconfig", SDBusSameUser, 1);
        const auto message = proxy->makeMethodCallMessage(method);
        appendAll(*message, arguments...);
        proxy->callWithReplyBlocking(message, 1000);
    }

    // Has every change of the table fail while `action` runs.
    static void refusing(const std::string& file, const std::string& table, const Action& action) {
        for (const char* change : {"INSERT", "DELETE"})
            query(file, std::string("CREATE TRIGGER no") + change + " BEFORE " + change + " ON " + table +
                            " BEGIN SELECT RAISE(ABORT, 'no'); END");
        action();
        query(file, "DROP TRIGGER noINSERT; DROP TRIGGER noDELETE");
    }

    std::string mText;
    std::optional<Process> mService;

private:
    // Without what differs from run to run, and without the line's number unless it is a given one.
    void add(const std::string& who, std::string entry) {
        static const std::regex kOurs("[IWE] (sdconfig|sdtks|DMS-\\w+): [^]*");
        static const std::regex kSlow(" takes \\d+ ms$");
        const std::pair<std::regex, std::string> kVarying[] = {
            {std::regex(
                 "^(. \\S+: (?!sdconfig_sdbus (GetInstance|SDConfigClient|printProductInfo)\\()\\S+ \\S+)\\(\\d+\\)"),
             "$1(#)"},
            {std::regex("v2[A-Za-z0-9+/=]{40,}"), "v2#"},  // first: its letters can hold an "0x"
            {std::regex("0x[0-9a-f]+"), "0x#"},
            {std::regex("takes [0-9.]+ s$"), "takes # s"},
            {std::regex(path("")), "@/"},
            {std::regex("\n"), "\n" + who + "    "},
        };
        if (!std::regex_match(entry, kOurs) || std::regex_search(entry, kSlow)) return;
        for (const auto& [what, shown] : kVarying) entry = std::regex_replace(entry, what, shown);
        mText += who + entry + "\n";
    }

    LogCapture mLog;
    long mRead = 0;
};

TEST_F(GoldenTest, EveryLineIsWhatItWas) {
    const ScopedEnv runtime("XDG_RUNTIME_DIR", path("run").c_str());
    SDConfig& config = *SDConfig::GetInstance();
    DMConfig& policies = *DMConfig::GetInstance();
    const std::string secrets = path("data/sdconfig.db"), rules = path("data/dmhelper.db");
    std::map<std::string, std::string> properties;
    sd::PolicyList list;
    Silent listener, other;

    // ---- A client and its service ----

    step("nobody serves", [&] { config.GetSecure("k"); });
    writeFile(path("etc/build.prop"), "ro.sd.build.version=1.2\nro.sd.product.mode=m\nro.a=1\nro.a=2\n");
    mService.emplace(startService({"--log-level", "5", "--log-secrets"}));
    cli({"secure", "set", "ro.sd.user.lockscreen.data", R"({"user": {"pin": 1}})"});
    step("the first call", [&] { config.GetProperty("none"); });
    const std::pair<const char*, Action> calls[] = {
        {"local properties", [&] { config.GetProperty("ro.sd.build.version", true); }},
        {"properties",
         [&] {
             config.SetProperty("ro.a", "3");
             config.DeleteProperty("ro.a");
             config.DeleteProperty("none");
             config.SetProperty("theme", "dark");
             config.GetAllProperties(&properties);
         }},
        {"secure values that tell nothing",
         [&] {
             for (const char* key : {"k", "RO.sd.uuid", "ro.sd.uuid2"}) {
                 config.GetSecure(key);
                 config.SetSecure(key, "secret");
                 config.GetSecure(key);
                 config.DeleteSecure(key);
                 config.DeleteSecure(key);
             }
             config.VerifyRequest(config.SignRequest("content"), "sign");
         }},
        {"secure values of an identity key",
         [&] {
             for (const char* key : {"ro.sd.uuid", "ro.sd.client.id"}) {
                 config.SetSecure(key, "one");
                 config.GetSecure(key);
                 config.DeleteSecure(key);
                 config.DeleteSecure(key);
             }
         }},
        {"policies",
         [&] {
             policies.SetPolicyWithUri("k", {{"on", 9}});
             policies.SetPolicyWithUri("k", {});
             policies.GetPolicyWithUri("k");
             policies.GetPoliciesWithUris({"k", "none"}, &list);
             policies.GetPoliciesWithUris({}, &list);
             policies.isStrongControl("k");
             policies.GetAllKeys(&list);
             policies.DeletePolicyWithUri("k");
         }},
        {"policies of identity keys",
         [&] {
             policies.SetPolicyWithUri("ro.sd.client.id", {{"one", 9}});
             policies.SetPolicyList({{"ro.sd.client.id", {{"two", 9}}}, {"ro.sd.uuid", {{"three", 3}}}});
             policies.GetPolicyWithUri("ro.sd.client.id");
             policies.DeletePolicyWithUri("ro.sd.client.id");
             policies.ClearAllKeys();
         }},
        {"listeners",
         [&] {
             policies.IsAllConfigsAlreadyListened({"k"});
             for (int i = 0; i < 2; ++i) policies.RegisterListener("k", &listener, true);
             call("REG_LISTENER", "k");
             for (int i = 0; i < 3; ++i) policies.UnRegisterListener("k", &listener, true);
             policies.UnRegisterListener("none", &listener, true);
             policies.RegisterListenersWithList({}, true);
         }},
        {"what can't be answered",
         [&] {
             call("get_property", "k");
             call("DM_GET_POLICIES", 0);
             call("UNREG_LISTENER", "none");
             sd::SDSecurity::GetInstance()->SetKeyRingFolder(path("data"));
             query(rules, "INSERT INTO dmhelperconfig(key, value) VALUES('bad', '" +
                              sd::SDSecurity::EncryptForRow({"dmhelper.db", "dmhelperconfig", "bad"}, "no priority") +
                              "')");
             call("GET_POLICY", "bad");
         }},
        {"what can't be kept",
         [&] {
             call("SET_SECURE", std::string("a\0b", 3), "v");
             call("SET_POLICY", std::string("a\0b", 3), "v", 9);
         }},
        {"secure values that can't be written",
         [&] {
             config.SetSecure("k", "v");
             refusing(secrets, "secure_v3", [&] {
                 config.SetSecure("new", "v");
                 call("DEL_SECURE", "k");
             });
         }},
        {"policies that can't be written",
         [&] {
             refusing(rules, "dmhelperconfig", [&] {
                 policies.SetPolicyWithUri("new", {{"v", 9}});
                 policies.SetPolicyList({{"new", {{"v", 9}}}});
                 policies.ClearAllKeys();
             });
             query(rules, "DROP TABLE dmhelperconfig");
             policies.GetPolicyWithUri("k");  // tells the connection that it is gone
             policies.GetAllKeys(&list);
             policies.ClearAllKeys();
         }},
    };
    for (const auto& [what, action] : calls) step(what, action);
    mService->stop();
    mService.reset();
    step("the service is gone", [&] {
        EXPECT_EQ(config.GetProperty("k"), "");
        EXPECT_FALSE(config.SetProperty("k", "v") || config.DeleteProperty("k"));
        EXPECT_FALSE(config.GetAllProperties(&properties) || config.SetSecure("k", "v"));
        EXPECT_EQ(config.GetSecure("k"), "");
        EXPECT_FALSE(config.DeleteSecure("k"));
        EXPECT_EQ(config.GetConst("k"), "");
        EXPECT_EQ(config.SignRequest("c"), "");
        EXPECT_FALSE(config.VerifyRequest("c", "s"));
        EXPECT_FALSE(policies.SetPolicyWithUri("k", {{"v", 9}}) || policies.SetPolicyList({{"k", {{"v", 9}}}}));
        EXPECT_TRUE(policies.GetPolicyWithUri("k").empty());
        EXPECT_FALSE(policies.GetPoliciesWithUris({"k"}, &list));
        EXPECT_FALSE(policies.DeletePolicyWithUri("k") || policies.isStrongControl("k"));
        EXPECT_FALSE(policies.GetAllKeys(&list) || policies.ClearAllKeys());
        EXPECT_FALSE(policies.IsAllConfigsAlreadyListened({"k"}));
        EXPECT_FALSE(policies.RegisterListener("new", &other, true));
        EXPECT_FALSE(policies.RegisterListenersWithList({{"new", &other}}, true));
        EXPECT_TRUE(policies.RegisterListener("k", &other, true)) << "nothing is sent";
        EXPECT_FALSE(policies.UnRegisterListener("k", &other, true));
    });

    // ---- The stores and what they stand on ----

    sd::SDSecurity::GetInstance()->SetKeyRingFolder(path("etc"));
    const std::string legacy = path("etc/sdconfig.db");
    step("a new install", [&] { sd::SDConfigImplTKS{legacy}; });
    for (const char* key : {"a@@0", "a@@1", "c@@0"})
        query(legacy, std::string("INSERT INTO secure(key, value) VALUES('") + key + "', '" +
                          (*key == 'a' ? sd::SDTks::Encrypt("piece") : "") + "')");
    query(legacy,
          "INSERT INTO secure(key) VALUES('b'); INSERT INTO config(key, value) VALUES('theme', 'dark'), "
          "('velmar.client.id', 'id'); INSERT INTO secure_v3(key) VALUES('k'); DELETE FROM dbinfor");
    for (const char* what : {"an upgrade", "an upgraded database"}) step(what, [&] { sd::SDConfigImplTKS{legacy}; });
    query(legacy, "DELETE FROM dbinfor");
    step("an upgrade that fails", [&] {
        sd::SDConfigImplTKS* store = nullptr;
        refusing(legacy, "secure_v3", [&] { store = new sd::SDConfigImplTKS(legacy); });
        query(legacy,
              "CREATE TRIGGER no BEFORE INSERT ON secure_v3 WHEN NEW.key IN ('a', 'velmar.client.id') "
              "BEGIN SELECT RAISE(ABORT, 'no'); END");
        store->upgradeSecure_to3();
        query(legacy, "DROP TABLE config; DROP TABLE secure");
        store->GetConfig_v2("any");  // tells the connection that they are gone
        store->upgradeConfig_to3(), store->upgradeSecure_to3();
        delete store;
    });
    step("databases that can't be opened", [&] {
        const DeliberateLeak droppedHandles;
        sd::SDConfigImpl absentSettings(path("missing/sdconfig.db"));
        EXPECT_FALSE(absentSettings.SetSecure("k", "v"));
        EXPECT_EQ(absentSettings.GetSecure_v3("k"), "");
        sd::SDConfigDmHelper absentPolicies(path("missing/dmhelper.db"));
        EXPECT_FALSE(absentPolicies.SetPolicyWithUri("k", {{"v", 6}}));
        EXPECT_TRUE(absentPolicies.ClearAllKeys());
    });
    step("a policy of nothing", [&] { sd::SDConfigDmHelper(path("etc/dmhelper.db")).SetPolicyWithUri("k", {}); });
    step("statements that fail", [&] {
        const DeliberateLeak statementKeptBySecondCommand;
        sd::data::SQLiteDatabase database(path("etc/statements.db"));
        for (const char* sql : {"CREATE TABLE a(x); CREATE TABLE b(x)", "SELECT 1", "nonsense"})
            EXPECT_FALSE(database.executeCommand(sql));
        EXPECT_EQ(query(path("etc/statements.db"), "SELECT name FROM sqlite_master").size(), 0U);
        sd::data::SQLiteStatement unprepared(database, "SELECT 1");
        EXPECT_TRUE(unprepared.step() == 0 && unprepared.getColumnInt(0) == 0);
        const sd::data::TableField misplaced{1, "id", 0, "", "", 0};
        sd::data::SQLiteTable(database, "t").create(&misplaced, 1);
    });
    step("legacy texts that can't be read", [&] {
        for (std::string text : {"no base64", "AAAAAAAAAAAAAAAAAAAAAA=="}) {
            char out[256];
            sd::SDTks::Decrypt(text.data(), out, sizeof out);
        }
    });

    expectGolden(GOLDEN_LOG, SEEN_LOG, mText);
}

}  // namespace
}  // namespace test
