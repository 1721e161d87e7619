// The names and bounds that both ends of a connection share.
#pragma once

#include <cstddef>

namespace sdbus::wire {

// What this layer's client says. Its server takes calls to any path and interface, so that a person with a debugging
// tool need not know these.
constexpr char kPath[] = "/";
constexpr char kInterface[] = "sdbus.Service";

// What clients ask of the layer itself.
constexpr char kControlInterface[] = "sdbus.Control";
constexpr char kSubscribe[] = "Subscribe";

// D-Bus takes messages of 128 MiB and arrays of 64 MiB. sd-bus refuses a larger message at the receiver only, by
// dropping the connection. 4 KiB are for the header: a path, an interface, a member and a signature.
constexpr std::size_t kMessageBytesMax = (std::size_t{128} << 20) - 4096;
constexpr std::size_t kArrayBytesMax = std::size_t{64} << 20;

// An argument costs 4 bytes on the wire at least and 40 in memory: without a bound a message of 64 MiB could make us
// hold 670 MB.
constexpr std::size_t kArgumentsMax = 1'000'000;

}  // namespace sdbus::wire
