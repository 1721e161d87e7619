// The process's idle connections, and the blocking calls over one of them.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "platform/sdbus/message.h"
#include "platform/sdbus/runtime_folder.h"

namespace sdbus {

using Answers = std::vector<std::shared_ptr<SDBusMessage>>;

// Calls `service` over an idle connection, or a new one, on the calling thread; any number of threads at a time. The
// calls go over the same connection, in their order and without a wait in between.
// limit: for everything, connecting included.
// One answer a call, in the calls' order and never null: a reply, or an error message that says what failed.
Answers callService(const RuntimeFolder& place, const std::string& service, const std::vector<const Message*>& calls,
                    std::chrono::milliseconds limit);

// Whether somebody listens whom we may trust. Does not wait; what it had to connect for that is left to later calls.
bool isServiceReachable(const RuntimeFolder& place, const std::string& service);

}  // namespace sdbus
