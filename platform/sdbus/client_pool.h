// The process's idle connections, and the blocking call over one of them.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "platform/sdbus/message.h"
#include "platform/sdbus/runtime_folder.h"

namespace sdbus {

// Calls `service` over an idle connection, or a new one, on the calling thread; any number of threads at a time.
// limit: for everything, connecting included. Never null: a reply, or an error message that says what failed.
std::shared_ptr<SDBusMessage> callService(const RuntimeFolder& place, const std::string& service, const Message& call,
                                          std::chrono::milliseconds limit);

// Whether somebody listens whom we may trust. Does not wait; what it had to connect for that is left to later calls.
bool isServiceReachable(const RuntimeFolder& place, const std::string& service);

}  // namespace sdbus
