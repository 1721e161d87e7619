// The ways by which a text can go to another process and come back: the bus layer, its floors and its peers. Each has
// the same shape, so that one driver measures them all.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bench/process.h"

namespace bench {

// One connection, for one thread.
class Caller {
public:
    virtual ~Caller() = default;
    virtual void call(const std::string& text) = 0;  // ends the process when anything else than `text` comes back
};

struct Echo {
    std::string name;
    std::vector<Process> servers;  // the one that answers is the last
    std::function<std::unique_ptr<Caller>()> connect;
};

// Where the processes of a call run.
struct Cpus {
    int caller, broker, server;
};
constexpr Cpus kAnyCpus{kAnyCpu, kAnyCpu, kAnyCpu};
constexpr Cpus kOneCpu{0, 0, 0};
// The two ends apart, as the scheduler has them when there is room; left to itself it changes its mind within a run.
constexpr Cpus kTwoCpus{0, kAnyCpu, 1};

// Where a peer isn't installed, or can't
// run here, there is none, and a line on standard output says why.

// Two processes that write and read texts of that size over a socket pair, and nothing else. One caller.
Echo rawSocket(std::size_t size, const Cpus& cpus);
// This library's bus layer, platform/sdbus.
Echo busLayer(const Cpus& cpus, const std::string& service = "bench.echo");
// sd-bus between the two processes, as one writes it: what the bus layer is built on.
Echo bareSdBus(const Workplace& place, const Cpus& cpus);
// Its client alone; it can call the bus layer's services too.
std::unique_ptr<Caller> connectSdBus(const std::string& path);
// sd-bus again, with every message passing through a broker.
std::optional<Echo> throughDBusDaemon(const Workplace& place, const Cpus& cpus);
std::optional<Echo> throughDBusBroker(const Workplace& place, const Cpus& cpus);

}  // namespace bench
