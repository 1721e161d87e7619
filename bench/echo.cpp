#include "bench/echo.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>
#include <utility>

#include "platform/sdbus/sdbus.h"

namespace bench {

namespace {

constexpr char kName[] = "bench.echo";  // of the service, its interface
constexpr char kPath[] = "/bench/echo";
constexpr char kMember[] = "ECHO";
constexpr int kTimeoutMs = 10'000;

struct UnrefBus {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, UnrefBus>;

constexpr char kReady = 'r';
constexpr char kImpossible = 'i';

int listenAt(const std::string& path, int type) {
    const int fd = ::socket(AF_UNIX, type, 0);
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    require(fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, path.c_str());
    require(type == SOCK_DGRAM || ::listen(fd, SOMAXCONN) == 0, "listen");
    return fd;
}

// ---- The kernel alone ----

void writeWhole(int socket, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = ::write(socket, text.data() + done, text.size() - done);
        require(count > 0, "write");
        done += static_cast<std::size_t>(count);
    }
}

// Fills `text`. False where the other side closed.
bool readWhole(int socket, std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = ::read(socket, text.data() + done, text.size() - done);
        if (count <= 0) return false;
        done += static_cast<std::size_t>(count);
    }
    return true;
}

class RawCaller : public Caller {
public:
    explicit RawCaller(int socket) : mSocket(socket) {}
    ~RawCaller() override { ::close(mSocket); }
    RawCaller(const RawCaller&) = delete;
    RawCaller& operator=(const RawCaller&) = delete;

    void call(const std::string& text) override {
        mAnswer.resize(text.size());
        writeWhole(mSocket, text);
        require(readWhole(mSocket, mAnswer), "read");
        require(mAnswer == text, "the answer of the raw socket");
    }

private:
    const int mSocket;
    std::string mAnswer;
};

// ---- The bus layer ----

class EchoService : public SDBusServiceInterface {
public:
    bool handleMethodCall(std::shared_ptr<SDBusMessage> call) override {
        const auto reply = makeMethodReplyMessage(call, SDBusSameUser);
        reply->appendString(call->getString(0));
        return sendMessage(reply);
    }
};

class LayerCaller : public Caller {
public:
    explicit LayerCaller(const std::string& service)
        : mProxy(SDBusSerivceManager::initSync(-1)->getServiceProxyInterface(service, SDBusSameUser, 1)) {}

    void call(const std::string& text) override {
        const auto call = mProxy->makeMethodCallMessage(kMember);
        call->appendString(text);
        require(mProxy->callWithReplyBlocking(call, kTimeoutMs)->getString(0) == text, "the bus layer's answer");
    }

private:
    const std::shared_ptr<SDBusProxyInterface> mProxy;
};

// ---- sd-bus ----

class SdBusCaller : public Caller {
public:
    explicit SdBusCaller(Bus bus) : mBus(std::move(bus)) {}

    void call(const std::string& text) override {
        sd_bus_message* answer = nullptr;
        const char* came = nullptr;
        require(sd_bus_call_method(mBus.get(), kName, kPath, kName, kMember, nullptr, &answer, "s", text.c_str()) >= 0,
                "sd_bus_call_method");
        require(sd_bus_message_read(answer, "s", &came) > 0 && text == came, "the answer of sd-bus");
        sd_bus_message_unref(answer);
    }

private:
    const Bus mBus;
};

int answer(sd_bus_message* call, void*, sd_bus_error*) {
    const char* text = nullptr;
    if (sd_bus_message_is_method_call(call, kName, kMember) <= 0) return 0;
    require(sd_bus_message_read(call, "s", &text) > 0, "sd_bus_message_read");
    return sd_bus_reply_method_return(call, "s", text) < 0 ? 0 : 1;
}

int acceptPeer(sd_event_source*, int listener, uint32_t, void* event) {
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    sd_bus* bus = nullptr;  // goes when its client leaves
    require(fd >= 0 && sd_bus_new(&bus) >= 0 && sd_bus_set_fd(bus, fd, fd) >= 0 && sd_bus_set_server(bus, 1, {}) >= 0 &&
                sd_bus_add_filter(bus, nullptr, answer, nullptr) >= 0 && sd_bus_start(bus) >= 0 &&
                sd_bus_attach_event(bus, static_cast<sd_event*>(event), 0) >= 0,
            "sd-bus as a server");
    return 0;
}

void serveSdBus(int listener) {
    sd_event* event = nullptr;
    require(sd_event_new(&event) >= 0 && sd_event_add_io(event, nullptr, listener, EPOLLIN, acceptPeer, event) >= 0,
            "sd_event");
    (void)sd_event_loop(event);
}

std::unique_ptr<Caller> connectTo(const std::string& address, bool throughBroker) {
    sd_bus* bus = nullptr;
    require(sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, address.c_str()) >= 0 &&
                sd_bus_set_bus_client(bus, throughBroker ? 1 : 0) >= 0 && sd_bus_start(bus) >= 0,
            "sd-bus as a client");
    return std::make_unique<SdBusCaller>(Bus(bus));
}

// ---- Brokers ----

void serveThroughBroker(const std::string& address, int ready) {
    sd_bus* bus = nullptr;
    require(sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, address.c_str()) >= 0 &&
                sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_add_filter(bus, nullptr, answer, nullptr) >= 0 &&
                sd_bus_start(bus) >= 0 && sd_bus_request_name(bus, kName, 0) >= 0,
            "a service behind a broker");
    tellReady(ready);
    for (;;) {
        const int result = sd_bus_process(bus, nullptr);
        if (result < 0) return;
        if (result == 0) (void)sd_bus_wait(bus, UINT64_MAX);
    }
}

std::string writeBrokerConfig(const Workplace& place, const std::string& socket) {
    std::string path = place.path("broker.conf");
    std::ofstream(path) << brokerConfig(socket);
    return path;
}

bool accepts(const std::string& path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const bool accepted = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return accepted;
}

Echo behindBroker(const char* name, Process broker, const std::string& socket, const Cpus& cpus) {
    const OnCpu onCpu(cpus.server);
    const std::string address = "unix:path=" + socket;
    for (int i = 0; i < 500 && !accepts(socket); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    Echo echo{name, {}, [address] { return connectTo(address, true); }};
    echo.servers.push_back(std::move(broker));
    echo.servers.push_back(Process::fork([&](int ready, int) { serveThroughBroker(address, ready); }));
    return echo;
}

// dbus-broker's launcher wants to speak to the journal. Where none runs, an empty socket stands there, in a mount
// namespace of this process alone.
bool haveJournal() {
    if (::access("/run/systemd/journal/socket", F_OK) == 0) return true;
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0)
        return false;
    ::mkdir("/run/systemd", 0755);
    ::mkdir("/run/systemd/journal", 0755);
    // Away from the descriptors that a service manager would hand over.
    return ::fcntl(listenAt("/run/systemd/journal/socket", SOCK_DGRAM), F_DUPFD, 64) >= 64;
}

// Takes the listening socket as a service manager would hand it over.
void runDBusBroker(const std::string& config, const std::string& socket) {
    const int listener = listenAt(socket, SOCK_STREAM);
    require(listener == 3 || ::dup2(listener, 3) == 3, "dup2");
    ::setenv("LISTEN_FDS", "1", 1);
    ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
    ::setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + socket).c_str(), 1);
    ::execlp("dbus-broker-launch", "dbus-broker-launch", "--scope", "user", "--config-file", config.c_str(), nullptr);
}

}  // namespace

Echo rawSocket(std::size_t size, const Cpus& cpus) {
    const OnCpu onCpu(cpus.server);
    std::array<int, 2> sockets{};
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()) == 0, "socketpair");
    Echo echo{"raw Unix socket", {}, [client = sockets[0]] { return std::make_unique<RawCaller>(client); }};
    echo.servers.push_back(Process::fork([&](int ready, int) {
        ::close(sockets[0]);
        tellReady(ready);
        std::string text(size, '\0');
        while (readWhole(sockets[1], text)) writeWhole(sockets[1], text);
    }));
    ::close(sockets[1]);
    return echo;
}

Echo busLayer(const Cpus& cpus, const std::string& service) {
    const OnCpu onCpu(cpus.server);
    Echo echo{"bus layer", {}, [service] { return std::make_unique<LayerCaller>(service); }};
    echo.servers.push_back(Process::fork([&](int ready, int end) {
        EchoService echoes;
        require(SDBusSerivceManager::initSync(-1)->registerServiceInterface(service, &echoes, SDBusSameUser, 1),
                "registerServiceInterface");
        tellReady(ready);
        waitForEnd(end);
    }));
    return echo;
}

std::unique_ptr<Caller> connectSdBus(const std::string& path) {
    return connectTo("unix:path=" + path, false);
}

Echo bareSdBus(const Workplace& place, const Cpus& cpus) {
    const OnCpu onCpu(cpus.server);
    const std::string path = place.path("bare");
    ::unlink(path.c_str());
    Echo echo{"bare sd-bus", {}, [path] { return connectSdBus(path); }};
    echo.servers.push_back(Process::fork([&](int ready, int) {
        const int listener = listenAt(path, SOCK_STREAM);
        tellReady(ready);
        serveSdBus(listener);
    }));
    return echo;
}

std::optional<Echo> throughDBusDaemon(const Workplace& place, const Cpus& cpus) {
    constexpr char kPeer[] = "through dbus-daemon";
    if (!isInstalled("dbus-daemon")) return std::nullopt;
    const std::string socket = place.path("dbus-daemon");
    ::unlink(socket.c_str());
    const std::string config = writeBrokerConfig(place, socket);
    const OnCpu onCpu(cpus.broker);
    Process broker = Process::start({"dbus-daemon", "--nofork", "--config-file=" + config});
    return behindBroker(kPeer, std::move(broker), socket, cpus);
}

std::optional<Echo> throughDBusBroker(const Workplace& place, const Cpus& cpus) {
    constexpr char kPeer[] = "through dbus-broker";
    if (!isInstalled("dbus-broker-launch")) return std::nullopt;
    const std::string socket = place.path("dbus-broker");
    ::unlink(socket.c_str());
    const std::string config = writeBrokerConfig(place, place.path("unused"));
    char said = kImpossible;
    const OnCpu onCpu(cpus.broker);
    Process broker = Process::fork(
        [&](int ready, int) {
            const bool journal = haveJournal();
            tellReady(ready, journal ? kReady : kImpossible);
            if (journal) runDBusBroker(config, socket);
        },
        &said);
    if (said == kImpossible) {
        std::printf("left out: dbus-broker: no journal runs here, and nothing can stand in for it without root\n");
        return std::nullopt;
    }
    return behindBroker(kPeer, std::move(broker), socket, cpus);
}

}  // namespace bench
