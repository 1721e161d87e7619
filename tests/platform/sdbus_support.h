// What the tests of the bus share: services of a few lines, in this process or in one of their own, and ends of a
// connection that do not keep to the rules.
#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "platform/sdbus/sdbus.h"
#include "tests/support/process.h"
#include "tests/support/support.h"

namespace test {

constexpr int kLongMs = 20000;  // for what is expected to work
inline constexpr char kService[] = "unit";

inline SDBusSerivceManager& bus() {
    return *SDBusSerivceManager::initSync(-1);
}

// A service whose handler is a function; registers itself and ends with its life. By itself it echoes strings.
class TestService : public SDBusServiceInterface {
public:
    using Handler = std::function<bool(TestService&, const std::shared_ptr<SDBusMessage>&)>;

    using Observer = std::function<void(const SDBusRefusal&)>;

    explicit TestService(Handler handler = echo, std::string name = kService, Observer observer = {})
        : mHandler(std::move(handler)), mName(std::move(name)) {
        observeRefusals(std::move(observer));
        mRegistered = bus().registerServiceInterface(mName, this, SDBusSameUser, 1);
    }
    ~TestService() override {  // a handler may be at work, and wants the whole object
        if (mRegistered) bus().unregisterServiceInterface(mName);
    }
    TestService(const TestService&) = delete;
    TestService& operator=(const TestService&) = delete;
    bool isRegistered() const { return mRegistered; }
    bool handleMethodCall(std::shared_ptr<SDBusMessage> call) override { return mHandler(*this, call); }

    bool reply(const std::shared_ptr<SDBusMessage>& call, const std::string& text) {
        const auto message = makeMethodReplyMessage(call, SDBusSameUser);
        message->appendString(text);
        return sendMessage(message);
    }
    bool publish(const std::string& event, const std::string& text) {
        const auto message = makeEventMessage(event, SDBusSameUser);
        message->appendString(text);
        return publishEvent(message);
    }
    static bool echo(TestService& self, const std::shared_ptr<SDBusMessage>& call) {
        return self.reply(call, call->getString(0));
    }

private:
    Handler mHandler;
    const std::string mName;
    bool mRegistered = false;
};

using Proxy = std::shared_ptr<SDBusProxyInterface>;

inline Proxy proxyTo(const std::string& name = kService) {
    return bus().getServiceProxyInterface(name, SDBusSameUser, 1);
}

inline std::shared_ptr<SDBusMessage> call(const Proxy& proxy, const std::string& method, const std::string& text = "",
                                          int timeoutMs = kLongMs) {
    const auto message = proxy->makeMethodCallMessage(method);
    message->appendString(text);
    return proxy->callWithReplyBlocking(message, timeoutMs);
}

// A service in a process of its own, which echoes and ends at SIGTERM as a daemon would.
Process startService(const Environment& environment = {});

// A socket that listens where the service would, and whose clients are served by `serve`, one after another, on a
// thread of its own, until the object goes.
class RawService {
public:
    using Serve = std::function<void(int client)>;
    explicit RawService(Serve serve);
    ~RawService();
    int clients() const { return mClients; }

private:
    const int mListener;
    std::atomic<int> mClients{0};
    std::thread mThread;
};

// Plays the service's part of the handshake and returns the bytes of the first message that follows, whole.
std::string readFirstMessage(int client);

struct BusUnref {
    void operator()(sd_bus* connection) const { sd_bus_close_unref(connection); }
};
using RawClient = std::unique_ptr<sd_bus, BusUnref>;

// A client of the service by libsystemd alone, ready to call.
RawClient rawClient();
// Subscribes it to an event and waits for the acknowledgement; false when that was refused.
bool subscribe(const RawClient& client, const std::string& event);

}  // namespace test
