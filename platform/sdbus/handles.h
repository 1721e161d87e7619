// Owners of what this layer gets from the kernel and from libsystemd.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <memory>
#include <utility>

namespace sdbus {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : mFd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(std::exchange(other.mFd, -1));
        return *this;
    }
    ~UniqueFd() { reset(); }

    int get() const { return mFd; }
    explicit operator bool() const { return mFd >= 0; }
    int release() { return std::exchange(mFd, -1); }
    void reset(int fd = -1) {
        if (mFd >= 0) ::close(mFd);
        mFd = fd;
    }

private:
    int mFd = -1;
};

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
