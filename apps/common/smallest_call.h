// A sign of life of the service.
#pragma once

#include <memory>

class SDBusMessage;
class SDBusProxyInterface;

namespace apps {

// The answer to a call that has nothing done but the look-up of a constant without a name. Blocks, as
// SDBusProxyInterface::callWithReplyBlocking does.
std::shared_ptr<SDBusMessage> smallestCall(SDBusProxyInterface& proxy, int timeoutMs);

}  // namespace apps
