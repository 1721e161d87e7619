// Events of a service, and whether they are heard.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "platform/sdbus/sdbus.h"

namespace sd {

// Calls `hear` for every event of that name, as addEventListener() does with a callback.
// Returns what lives as long as the bus layer may call: it is gone at once where there was no thread or descriptor.
inline std::weak_ptr<void> hearEvents(SDBusProxyInterface& proxy, const std::string& event,
                                      std::function<void(SDBusMessage& event)> hear) {
    auto taken = std::make_shared<std::function<void(SDBusMessage&)>>(std::move(hear));
    std::weak_ptr<void> isTaken = taken;
    // The bus layer takes the callback over, and drops it where it can't call.
    auto* callback = new SDBusEventCallback(
        [taken = std::move(taken)](const std::shared_ptr<SDBusMessage>& message) { (*taken)(*message); });
    (void)proxy.addEventListener(event, callback, SDBusSameUser);
    return isTaken;
}

}  // namespace sd
