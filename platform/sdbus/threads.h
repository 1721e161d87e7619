// How this layer starts its threads.
#pragma once

#include <functional>
#include <memory>
#include <thread>

namespace sdbus {

// Starts a thread that the host's signals never run on: they go to the host's own threads. Those that tell of a fault
// of the thread itself stay open to the host's handlers.
// name: 15 characters at most. Null when the system has no thread to give.
std::unique_ptr<std::thread> startThread(const char* name, std::function<void()> body);

}  // namespace sdbus
