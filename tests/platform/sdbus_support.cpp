#include "tests/platform/sdbus_support.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace test {

Process startService(const Environment& environment) {
    Process process = Process::start({SDBUS_TEST_SERVICE}, environment);
    if (!process.waitForErr("serving")) throw std::runtime_error("no service: " + process.err());
    return process;
}

namespace {

// Reads until `enough` says so or the other end has left.
void readUntil(int fd, std::string& bytes, const std::function<bool()>& enough) {
    char buffer[4096];
    while (!enough()) {
        const ssize_t length = ::read(fd, buffer, sizeof(buffer));
        if (length <= 0) return;
        bytes.append(buffer, static_cast<std::size_t>(length));
    }
}

uint32_t numberAt(const std::string& bytes, std::size_t offset) {
    uint32_t number = 0;
    std::memcpy(&number, bytes.data() + offset, sizeof(number));
    return number;
}

}  // namespace

RawService::RawService(Serve serve) : mListener(listenAt(bus().socketPath(kService))) {
    mThread = std::thread([this, serve = std::move(serve)] {
        for (;;) {
            const int client = ::accept4(mListener, nullptr, nullptr, SOCK_CLOEXEC);
            if (client < 0) return;
            ++mClients;
            serve(client);
            ::close(client);
        }
    });
}

RawService::~RawService() {
    ::shutdown(mListener, SHUT_RDWR);
    mThread.join();
    ::close(mListener);
}

std::string readFirstMessage(int client) {
    constexpr char kBegin[] = "BEGIN\r\n";
    constexpr char kAccepted[] = "DATA\r\nOK 0123456789abcdef0123456789abcdef\r\n";
    std::string bytes;
    readUntil(client, bytes, [&] { return bytes.find(kBegin) != std::string::npos; });
    bytes.erase(0, bytes.find(kBegin) + sizeof(kBegin) - 1);
    if (::write(client, kAccepted, sizeof(kAccepted) - 1) < 0) return "";
    readUntil(client, bytes, [&] { return bytes.size() >= 16; });
    const std::size_t whole = 16 + (numberAt(bytes, 12) + 7) / 8 * 8 + numberAt(bytes, 4);
    readUntil(client, bytes, [&] { return bytes.size() >= whole; });
    return bytes;
}

RawClient rawClient() {
    sd_bus* made = nullptr;
    sd_bus_new(&made);
    RawClient client(made);
    const std::string address = "unix:path=" + bus().socketPath(kService);
    if (sd_bus_set_address(made, address.c_str()) < 0 || sd_bus_start(made) < 0)
        throw std::runtime_error("cannot connect");
    while (sd_bus_is_ready(made) == 0)
        if (sd_bus_process(made, nullptr) == 0) sd_bus_wait(made, 1000000);
    return client;
}

bool subscribe(const RawClient& client, const std::string& event) {
    return sd_bus_call_method(client.get(), nullptr, "/", "sdbus.Control", "Subscribe", nullptr, nullptr, "s",
                              event.c_str()) >= 0;
}

}  // namespace test
