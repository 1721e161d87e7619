// One bus call against what the kernel takes for the same bytes: a ping-pong over a raw Unix socket between two
// processes. Both peers are processes of their own; rounds alternate; a ratio is taken within a round.
//     bus_latency [ROUNDS [CALLS]]
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include "bench/statistics.h"
#include "platform/sdbus/sdbus.h"

namespace {

constexpr size_t kBytes = 128;
constexpr int kWarmUp = 500;

class Echo : public SDBusServiceInterface {
public:
    bool handleMethodCall(std::shared_ptr<SDBusMessage> call) override {
        const auto reply = makeMethodReplyMessage(call, SDBusSameUser);
        reply->appendString(call->getString(0));
        return sendMessage(reply);
    }
};

void pinTo(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<size_t>(cpu), &set);
    if (::sched_setaffinity(0, sizeof set, &set) != 0) std::perror("sched_setaffinity");
}

void serveBus(int ready, int end) {
    Echo echo;
    SDBusSerivceManager* const bus = SDBusSerivceManager::initSync(-1);
    if (!bus->registerServiceInterface("bench", &echo, SDBusSameUser, 1)) ::_exit(1);
    char byte = 'x';
    if (::write(ready, &byte, 1) != 1) ::_exit(1);
    while (::read(end, &byte, 1) > 0) {
    }
    bus->unregisterServiceInterface("bench");
    ::_exit(0);
}

void serveRaw(int socket) {
    char bytes[kBytes];
    for (ssize_t count; (count = ::read(socket, bytes, sizeof bytes)) > 0;)
        if (::write(socket, bytes, static_cast<size_t>(count)) != count) break;
    ::_exit(0);
}

double p50Microseconds(int calls, const std::function<void()>& call) {
    std::vector<double> times;
    for (int i = 0; i < calls; ++i) {
        const auto start = std::chrono::steady_clock::now();
        call();
        times.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }
    return bench::median(times);
}

// Both ends on cpus of their own, or on one.
void measure(const char* what, int serverCpu, int clientCpu, int rounds, int calls) {
    int ready[2], end[2], raw[2];
    if (::pipe(ready) != 0 || ::pipe(end) != 0 || ::socketpair(AF_UNIX, SOCK_STREAM, 0, raw) != 0) std::abort();
    const pid_t busServer = ::fork();
    if (busServer == 0) {
        ::close(end[1]);
        pinTo(serverCpu);
        serveBus(ready[1], end[0]);
    }
    const pid_t rawServer = ::fork();
    if (rawServer == 0) {
        ::close(end[1]);
        ::close(raw[0]);
        pinTo(serverCpu);
        serveRaw(raw[1]);
    }
    ::close(raw[1]);
    pinTo(clientCpu);
    char byte = 0;
    if (::read(ready[0], &byte, 1) != 1) std::abort();

    const auto proxy = SDBusSerivceManager::initSync(-1)->getServiceProxyInterface("bench", SDBusSameUser, 1);
    const std::string text(kBytes, 'x');
    const auto busCall = [&] {
        const auto call = proxy->makeMethodCallMessage("ECHO");
        call->appendString(text);
        if (proxy->callWithReplyBlocking(call, 1000)->getString(0) != text) std::abort();
    };
    const auto rawCall = [&] {
        char bytes[kBytes];
        if (::write(raw[0], text.data(), kBytes) != kBytes || ::read(raw[0], bytes, kBytes) <= 0) std::abort();
    };
    p50Microseconds(kWarmUp, busCall);
    p50Microseconds(kWarmUp, rawCall);
    std::vector<double> figures, floors;
    for (int round = 0; round < rounds; ++round) {
        figures.push_back(p50Microseconds(calls, busCall));
        floors.push_back(p50Microseconds(calls, rawCall));
    }
    bench::printRatio(what, figures, floors, "us");
    ::close(raw[0]);
    ::close(end[1]);
    ::waitpid(busServer, nullptr, 0);
    ::waitpid(rawServer, nullptr, 0);
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::stoi(argv[1]) : 7;
    const int calls = argc > 2 ? std::stoi(argv[2]) : 5000;
    char folder[] = "/tmp/sdbench-XXXXXX";
    if (!::mkdtemp(folder) || ::setenv("XDG_RUNTIME_DIR", folder, 1) != 0) return 1;
    if (rounds < 1 || calls < 1) return 2;
    measure("bus call of 128 bytes, a cpu each, p50", 1, 0, rounds, calls);
    measure("bus call of 128 bytes, one cpu for both, p50", 0, 0, rounds, calls);
    ::rmdir((std::string(folder) + "/sdbus").c_str());
    return ::rmdir(folder);
}
