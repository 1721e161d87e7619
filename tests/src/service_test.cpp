// The service behind its socket: real calls over the bus, rows in the files, events as subscribers get them.
#include <gmock/gmock.h>
#include <unistd.h>

#include <sstream>

#include "libsdconfig/sdconfig_types.h"
#include "src/sdconfig_interface.h"
#include "tests/src/service_support.h"

namespace sd {
namespace {

using testing::ElementsAre;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

class ServiceTest : public CallingTest {
protected:
    ServiceTest() : CallingTest(service()) {
        test::query(file("sdconfig.db"), "DELETE FROM secure_v3");
        test::query(file("dmhelper.db"), "DELETE FROM dmhelperconfig");
        mLog.clear();
    }
    static RunningService& service() {
        static RunningService service;
        return service;
    }

    template <typename... Arguments>
    bool silent(const std::string& method, const Arguments&... arguments) {
        const bool isTimeout = mService.send(300, method, arguments...)->getErrorType() == SDBusTimeout;
        (void)call("GET_CONST", "fence");  // is answered when the one before is done
        return isTimeout;
    }
    // All that was told of.
    std::vector<std::string> heardBy(Events& events) {
        EXPECT_TRUE(ok("SET_SECURE", "fence", "up"));
        return events.upTo(".sdconfigChanged fence=up");
    }

    const std::string mConfigFile = file("sdconfig.db");
    const std::string mPolicyFile = file("dmhelper.db");
    test::LogCapture mLog;
};

TEST_F(ServiceTest, AListOfPropertiesIsTrimmedAt122) {
    std::map<std::string, std::string> many;
    for (int i = 0; i < 123; ++i) many["key" + std::to_string(1000 + i)] = std::to_string(i);
    const Message message = SDBusSerivceManager::initSync(-1)->makeEventMessage("any", SDBusSameUser);
    SDConfigInterface::appendProperties(*message, many);
    EXPECT_EQ(message->getInt32(0), 122);
    EXPECT_EQ(message->getString(1), "key1000");
    EXPECT_EQ(message->getString(243), "key1121");
    EXPECT_EQ(message->getString(244), "121");
    EXPECT_EQ(message->getString(245), "");
    EXPECT_TRUE(mLog.has("trim property element from 123 to 122", 6));
}

TEST_F(ServiceTest, SecureValuesChangeRowsAndTellOfIt) {
    Events events;
    EXPECT_TRUE(ok("REG_LISTENER", "s", true));
    EXPECT_TRUE(ok("SET_SECURE", "s", "one"));
    EXPECT_TRUE(ok("SET_SECURE", "s", "one"));
    EXPECT_EQ(text("GET_SECURE", "S"), "one");
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(ok("DEL_SECURE", "s"));
    EXPECT_TRUE(ok("SET_SECURE", "s", "two"));
    test::query(mConfigFile, "CREATE TRIGGER no BEFORE INSERT ON secure_v3 BEGIN SELECT RAISE(ABORT, 'no'); END");
    EXPECT_FALSE(ok("SET_SECURE", "s", "three"));
    test::query(mConfigFile, "DROP TRIGGER no");
    EXPECT_TRUE(ok("UNREG_LISTENER", "s", true));
    EXPECT_THAT(heardBy(events), ElementsAre("DM_CHANGED s=one", ".sdconfigChanged s=one", "DM_CHANGED s=",
                                             ".sdconfigChanged s=", "DM_CHANGED s=two", ".sdconfigChanged s=two"))
        << "a set that failed changes nothing";

    test::query(mConfigFile, "CREATE TRIGGER no BEFORE DELETE ON secure_v3 BEGIN SELECT RAISE(ABORT, 'no'); END");
    EXPECT_TRUE(silent("DEL_SECURE", "fence")) << "how a failed deletion is told";
    test::query(mConfigFile, "DROP TRIGGER no");
    EXPECT_EQ(text("GET_SECURE", "fence"), "up");
}

TEST_F(ServiceTest, AnEmptyAnswerTellsOfWhatCannotBeOpened) {
    const struct {
        const char* what;
        const char* local;  // null: no row
        PolicyMap policy;
        bool breakLocal;
        bool breakPolicy;
        const char* signature;
    } cases[] = {
        {"nothing is stored", nullptr, {}, false, false, "s"},
        {"stored empty", "", {}, false, false, "s"},
        {"sound", "v", {{"w", 6}}, false, false, "s"},
        {"local", "v", {}, true, false, "sb"},
        {"policy", nullptr, {{"w", 6}}, false, true, "sb"},
        {"policy over a local value", "v", {{"w", 6}}, false, true, "s"},
        {"local beneath a strong policy without a value", "v", {{"", 6}}, true, false, "s"},
        {"local beneath a weak policy without a value", "v", {{"", 3}}, true, false, "sb"},
        {"a priority that never reads back", nullptr, {{"w", -4}}, false, false, "s"},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.what);
        test::query(mConfigFile, "DELETE FROM secure_v3");
        test::query(mPolicyFile, "DELETE FROM dmhelperconfig");
        if (one.local) {
            EXPECT_TRUE(ok("SET_SECURE", "k", one.local));
        }
        for (const auto& [value, priority] : one.policy) {
            const bool stored = ok("SET_POLICY", "k", value, priority);
            EXPECT_TRUE(stored);
        }
        if (one.breakLocal) test::query(mConfigFile, "UPDATE secure_v3 SET value = substr(value, 5)");
        if (one.breakPolicy) test::query(mPolicyFile, "UPDATE dmhelperconfig SET value = substr(value, 5)");
        const Message reply = call("GET_SECURE", "K");
        EXPECT_EQ(reply->signature(), one.signature);
        EXPECT_EQ(reply->getBool(1), std::string(one.signature) == "sb");
    }
}

TEST_F(ServiceTest, CallsAboutTooMuchAtOnceAreRefusedWhole) {
    const std::string half(std::size_t{9} << 20, 'x');
    EXPECT_FALSE(ok("SET_POLICYLIST", 3, "a", "v", 9, "b", half, 9, "c", half, 9));
    EXPECT_EQ(test::query(mPolicyFile, "SELECT key FROM dmhelperconfig").size(), 0u);
    EXPECT_EQ(mLog.count("set policylist refused", 7), 1);

    const std::string most(std::size_t{16} << 20, 'x');
    EXPECT_TRUE(ok("SET_POLICYLIST", 1, "a", most, 3)) << "as long as one policy may be";
    EXPECT_EQ(call("DM_GET_POLICIES", 2, "a", "a")->getString(5).size(), most.size());
    EXPECT_TRUE(silent("DM_GET_POLICIES", 5, "a", "a", "a", "a", "a"));
    EXPECT_EQ(mLog.count("DM_GET_POLICIES refused", 7), 1);
    EXPECT_FALSE(ok("SET_POLICYLIST", 5, "a", "", 3, "a", "", 3, "a", "", 3, "a", "", 3, "a", "", 3));
    for (const char* another : {"b", "c", "d", "e"}) EXPECT_TRUE(ok("SET_POLICYLIST", 1, another, most, 3));
    EXPECT_TRUE(silent("DM_LIST"));
    EXPECT_EQ(mLog.count("DM_LIST refused", 7), 1);
}

TEST_F(ServiceTest, ListenersHearOfPropertiesAndOfTheFlagIfTheyAsked) {
    Events events;
    EXPECT_TRUE(ok("REG_LISTENER", "asked", true));
    EXPECT_TRUE(ok("SET_PROPERTY", "asked", "1"));
    EXPECT_TRUE(ok("SET_PROPERTY", "asked", "1"));
    EXPECT_TRUE(ok("DEL_PROPERTY", "asked"));
    EXPECT_TRUE(ok("UNREG_LISTENER", "asked", true));
    EXPECT_TRUE(ok("SET_PROPERTY", "asked", "2"));
    for (const bool flag : {true, false}) EXPECT_TRUE(ok("REG_LISTENER", "asked", flag));  // the latest flag counts
    EXPECT_TRUE(ok("REG_LISTENER", "later", true));
    const Message first = call("LISTENERS_LIST", "");
    EXPECT_EQ(first->signature(), "bisisi");
    EXPECT_FALSE(first->getBool(0));
    EXPECT_EQ(first->getString(2) + std::to_string(first->getInt32(3)), "asked2");
    EXPECT_EQ(call("LISTENERS_LIST", "asked")->getString(2), "later");
    EXPECT_EQ(call("LISTENERS_LIST", "later")->getInt32(1), 0);
    EXPECT_TRUE(ok("REG_LISTENER", "", true));
    EXPECT_EQ(call("LISTENERS_LIST", "")->getInt32(1), 3);
    EXPECT_TRUE(ok("UNREG_LISTENER", "", true));
    EXPECT_TRUE(ok("UNREG_LISTENER", "later", true));
    EXPECT_TRUE(ok("SET_PROPERTY", "asked", "3"));
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(ok("UNREG_LISTENER", "asked", true));
    EXPECT_THAT(heardBy(events), ElementsAre("DM_CHANGED asked=1!", "DM_CHANGED asked=!", "DM_CHANGED asked=3"));
}

TEST_F(ServiceTest, PoliciesOverrideAndTellOfIt) {
    Events events;
    EXPECT_TRUE(ok("DM_REGISTER_LISTERNER", 2, "flagged", "other", true));
    EXPECT_TRUE(ok("REG_LISTENER", "plain", false));
    EXPECT_TRUE(ok("SET_POLICY", "flagged", "on", 3));
    EXPECT_TRUE(ok("SET_POLICY", "flagged", "on", 9));  // a flip alone
    EXPECT_TRUE(ok("SET_POLICY", "flagged", "on", 9));  // nothing changed
    EXPECT_TRUE(ok("SET_POLICY", "plain", "on", 3));
    EXPECT_TRUE(ok("SET_POLICY", "plain", "on", 9));  // a flip is not for this listener
    EXPECT_TRUE(ok("ISSTRONG_CONTROL", "flagged"));
    EXPECT_TRUE(ok("SET_SECURE", "flagged", "local"));  // hidden by the policy: no change
    EXPECT_EQ(text("GET_SECURE", "flagged"), "on");
    EXPECT_TRUE(ok("DELETE_POLICY", "flagged"));
    for (const char* key : {"flagged", "other", "plain"}) EXPECT_TRUE(ok("UNREG_LISTENER", key, false));
    EXPECT_THAT(heardBy(events), ElementsAre(".DMChanged flagged=on", "DM_CHANGED flagged=on", ".DMChanged flagged=on!",
                                             "DM_CHANGED flagged=on!", ".DMChanged plain=on", "DM_CHANGED plain=on",
                                             ".DMChanged plain=on!", "DM_CHANGED flagged="));
    const Message policy = call("GET_POLICY", "flagged");
    EXPECT_EQ(policy->getString(0), "local");
    EXPECT_EQ(policy->getInt(1), 5);
}

TEST_F(ServiceTest, PolicyListsAreCutAt122AndTellOfEmptyValues) {
    const Message request = mService.proxy().makeMethodCallMessage("SET_POLICYLIST");
    request->appendInt8(123);
    for (int i = 0; i < 123; ++i) {
        request->appendString("uri" + std::to_string(1000 + i));
        request->appendString("v" + std::to_string(i));
        request->appendInt8(9);
    }
    EXPECT_TRUE(mService.proxy().callWithReplyBlocking(request, 20000)->getBool(0));
    EXPECT_TRUE(mLog.has("trim DM element from 123 to 122", 6));
    EXPECT_EQ(test::query(mPolicyFile, "SELECT count(*), max(key) FROM dmhelperconfig"),
              (std::vector<std::vector<std::string>>{{"122", "uri1121"}}));

    EXPECT_TRUE(ok("SET_POLICY", "uri1122", "v", 9));
    const Message list = call("DM_LIST");
    EXPECT_EQ(list->getInt(0), 122);
    EXPECT_EQ(list->getString(1 + 3 * 122), "uri1122") << "all of them follow the trimmed count";
    EXPECT_EQ(mLog.count("trim DM element from 123 to 122", 6), 2);
    EXPECT_FALSE(ok("SET_POLICYLIST", 0));
    test::query(mPolicyFile,
                "CREATE TRIGGER no BEFORE INSERT ON dmhelperconfig WHEN NEW.key = 'last' "
                "BEGIN SELECT RAISE(ABORT, 'no'); END");
    Events events;
    EXPECT_FALSE(ok("SET_POLICYLIST", 3, "uri1000", "new", 9, "uri1001", "new", 9, "last", "x", 9))
        << "the last triple's success";
    test::query(mPolicyFile, "DROP TRIGGER no");
    EXPECT_THAT(heardBy(events), ElementsAre(".DMChanged uri1000=new!", ".DMChanged uri1001=new!"));
    EXPECT_TRUE(ok("DM_CLEAR_ALL_KEYS") && ok("SET_POLICY", "e", "", 9));
    EXPECT_EQ(call("DM_LIST")->getString(2), "null_value");
    const Message several = call("DM_GET_POLICIES", 2, "e", "unset");
    EXPECT_EQ(several->getString(1) + several->getString(2) + several->getString(4) + several->getString(5), "eunset");
    EXPECT_EQ(std::vector({several->getInt(0), several->getInt(3), several->getInt(6)}), (std::vector{2, 9, 5}));
    EXPECT_TRUE(ok("DM_CLEAR_ALL_KEYS"));
    const Message answers[] = {call("DM_LIST"), call("DM_GET_POLICIES", 0), call("DM_GET_POLICIES", -1)};
    for (const Message& nothing : answers) {
        EXPECT_EQ(nothing->signature(), "y");
        EXPECT_EQ(nothing->getInt(0), 0);
    }
}

TEST_F(ServiceTest, RegistrationsAreCountedPerKey) {
    EXPECT_FALSE(ok("ISALREADY_LISTHENED", -1) || ok("ISALREADY_LISTHENED", 1, "k"));
    EXPECT_FALSE(ok("DM_REGISTER_LISTERNER", 0, true));
    EXPECT_TRUE(ok("REG_LISTENER", "k", true));
    EXPECT_TRUE(ok("REG_LISTENER", "k", false));
    EXPECT_TRUE(ok("UNREG_LISTENER", "k", true));
    EXPECT_TRUE(ok("ISALREADY_LISTHENED", 1, "k"));
    EXPECT_FALSE(ok("ISALREADY_LISTHENED", 2, "k", "K"));
    EXPECT_TRUE(ok("UNREG_LISTENER", "k", true));
    EXPECT_FALSE(ok("UNREG_LISTENER", "k", true));
    const std::string key(64 << 10, 'k');  // the longest that can change
    EXPECT_TRUE(ok("DM_REGISTER_LISTERNER", 2, key, key + "k", true));
    EXPECT_TRUE(ok("UNREG_LISTENER", key, true));
    EXPECT_FALSE(ok("UNREG_LISTENER", key + "k", true));
}

TEST_F(ServiceTest, KeysThatNobodyListensToAnyMoreCostNothing) {
    if (kSanitized) GTEST_SKIP() << "a sanitizer keeps freed memory";
    const auto residentMiB = [] {
        std::istringstream pages(test::readFile("/proc/self/statm"));
        long total = 0, resident = 0;
        pages >> total >> resident;
        return (resident * ::sysconf(_SC_PAGESIZE)) >> 20;
    };
    const long before = residentMiB();
    for (int i = 0; i < 1000; ++i) {
        const std::string key = std::to_string(i) + std::string(60 << 10, 'k');
        EXPECT_TRUE(ok("REG_LISTENER", key, true) && ok("UNREG_LISTENER", key, true));
    }
    EXPECT_LT(residentMiB() - before, 30) << "of 60 that were named";
}

TEST_F(ServiceTest, WhatItCannotAnswerCostsOnlyTheCaller) {
    EXPECT_TRUE(ok("SET_PROPERTY", "ro.service.test", "1"));
    EXPECT_FALSE(ok("SET_PROPERTY", "ro.service.test", "2"));
    EXPECT_FALSE(ok("DEL_PROPERTY", "none"));
    EXPECT_TRUE(silent("get_property", "k"));
    test::query(mPolicyFile, "INSERT INTO dmhelperconfig(key, value) VALUES('bad', '" +
                                 SDSecurity::EncryptForRow({"dmhelper.db", "dmhelperconfig", "bad"}, "x&&&") + "')");
    EXPECT_TRUE(silent("GET_POLICY", "bad"));
    EXPECT_TRUE(mLog.has("the handler of GET_POLICY threw", 7));
    EXPECT_EQ(text("GET_PROPERTY", "none"), "");
    EXPECT_TRUE(ok("SET_SECURE", "wrong kind", 1));
    EXPECT_TRUE(ok("SET_SECURE")) << "absent arguments read as empty";
    EXPECT_TRUE(ok("SET_POLICY", 1, 2, "three"));
}

}  // namespace
}  // namespace sd
