// What the tests of the service share: it, as it serves on a bus and a data folder of its own, and who hears of it.
#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "libsdconfig/sdconfig.h"
#include "platform/sdbus/sdbus.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "src/sdconfig_protocol.h"
#include "src/sdconfig_service_sdbus.h"
#include "tests/support/arguments.h"
#include "tests/support/subscribed.h"
#include "tests/support/support.h"

namespace sd {

using Message = std::shared_ptr<SDBusMessage>;

// One a process.
class RunningService {
public:
    // prepare: what is there before it starts.
    explicit RunningService(const std::function<void(const test::TempDir&)>& prepare = {}) {
        if (prepare) prepare(mData);
        SDConfig::setDataPath(mData.path());
        SDSecurity::GetInstance()->SetKeyRingFolder(mData.path());
        SDConfigService::GetInstance()->Start();
        mProxy = SDBusSerivceManager::initSync(-1)->getServiceProxyInterface("sdconfig", SDBusSameUser, 1);
    }
    ~RunningService() { SDBusSerivceManager::initSync(-1)->unregisterServiceInterface("sdconfig"); }
    RunningService(const RunningService&) = delete;
    RunningService& operator=(const RunningService&) = delete;

    template <typename... Arguments>
    Message send(int timeoutMs, const std::string& method, const Arguments&... arguments) {
        const Message message = mProxy->makeMethodCallMessage(method);
        test::appendAll(*message, arguments...);
        return mProxy->callWithReplyBlocking(message, timeoutMs);
    }
    SDBusProxyInterface& proxy() { return *mProxy; }
    const test::TempDir& data() const { return mData; }
    const test::TempDir& runtimeFolder() const { return mBus.folder(); }

private:
    const test::PrivateBus mBus;
    const test::TempDir mData;
    std::shared_ptr<SDBusProxyInterface> mProxy;
};

// A test that calls it.
class CallingTest : public testing::Test {
protected:
    explicit CallingTest(RunningService& service) : mService(service) {}

    template <typename... Arguments>
    Message call(const std::string& method, const Arguments&... arguments) {
        return mService.send(30000, method, arguments...);  // 16 MiB take seconds where a sanitizer looks on
    }
    template <typename... Arguments>
    bool ok(const std::string& method, const Arguments&... arguments) {
        const Message reply = call(method, arguments...);
        return reply->type() == protocol::kMethodReply && reply->getBool(0);
    }
    std::string text(const std::string& method, const std::string& key) { return call(method, key)->getString(0); }
    std::string file(const std::string& name) const { return mService.data() / name; }

    RunningService& mService;
};

// All events of the service as "name key=value" with a "!" for strong control, over a subscription of its own.
class Events : public test::Heard {
public:
    Events() : mProxy(SDBusSerivceManager::initSync(-1)->getServiceProxyInterface("sdconfig", SDBusSameUser, 1)) {
        for (const char* name : {protocol::kSdconfigChanged, protocol::kPolicyChanged, protocol::kDmChanged})
            EXPECT_TRUE(test::isSubscribed(*mProxy, name, [this](const Message& event) {
                add(event->eventName() + " " + event->getString(0) + "=" + event->getString(1) +
                    (event->getBool(2) ? "!" : ""));
            }));
    }

    // Those since the last time, up to the fence, which is published last and which is not part of it.
    std::vector<std::string> upTo(const std::string& fence) {
        if (!test::waitUntil([&] { return !all().empty() && all().back() == fence; })) return {fence + " is missing"};
        const std::vector<std::string> events = all();
        const auto first = std::exchange(mTaken, events.size());
        return {events.begin() + static_cast<std::ptrdiff_t>(first), events.end() - 1};
    }

private:
    std::size_t mTaken = 0;
    std::shared_ptr<SDBusProxyInterface> mProxy;  // ends its thread first
};

}  // namespace sd
