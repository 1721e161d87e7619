// How this layer starts its threads.
#include "platform/sdbus/threads.h"

#include <system_error>

#include "base/quiet_thread.h"
#include "platform/sdbus/log.h"

namespace sdbus {
namespace {

constexpr char kSource[] = "platform/sdbus/threads";

}  // namespace

std::unique_ptr<std::thread> startThread(const char* name, std::function<void()> body) {
    auto thread = std::make_unique<std::thread>();  // before it runs: memory may run out
    try {
        *thread = sd::startQuietThread(name, std::move(body));
        return thread;
    } catch (const std::system_error& error) {
        LOG(7, AT "cannot start thread %s: %s", HERE, name, error.what());
        return nullptr;
    }
}

}  // namespace sdbus
