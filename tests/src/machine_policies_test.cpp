// The service under policies of the machine: what they win over, that they hold, and what is told when their files
// change.
#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>
#include <random>

#include "src/sdconfig_impl_policy.h"
#include "tests/src/service_support.h"

namespace sd {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

// A policy, and a file's text of several.
struct Policy {
    std::string value;
    int priority;
};
using Policies = std::map<std::string, Policy>;

std::string textOf(const Policies& policies) {
    std::string text;
    for (const auto& [uri, policy] : policies)
        text += (text.empty() ? "{\"" : ",\n\"") + uri + R"(": {"value": ")" + policy.value + R"(", "priority": )" +
                std::to_string(policy.priority) + "}";
    return policies.empty() ? "{}" : text + "}";
}

class MachinePoliciesTest : public CallingTest {
protected:
    MachinePoliciesTest() : CallingTest(service()) {}
    static RunningService& service() {
        static RunningService service([](const test::TempDir& data) {
            for (const char* folder : {"low", "high"}) fs::create_directory(data / folder);
            test::writeFile(data / "low/10.json", textOf({{"At.Start", {"strong", 9}}, {"weak", {"d\xc3\xa9", 5}}}));
            SDConfigDmHelper::SetMachinePolicyFolders({data / "low/", data / "high"});
        });
        static const bool sIsStartedAgain = [] {  // as a host may
            SDBusSerivceManager::initSync(-1)->unregisterServiceInterface("sdconfig");
            SDConfigService::GetInstance()->Start();
            return true;
        }();
        (void)sIsStartedAgain;
        return service;
    }

    std::string secure(const std::string& key) { return text("GET_SECURE", key); }

    // In one step, as whoever governs a machine does it.
    void put(const std::string& name, const std::string& text) const {
        test::writeFile(file("new"), text);
        fs::rename(file("new"), file(name));
    }

    // What was told since the last time, up to a policy that is put last and comes last by its name.
    std::vector<std::string> events() {
        const std::string fence = std::to_string(++mFences);
        put("low/zz.json", textOf({{"zz.fence", {fence, 9}}}));
        return mEvents.upTo(".DMChanged zz.fence=" + fence + "!");
    }

    test::LogCapture mLog;
    Events mEvents;
    int mFences = 0;
};

TEST_F(MachinePoliciesTest, TheyAreThereAtTheStartAndHold) {
    EXPECT_TRUE(ok("ISSTRONG_CONTROL", "at.start"));
    EXPECT_EQ(secure("at.start"), "strong");
    EXPECT_TRUE(ok("SET_SECURE", "at.start", "local") && ok("SET_SECURE", "weak", "local"));
    EXPECT_EQ(secure("at.start"), "strong");
    EXPECT_EQ(secure("weak"), "local");
    EXPECT_TRUE(ok("DEL_SECURE", "weak"));
    EXPECT_EQ(secure("weak"), "d\xc3\x83\xc2\xa9") << "in the doubled form, as every value that was set";

    const auto rows = [&] { return test::query(file("dmhelper.db"), "SELECT key FROM dmhelperconfig"); };
    for (const char* uri : {"at.start", "AT.START", "weak"}) {
        EXPECT_FALSE(ok("SET_POLICY", uri, "mine", 100)) << uri;
        EXPECT_FALSE(ok("DELETE_POLICY", uri)) << uri;
    }
    EXPECT_TRUE(mLog.has("the policy of weak is the machine's", 7));
    EXPECT_TRUE(mLog.has(file("low/10.json, line 2"), 7));
    EXPECT_THAT(rows(), ElementsAre());
    EXPECT_TRUE(ok("SET_POLICYLIST", 3, "weak", "mine", 9, "at.start", "mine", 9, "free", "mine", 9));
    EXPECT_THAT(rows(), ElementsAre(ElementsAre("free")));
    EXPECT_EQ(call("DM_LIST")->signature(), "yssyssyssy");

    // A stored one comes to light again where a file lets go of its URI; clearing takes it away beneath a file.
    put("high/20.json", textOf({{"FREE", {"machine", 1}}}));
    EXPECT_THAT(events(), ElementsAre(".sdconfigChanged weak=local", ".sdconfigChanged weak=d\xc3\x83\xc2\xa9",
                                      ".DMChanged free=mine!", ".DMChanged FREE=machine"));
    EXPECT_EQ(call("GET_POLICY", "free")->getInt(1), 1);
    fs::remove(file("high/20.json"));
    EXPECT_THAT(events(), ElementsAre(".DMChanged FREE=mine!"));
    put("high/20.json", textOf({{"free", {"machine", 1}}}));
    (void)events();
    EXPECT_TRUE(ok("DM_CLEAR_ALL_KEYS"));
    EXPECT_THAT(rows(), ElementsAre());
    EXPECT_EQ(secure("free"), "machine");
    fs::remove(file("high/20.json"));
    EXPECT_THAT(events(), ElementsAre(".DMChanged free="));
}

TEST_F(MachinePoliciesTest, TheyAreToldWithFileAndLine) {
    put("high/20.json", "\n{\"One\":\n{\"value\": \"1\", \"priority\": 7, \"description\": \"why\"}}");
    put("high/30.json", "{");
    (void)events();
    const Message ask = mService.proxy().makeMethodCallMessage("POLICIES_GOVERNING");
    ask->appendInt32(2);
    ask->appendString("none");
    ask->appendString("one");
    const Message found = mService.proxy().callWithReplyBlocking(ask, 30000);
    EXPECT_EQ(found->getInt32(0), 1);
    EXPECT_EQ(found->getString(1) + " " + found->getString(2) + " " + found->getString(4) + " " + found->getString(6),
              "One 1 " + file("high/20.json") + " why");
    EXPECT_EQ(found->getInt32(5), 2);

    const Message tooMany = mService.proxy().makeMethodCallMessage("POLICIES_GOVERNING");
    tooMany->appendInt32(1001);
    EXPECT_NE(mService.proxy().callWithReplyBlocking(tooMany, 300)->type(), protocol::kMethodReply);
    (void)call("GET_CONST", "fence");
    EXPECT_EQ(mLog.count("POLICIES_GOVERNING refused: its URIs are too many", 7), 1);

    const Message list = call("POLICIES_LIST", "one");
    EXPECT_EQ(list->signature(), "bissysisssysis") << "weak and the fence";
    EXPECT_EQ(list->getString(2), "weak");

    const Message status = call("POLICIES_STATUS");
    EXPECT_TRUE(status->getBool(0) && status->getBool(2));
    EXPECT_EQ(status->getInt32(3), 4);
    EXPECT_EQ(status->getInt32(4), 2) << "folders";
    EXPECT_EQ(status->getInt32(11), 4) << "files";
    EXPECT_EQ(status->getString(20), file("high/30.json"));
    EXPECT_THAT(status->getString(22), testing::HasSubstr("line 1"));
    EXPECT_EQ(mLog.count("high/30.json: line 1", 7), 1) << "told once";
    for (const char* name : {"high/20.json", "high/30.json"}) fs::remove(file(name));
    (void)events();
    EXPECT_EQ(call("POLICIES_READ")->signature(), "b");
}

// What the service should make of everything, written down without a look at how it does.
class Model {
public:
    std::map<std::string, Policies> files;  // by "folder/name"; a later folder has a greater name here
    Policies stored;
    std::map<std::string, std::string> local;

    struct Result {
        std::string value;
        bool strong;
    };

    const Policy* machine(const std::string& uri) const {
        std::map<std::string, const Policies*> byName;
        for (const auto& [path, policies] : files) byName[path.substr(1)] = &policies;
        const Policy* last = nullptr;
        for (const auto& [name, policies] : byName)
            if (const auto found = policies->find(uri); found != policies->end()) last = &found->second;
        return last;
    }
    Result effective(const std::string& uri) const {
        const Policy* policy = machine(uri);
        if (const auto found = stored.find(uri); !policy && found != stored.end()) policy = &found->second;
        if (policy && policy->priority > 5) return {policy->value, true};
        if (const auto found = local.find(uri); found != local.end()) return {found->second, false};
        return {policy ? policy->value : "", false};
    }
};

class Rehearsal {
public:
    explicit Rehearsal(unsigned seed) : mRandom(seed) {}
    Model model;
    std::vector<std::string> expected;  // events

    int upTo(int most) { return std::uniform_int_distribution<int>(0, most)(mRandom); }
    std::string uri() { return "k" + std::to_string(upTo(5)); }
    std::string value() { return "v" + std::to_string(upTo(2)); }
    int priority() { return upTo(1) == 0 ? 9 : 4; }

    // Makes a change of the model, and foretells what is heard of it. k0 is listened to, with the flag.
    template <class Change>
    void change(const std::string& event, const std::vector<std::string>& uris, Change make) {
        std::map<std::string, std::pair<Model::Result, std::string>> before;
        for (const std::string& one : uris) before[one] = {model.effective(one), governed(one)};
        make();
        for (const std::string& one : uris) {
            const auto& [old, by] = before[one];
            const Model::Result now = model.effective(one);
            const bool isFile = event.empty();
            const bool isPolicy = event != ".sdconfigChanged";
            if (isFile && governed(one) == by) continue;
            const bool changed = old.value != now.value;
            if (!changed && !(isPolicy && old.strong != now.strong)) continue;
            const std::string what = " " + one + "=" + now.value;
            const std::string listened = "DM_CHANGED" + what + (now.strong ? "!" : "");
            if (!isPolicy && one == "k0") expected.push_back(listened);
            expected.push_back((isFile ? ".DMChanged" : event) + what + (isPolicy && now.strong ? "!" : ""));
            if (isPolicy && one == "k0") expected.push_back(listened);
        }
    }

private:
    std::string governed(const std::string& uri) const {
        const Policy* const policy = model.machine(uri);
        return policy ? policy->value + std::to_string(policy->priority) : "";
    }
    std::mt19937 mRandom;
};

TEST_F(MachinePoliciesTest, RandomEditsComeToWhatAModelSays) {
    const char* const wanted = std::getenv("SDCONFIG_POLICY_EDITS");
    const long edits = wanted ? std::strtol(wanted, nullptr, 10) : 150;
    const std::vector<std::string> all{"k0", "k1", "k2", "k3", "k4", "k5"};
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    Rehearsal by(seed);
    EXPECT_TRUE(ok("REG_LISTENER", "k0", true));
    (void)events();
    for (long i = 0; i < edits && !HasFailure(); ++i) {
        const std::string uri = by.uri();
        switch (by.upTo(5)) {
            case 0:
                by.change(".sdconfigChanged", {uri},
                          [&] { ASSERT_TRUE(ok("SET_SECURE", uri, by.model.local[uri] = by.value())); });
                break;
            case 1:
                by.change(".sdconfigChanged", {uri}, [&] {
                    by.model.local.erase(uri);
                    ASSERT_TRUE(ok("DEL_SECURE", uri));
                });
                break;
            case 2: {
                const Policy policy{by.value(), by.priority()};
                const bool isFree = !by.model.machine(uri);
                by.change(".DMChanged", {uri}, [&] {
                    if (isFree) by.model.stored[uri] = policy;
                    ASSERT_EQ(ok("SET_POLICY", uri, policy.value, policy.priority), isFree);
                });
                break;
            }
            case 3: {
                const bool isFree = !by.model.machine(uri);
                if (isFree) by.model.stored.erase(uri);
                EXPECT_EQ(ok("DELETE_POLICY", uri), isFree);
                if (isFree && uri == "k0") by.expected.emplace_back("DM_CHANGED k0=");
                break;
            }
            default: {
                const bool isLow = by.upTo(1) == 0;
                const std::string name = "/m" + std::to_string(by.upTo(2)) + ".json";
                const std::string path = (isLow ? "low" : "high") + name;
                Policies policies;
                for (int n = by.upTo(3); n > 0; --n) policies[by.uri()] = {by.value(), by.priority()};
                by.change("", all, [&] {
                    const std::string key = (isLow ? "1" : "2") + name;
                    const bool isGone = by.upTo(3) == 0;
                    isGone ? void(by.model.files.erase(key)) : void(by.model.files[key] = policies);
                    isGone ? void(fs::remove(file(path))) : put(path, textOf(policies));
                });
                EXPECT_EQ(events(), by.expected);
                by.expected.clear();
            }
        }
        for (const std::string& one : all) {
            EXPECT_EQ(secure(one), by.model.effective(one).value) << one;
            EXPECT_EQ(ok("ISSTRONG_CONTROL", one), by.model.effective(one).strong) << one;
        }
    }
}

}  // namespace
}  // namespace sd
