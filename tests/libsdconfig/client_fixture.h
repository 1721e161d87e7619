// A service of the test's own making, which records what the client asks.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "libsdconfig/sdconfig.h"
#include "platform/sdbus/sdbus.h"
#include "tests/support/support.h"

namespace sd {

// Answers GET_* and SIGN_REQUEST from `values`, lists with two entries, everything else with `agree`. Tells of each
// SET_PROPERTY.
class RecordingService : public SDBusServiceInterface {
public:
    bool handleMethodCall(std::shared_ptr<SDBusMessage> call) override {
        if (call->methodName() == "HANG") {
            mHangs.set_value();
            mReleased.get_future().wait();
        }
        const std::lock_guard lock(mMutex);
        mCalls.push_back(describe(*call));
        if (mHold.empty() || mCalls.back().compare(0, mHold.size(), mHold) != 0) return answer(call);
        mHeld.push_back(call);
        return true;
    }

    // Calls that begin with `what` are answered by resume().
    void hold(const std::string& what) {
        const std::lock_guard lock(mMutex);
        mHold = what;
    }
    void resume() {
        const std::lock_guard lock(mMutex);
        mHold.clear();
        for (const auto& call : std::exchange(mHeld, {})) answer(call);
    }
    bool waitForCall(const std::string& call) {
        return test::waitUntil([&] {
            const std::lock_guard lock(mMutex);
            return std::find(mCalls.begin(), mCalls.end(), call) != mCalls.end();
        });
    }

    // Answers nobody, as a stopped process, until release().
    void hang() {
        mHanging = std::thread([] {
            const auto proxy =
                SDBusSerivceManager::initSync(-1)->getServiceProxyInterface("sdconfig", SDBusSameUser, 1);
            proxy->callWithReplyBlocking(proxy->makeMethodCallMessage("HANG"), 20000);
        });
        mHangs.get_future().wait();
    }
    void release() {
        mReleased.set_value();
        mHanging.join();
    }

    bool answer(const std::shared_ptr<SDBusMessage>& call) {
        const std::string method = call->methodName();
        const std::string key = call->getString(0);
        const auto reply = makeMethodReplyMessage(call, SDBusSameUser);
        if (method == "LST_PROPERTY") {
            reply->appendInt32(2);
            for (const char* text : {"a", "2", "b", "3"}) reply->appendString(text);
        } else if (method == "DM_LIST" || method == "DM_GET_POLICIES") {
            reply->appendInt8(2);
            appendPolicy(*reply, "a", "", 9);
            appendPolicy(*reply, "b", "x", -1);
        } else if (method == "GET_POLICY") {
            reply->appendString(values[key]);
            reply->appendInt8(7);
        } else if (method.compare(0, 3, "GET") == 0 || method == "SIGN_REQUEST") {
            reply->appendString(values[key]);
            if (sealed.count(key) > 0) reply->appendBool(true);
        } else {
            reply->appendBool(agree);
        }
        if (method == "SET_PROPERTY") tell("DM_CHANGED", key, call->getString(1), true);
        return sendMessage(reply);
    }
    std::vector<std::string> takeCalls() {
        const std::lock_guard lock(mMutex);
        return std::exchange(mCalls, {});
    }

    std::map<std::string, std::string> values;
    std::set<std::string> sealed;  // keys whose rows can't be opened
    bool agree = true;

    void tell(const std::string& event, const std::string& key, const std::string& value, bool flag) {
        const auto message = makeEventMessage(event, SDBusSameUser);
        message->appendString(key);
        message->appendString(value);
        message->appendBool(flag);
        publishEvent(message);
    }

private:
    static void appendPolicy(SDBusMessage& reply, const char* uri, const char* value, int8_t priority) {
        reply.appendString(uri);
        reply.appendString(value);
        reply.appendInt8(priority);
    }

    // The method, and its arguments as far as a test looks at them.
    static std::string describe(SDBusMessage& call) {
        const std::string method = call.methodName();
        for (const char* counted :
             {"SET_POLICYLIST", "ISALREADY_LISTHENED", "DM_REGISTER_LISTERNER", "DM_GET_POLICIES"})
            if (method == counted)
                return method + " " + std::to_string(call.getInt(0)) + " " + call.getString(1) + " " +
                       call.getString(2) + (method[0] == 'S' ? " " + std::to_string(call.getInt(3)) : "");
        const std::string text = method + " " + call.getString(0) + " ";
        if (method == "REG_LISTENER" || method == "UNREG_LISTENER") return text + (call.getBool(1) ? "true" : "false");
        if (method == "SET_POLICY") return text + call.getString(1) + " " + std::to_string(call.getInt(2));
        return text + call.getString(1);
    }

    std::mutex mMutex;
    std::vector<std::string> mCalls;
    std::string mHold;
    std::vector<std::shared_ptr<SDBusMessage>> mHeld;
    std::promise<void> mHangs, mReleased;
    std::thread mHanging;
};

// Every test is a process of its own, as the client is made once a process.
class ClientTest : public testing::Test {
protected:
    void serve(bool powerIsSet = true) {
        for (const char* key : {"batteryBrightness", "chargeBrightness", "chargeDimDisplayTime",
                                "batteryDimDisplayTime", "chargeLidCloseAction", "batteryLidCloseAction"})
            if (powerIsSet) mService.values.emplace(std::string("config.device.") + key, "1");
        ASSERT_TRUE(mManager->registerServiceInterface("sdconfig", &mService, SDBusSameUser, 1));
    }
    void connect() {
        serve();
        ASSERT_EQ(mConfig->GetProperty("first"), "");
        mService.takeCalls();
        mLog.clear();
    }
    ~ClientTest() override { mManager->unregisterServiceInterface("sdconfig"); }

    test::PrivateBus mBus;
    test::LogCapture mLog;
    RecordingService mService;
    SDBusSerivceManager* mManager = SDBusSerivceManager::initSync(-1);
    SDConfig* mConfig = SDConfig::GetInstance();
};

}  // namespace sd
