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
    try {
        return std::make_unique<std::thread>(sd::startQuietThread(name, std::move(body)));
    } catch (const std::system_error& error) {
        LOG(7, AT "cannot start thread %s: %s", HERE, name, error.what());
        return nullptr;
    }
}

}  // namespace sdbus
