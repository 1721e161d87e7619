#include "apps/sdconfig/service/listener_calls.h"

#include "apps/sdconfig/service/service.h"
#include "platform/sdbus/sdbus.h"
#include "src/sdconfig_protocol.h"

namespace cli {

std::optional<std::map<std::string, int>> listenersOf(const Service& service) {
    std::map<std::string, int> all;
    for (bool more = true; more;) {
        const auto ask = [&](SDBusMessage& call) { call.appendString(all.empty() ? "" : all.rbegin()->first); };
        const auto answer = service.tryToAskKnown(sd::protocol::kListenersList, ask, "bi");
        if (!answer) return std::nullopt;
        const int count = answer->getInt32(1);
        for (int at = 2; at < 2 + 2 * count; at += 2) all[answer->getString(at)] = answer->getInt32(at + 1);
        more = answer->getBool(0) && count > 0;
    }
    return all;
}

}  // namespace cli
