// Owners of what this layer gets from the kernel and from libsystemd.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>

#include "base/unique_fd.h"

namespace sdbus {

using sd::UniqueFd;

// Closes at once: messages that are still held keep the object alive, but not the descriptor. Never flushes, since
// flushing blocks without bound on a peer that does not read.
struct BusCloser {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
using BusPtr = std::unique_ptr<sd_bus, BusCloser>;

struct MessageReleaser {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using BusMessagePtr = std::unique_ptr<sd_bus_message, MessageReleaser>;

struct SourceReleaser {
    void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};
using SourcePtr = std::unique_ptr<sd_event_source, SourceReleaser>;

struct EventReleaser {
    void operator()(sd_event* event) const { sd_event_unref(event); }
};
using EventPtr = std::unique_ptr<sd_event, EventReleaser>;

}  // namespace sdbus
