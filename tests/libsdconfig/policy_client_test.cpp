// Policies and listeners as the client sends and hears of them.
#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <stdexcept>
#include <thread>

#include "libsdconfig/dmconfig.h"
#include "platform/velmarlog/velmarlog.h"
#include "tests/libsdconfig/client_fixture.h"
#include "tests/support/scarce_memory.h"

namespace sd {
namespace {

using testing::ElementsAre;

class Recorder : public DMConfig::Listener, public test::Heard {
public:
    void onChanged(const std::string& key, const std::string& value, bool flag) override {
        add(key + "=" + value + (flag ? "!" : ""));
        if (then) then();
    }
    std::function<void()> then;
};

class PolicyClientTest : public ClientTest {
protected:
    // Everything told before this has been delivered when it returns.
    void fence() {
        Recorder fence;
        ASSERT_TRUE(mPolicies->RegisterListenersWithList({{"fence", &fence}}, true));
        mService.tell("DM_CHANGED", "fence", "up", false);
        EXPECT_TRUE(test::waitUntil([&] { return !fence.all().empty(); }));
        mPolicies->UnRegisterListener("fence", &fence, true);
    }

    // How many the service has, by the kernel's list of sockets: each bears the path of the one that listens.
    long connections() const {
        const std::string path = " " + mManager->socketPath("sdconfig");
        std::ifstream sockets("/proc/net/unix");
        long count = 0;
        for (std::string line; std::getline(sockets, line);)
            if (line.size() > path.size() && line.compare(line.size() - path.size(), path.size(), path) == 0) ++count;
        return count - 1;
    }

    DMConfig* mPolicies = DMConfig::GetInstance();
};

TEST_F(PolicyClientTest, PoliciesTravelAsTheyAlwaysDid) {
    connect();
    EXPECT_TRUE(mPolicies->SetPolicyWithUri("uri", {{"v", 200}}));
    PolicyList many;
    for (int i = 0; i < 130; ++i) many["uri" + std::to_string(100 + i)] = {{"v", 5}};
    EXPECT_TRUE(mPolicies->SetPolicyList(many));
    EXPECT_FALSE(mPolicies->SetPolicyWithUri("uri", {}));
    EXPECT_FALSE(mPolicies->SetPolicyWithUri("uri", {{"a", 1}, {"b", 2}}));
    EXPECT_EQ(mLog.count("error type, SetPolicyWithUri failed", 7), 2);

    EXPECT_EQ(mPolicies->GetPolicyWithUri("empty"), (PolicyMap{{"null_value", 7}}));
    PolicyList list{{"a", {{"old", 1}}}, {"z", {{"kept", 2}}}};
    const PolicyList expected{{"a", {{"null_value", 9}}}, {"b", {{"x", -1}}}, {"z", {{"kept", 2}}}};
    EXPECT_TRUE(mPolicies->GetAllKeys(&list));
    EXPECT_EQ(list, expected);
    EXPECT_TRUE(mPolicies->GetPoliciesWithUris({"a", "b"}, &list));
    EXPECT_EQ(list, expected);
    EXPECT_FALSE(mPolicies->GetAllKeys(nullptr) || mPolicies->GetPoliciesWithUris({"a"}, nullptr));
    EXPECT_FALSE(mPolicies->GetPoliciesWithUris({}, &list));
    EXPECT_EQ(mLog.count("keys is empty", 7), 1);

    EXPECT_TRUE(mPolicies->DeletePolicyWithUri("uri") && mPolicies->isStrongControl("uri") &&
                mPolicies->ClearAllKeys());
    EXPECT_TRUE(mPolicies->IsAllConfigsAlreadyListened({"a", "b"}));
    EXPECT_THAT(mService.takeCalls(),
                ElementsAre("SET_POLICY uri v -56", "SET_POLICYLIST -126 uri100 v 5", "GET_POLICY empty ", "DM_LIST  ",
                            "DM_GET_POLICIES 2 a b", "DELETE_POLICY uri ", "ISSTRONG_CONTROL uri ",
                            "DM_CLEAR_ALL_KEYS  ", "ISALREADY_LISTHENED 2 a b"));
}

TEST_F(PolicyClientTest, ListenersHearInTheOrderOfRegistration) {
    connect();
    Recorder first, second;
    std::string order;
    first.then = [&] {
        order += "1";
        throw 1;
    };
    second.then = [&] {
        order += "2";
        throw std::runtime_error("spilt");
    };
    EXPECT_TRUE(mPolicies->RegisterListener("k", &second, true));
    EXPECT_TRUE(mPolicies->RegisterListener("k", &first, true));
    EXPECT_TRUE(mPolicies->RegisterListener("k", &first, true));
    EXPECT_EQ(mLog.count("the key is already registered", 5), 2);
    for (const char* event : {"DM_CHANGED", "DM_CHANGE", "DM_CHANGEDX"}) mService.tell(event, "k", "v", true);
    mService.tell("DM_CHANGED", "K", "v", true);
    fence();
    EXPECT_EQ(order, "211");
    EXPECT_EQ(mLog.count("a listener of key k threw: spilt", 7), 1);
    EXPECT_EQ(mLog.count("a listener of key k threw", 7), 3);
    EXPECT_THAT(second.all(), ElementsAre("k=v!"));

    mService.takeCalls();
    EXPECT_TRUE(mPolicies->UnRegisterListener("k", &first, false));
    EXPECT_TRUE(mPolicies->UnRegisterListener("k", &second, false));
    EXPECT_FALSE(mPolicies->UnRegisterListener("k", &second, false));
    EXPECT_FALSE(mPolicies->UnRegisterListener("other", &first, false));
    EXPECT_EQ(mLog.count("the listener has been already erased", 6), 1);
    EXPECT_EQ(mLog.count("the key has been already erased", 6), 1);
    EXPECT_TRUE(mPolicies->UnRegisterListener("k", &first, false));
    EXPECT_TRUE(mPolicies->RegisterListener("k", &first, true)) << "the key is known still: nothing is sent";
    EXPECT_THAT(mService.takeCalls(),
                ElementsAre("UNREG_LISTENER k false", "UNREG_LISTENER k false", "UNREG_LISTENER k false"));

    EXPECT_FALSE(mPolicies->RegisterListener("new", nullptr, false));
    EXPECT_FALSE(mPolicies->RegisterListenersWithList({{"k", &first}, {"new", nullptr}}, false));
    EXPECT_EQ(mLog.count("no listener, Register", 7), 2);
    mService.agree = false;
    EXPECT_FALSE(mPolicies->RegisterListener("new", &first, false));
    EXPECT_FALSE(mPolicies->RegisterListenersWithList({{"new", &first}}, false));
    EXPECT_THAT(mService.takeCalls(), ElementsAre("REG_LISTENER new false", "DM_REGISTER_LISTERNER 1 new "));
    EXPECT_FALSE(mLog.has("error reply"));
    mService.agree = true;
    mService.tell("DM_CHANGED", "new", "v", true);
    fence();
    EXPECT_EQ(order, "211") << "refused, and yet it hears";
}

TEST_F(PolicyClientTest, TheFirstRegistrationsSubscribeOnceAndBeforeTheyAreSent) {
    connect();
    EXPECT_EQ(connections(), 1) << "nobody listens yet";
    mService.hold("DM_REGISTER_LISTERNER");
    std::array<Recorder, 3> listeners;
    std::vector<std::future<bool>> registrations;
    const auto keyOf = [](size_t i) { return std::string(1, static_cast<char>('a' + i)); };
    for (size_t i = 0; i < listeners.size(); ++i)
        registrations.push_back(std::async(std::launch::async, [&, i] {
            return mPolicies->RegisterListenersWithList({{keyOf(i), &listeners[i]}}, true);
        }));
    for (size_t i = 0; i < listeners.size(); ++i)
        ASSERT_TRUE(mService.waitForCall("DM_REGISTER_LISTERNER 1 " + keyOf(i) + " "));
    EXPECT_EQ(connections(), 4) << "a call of each, and one subscription";
    mService.resume();
    for (size_t i = 0; i < listeners.size(); ++i) {
        EXPECT_TRUE(registrations[i].get());
        mService.tell("DM_CHANGED", keyOf(i), "v", false);
    }
    for (Recorder& listener : listeners)
        EXPECT_TRUE(test::waitUntil([&] { return listener.all().size() == 1; })) << "told once it was registered";
    for (size_t i = 0; i < listeners.size(); ++i) mPolicies->UnRegisterListener(keyOf(i), &listeners[i], true);
}

TEST_F(PolicyClientTest, AServiceThatHangsCostsARegistrationNoMoreThanAnyCall) {
    connect();
    Recorder listener;
    mService.hang();
    const auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(mPolicies->RegisterListener("k", &listener, true));
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(9));
    mService.release();
    EXPECT_TRUE(mPolicies->RegisterListener("k", &listener, true));
    EXPECT_TRUE(test::waitUntil([&] {
        mService.tell("DM_CHANGED", "k", "v", true);
        return !listener.all().empty();
    })) << "the subscription comes into force by itself";
    EXPECT_TRUE(mPolicies->UnRegisterListener("k", &listener, true));
}

TEST_F(PolicyClientTest, WhatMemoryRunsOutOverIsCountedByBothSidesOrNeither) {
    connect();
    Recorder listener;
    ASSERT_TRUE(mPolicies->RegisterListener("first", &listener, true));
    mService.takeCalls();
    bool hasToldWhy = false;
    test::ScarceMemory::forEach([&](std::uint64_t n) {
        for (int kind = 0; kind < 6; ++kind) {  // three operations, with a lack that passes and one that lasts
            const std::string key = std::to_string(n) + "." + std::to_string(kind);
            const auto unregister = [&] { return mPolicies->UnRegisterListener(key, &listener, true); };
            const DMConfig::ListenerList list{{key, &listener}};
            bool isThere = kind >= 4 && mPolicies->RegisterListenersWithList(list, true);
            {
                const test::ScarceMemory scarce(test::ScarceMemory::Of::ThisThread, n, kind % 2 != 0);
                if (kind >= 4) (void)unregister();
                if (kind < 4)
                    isThere = kind < 2 ? mPolicies->RegisterListener(key, &listener, true)
                                       : mPolicies->RegisterListenersWithList(list, true);
            }
            EXPECT_TRUE(kind >= 4 || kind % 2 != 0 || isThere || mLog.has("", 7)) << key;
            hasToldWhy = hasToldWhy || mLog.has(": std::bad_alloc", 7);
            mLog.clear();
            const bool wasThere = unregister();
            EXPECT_TRUE(kind >= 4 || wasThere == isThere) << key;
            int counted = 0;  // by the service, as it was told
            for (const std::string& call : mService.takeCalls()) counted += call.compare(0, 5, "UNREG") == 0 ? -1 : 1;
            EXPECT_EQ(counted, 0) << key;
        }
    });
    EXPECT_TRUE(hasToldWhy);
}

TEST_F(PolicyClientTest, AListenerMayCallAnythingAndIsGoneOnceUnregistered) {
    connect();
    Recorder self;
    std::atomic<bool> unregistered{false};
    self.then = [&] {
        mConfig->GetSecure("from a listener");
        unregistered = mPolicies->UnRegisterListener("self", &self, false);
    };
    ASSERT_TRUE(mPolicies->RegisterListener("self", &self, false));
    mService.tell("DM_CHANGED", "self", "1", false);
    mService.tell("DM_CHANGED", "self", "2", false);
    fence();
    EXPECT_TRUE(unregistered);
    EXPECT_THAT(self.all(), ElementsAre("self=1"));

    // Unregistered while it runs: the call returns only when it has run to its end.
    std::atomic<bool> running{false}, ended{false};
    {
        Recorder slow;
        slow.then = [&] {
            running = true;
            const auto sent = [&] {
                for (const std::string& call : mService.takeCalls())
                    if (call == "UNREG_LISTENER slow false") return true;
                return false;
            };
            test::waitUntil(sent);
            ended = true;
        };
        ASSERT_TRUE(mPolicies->RegisterListener("slow", &slow, false));
        mService.tell("DM_CHANGED", "slow", "1", false);
        ASSERT_TRUE(test::waitUntil([&] { return running.load(); }));
        EXPECT_TRUE(mPolicies->UnRegisterListener("slow", &slow, false));
        EXPECT_TRUE(ended);
    }
}

// A process of its own, for it ends: while a listener waits for the thread that ends it, and another thread calls on.
TEST_F(PolicyClientTest, ExitWaitsForAListenerFiveSecondsAtMost) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto exitInTheMiddle = [this] {
        connect();
        velmarLogSetSink({});
        std::promise<void> running, never;
        Recorder stuck;
        stuck.then = [&] {
            running.set_value();
            never.get_future().wait();
        };
        mPolicies->RegisterListener("k", &stuck, true);
        mConfig->SetProperty("k", "v");
        running.get_future().wait();
        std::thread([this] {
            velmarLogSetLevel(6);
            while (mConfig->SetProperty("other", "v")) {
            }
        }).detach();
        std::exit(0);
    };
    EXPECT_EXIT(exitInTheMiddle(), testing::ExitedWithCode(0), "a listener still runs after 5000 ms");
}

// Each time with another thread of the parent in the middle of what the child does next.
TEST_F(PolicyClientTest, AForkedChildCallsAndListensAtOnce) {
    mService.values["key"] = "value";
    serve();
    Recorder parents;
    const auto childWorks = [&] {
        return test::inChild([&] {
            velmarLogSetSink({});
            velmarLogSetLevel(8);
            Recorder own;
            const bool calls = mConfig->GetConst("key") == "value" && mPolicies->RegisterListener("k", &own, true) &&
                               mConfig->SetProperty("k", "v");
            const bool hears = test::waitUntil([&] { return !own.all().empty(); });
            const bool keepsOut = parents.all().empty() && !mPolicies->UnRegisterListener("k", &parents, true);
            return calls && hears && keepsOut && mPolicies->UnRegisterListener("k", &own, true);
        });
    };
    mService.hold("GET_PROPERTY ro.sd.build.version");
    auto first = std::async(std::launch::async, [this] { return mConfig->GetConst("key"); });
    ASSERT_TRUE(mService.waitForCall("GET_PROPERTY ro.sd.build.version "));
    mService.hold("nothing");
    EXPECT_TRUE(childWorks()) << "another thread is inside its first call";
    mService.resume();
    EXPECT_EQ(first.get(), "value");

    mService.hold("REG_LISTENER k true");
    mService.takeCalls();
    auto second = std::async(std::launch::async, [&] { return mPolicies->RegisterListener("k", &parents, true); });
    ASSERT_TRUE(mService.waitForCall("REG_LISTENER k true"));
    mService.hold("nothing");
    EXPECT_TRUE(childWorks()) << "another thread is inside a registration";
    mService.resume();
    EXPECT_TRUE(second.get());
    EXPECT_TRUE(mPolicies->UnRegisterListener("k", &parents, true));
}

}  // namespace
}  // namespace sd
