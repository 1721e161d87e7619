// Asks for events until they come: the bus layer waits a second for it, and then goes on trying by itself. On a busy
// machine that may be needed.
#pragma once

#include <string>
#include <utility>

#include "platform/sdbus/sdbus.h"

namespace test {

// Whether the events of that name come, each to `function`.
inline bool isSubscribed(SDBusProxyInterface& proxy, const std::string& event, SDBusEventCallback::Function function) {
    constexpr int kSeconds = 20;
    bool isInForce = proxy.addEventListener(event, new SDBusEventCallback(std::move(function)), SDBusSameUser);
    for (int i = 1; !isInForce && i < kSeconds; ++i)
        isInForce = proxy.addEventListener(event, new SDBusEventCallback([](const auto&) {}), SDBusSameUser);
    return isInForce;
}

}  // namespace test
