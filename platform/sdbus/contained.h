// Our code beneath sd-bus and sd-event, which are C: no exception may pass them.
#pragma once

#include <exception>

#include "platform/sdbus/log.h"

namespace sdbus {

// Does the work. An exception that leaves it, bad_alloc for one, is logged and ends the work, not the thread. Returns
// whether it was done.
template <class Work>
bool contained(const char* what, const Work& work) noexcept {
    constexpr char kSource[] = "platform/sdbus/contained";
    try {
        work();
        return true;
    } catch (const std::exception& error) {
        LOG(7, AT "%s threw: %s", HERE, what, error.what());
    } catch (...) {
        LOG(7, AT "%s threw", HERE, what);
    }
    return false;
}

}  // namespace sdbus
