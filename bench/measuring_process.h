// Measures that run in a process of their own: a process is a client of one service, and of one session, for its life.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "bench/process.h"

namespace bench {

class MeasuringProcess {
public:
    using Measures = std::vector<std::function<double()>>;

    // Returns when the process has called `prepare`, which gives its measures.
    explicit MeasuringProcess(const std::function<Measures()>& prepare);
    ~MeasuringProcess();
    MeasuringProcess(const MeasuringProcess&) = delete;
    MeasuringProcess& operator=(const MeasuringProcess&) = delete;

    // Has the process run one of its measures. Returns the sample.
    double run(std::size_t measure) const;

private:
    int mSocket;
    Process mProcess;
};

}  // namespace bench
