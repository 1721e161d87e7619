#include "bench/measuring_process.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>

namespace bench {

namespace {

void answer(int socket, const MeasuringProcess::Measures& measures) {
    std::size_t measure = 0;
    while (::read(socket, &measure, sizeof measure) == sizeof measure) {
        const double sample = measures.at(measure)();
        require(::write(socket, &sample, sizeof sample) == sizeof sample, "write");
    }
}

// socket: becomes this process's end of the connection.
Process startMeasuring(const std::function<MeasuringProcess::Measures()>& prepare, int& socket) {
    std::array<int, 2> sockets{};
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()) == 0, "socketpair");
    Process process = Process::fork([&](int ready, int) {
        ::close(sockets[0]);
        const MeasuringProcess::Measures measures = prepare();
        tellReady(ready);
        answer(sockets[1], measures);
    });
    ::close(sockets[1]);
    socket = sockets[0];
    return process;
}

}  // namespace

MeasuringProcess::MeasuringProcess(const std::function<Measures()>& prepare)
    : mSocket(-1), mProcess(startMeasuring(prepare, mSocket)) {}

MeasuringProcess::~MeasuringProcess() {
    ::close(mSocket);
}

double MeasuringProcess::run(std::size_t measure) const {
    double sample = 0;
    require(::write(mSocket, &measure, sizeof measure) == sizeof measure &&
                ::read(mSocket, &sample, sizeof sample) == sizeof sample,
            "a measuring process");
    return sample;
}

}  // namespace bench
