#include "apps/common/smallest_call.h"

#include <utility>

#include "platform/sdbus/sdbus.h"
#include "src/sdconfig_protocol.h"

namespace apps {

std::shared_ptr<SDBusMessage> smallestCall(SDBusProxyInterface& proxy, int timeoutMs) {
    auto call = proxy.makeMethodCallMessage(sd::protocol::kGetConst);
    call->appendString("");
    return proxy.callWithReplyBlocking(std::move(call), timeoutMs);
}

}  // namespace apps
