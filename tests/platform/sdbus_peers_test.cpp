// Events, and clients that do not keep to the rules.
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <future>
#include <optional>
#include <stdexcept>
#include <vector>

#include "platform/sdbus/sdbus.h"
#include "tests/platform/sdbus_support.h"

using testing::ElementsAre;

namespace test {
namespace {

// What a proxy's callbacks saw, in order.
class Seen : public Heard {
public:
    bool listen(const Proxy& proxy, const std::string& event) {
        return proxy->addEventListener(event,
                                       new SDBusEventCallback([this](const std::shared_ptr<SDBusMessage>& message) {
                                           add(message->eventName() + "=" + message->getString(0).substr(0, 16));
                                       }),
                                       SDBusSameUser);
    }
    bool waitFor(const std::string& text, int limitMs = 5000) {
        return waitUntil([&] { return !all().empty() && all().back() == text; }, limitMs);
    }
};

class PeersTest : public testing::Test {
protected:
    std::string socket() const { return mBus.folder() / "sdbus/" + kService; }

    PrivateBus mBus;
    LogCapture mLog;
    Seen mSeen;
};

using EventTest = PeersTest;
using HostileTest = PeersTest;

bool isClosed(int fd) {
    char buffer[256];
    return waitUntil([&] { return ::recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT) == 0; });
}

// ---- Events ----

TEST_F(EventTest, ReachWhoAskedForThemInOrder) {
    TestService service;
    const auto proxy = proxyTo();
    ASSERT_TRUE(mSeen.listen(proxy, ".sdconfigChanged"));
    ASSERT_TRUE(mSeen.listen(proxy, "B"));
    EXPECT_FALSE(mSeen.listen(proxy, std::string(300, 'x')));
    const RawClient twice = rawClient();
    ASSERT_TRUE(subscribe(twice, "B") && subscribe(twice, "B"));
    EXPECT_TRUE(service.publish("OTHER", "nobody asked"));
    EXPECT_TRUE(service.publish(".sdconfigChanged", "1"));
    EXPECT_TRUE(service.publish("B", "2"));
    const auto event = bus().makeEventMessage(".sdconfigChanged", SDBusSameUser);
    EXPECT_EQ(event->type(), 4);
    EXPECT_TRUE(bus().publishEvent(event)) << "to every service of the process";
    event->appendString("not part of what was published");
    service.publish("B", "fence");
    ASSERT_TRUE(mSeen.waitFor("B=fence"));
    EXPECT_THAT(mSeen.all(), ElementsAre(".sdconfigChanged=1", "B=2", ".sdconfigChanged=", "B=fence"));
    EXPECT_FALSE(service.publish(std::string(300, 'x'), ""));
    uint64_t came = 0;
    EXPECT_TRUE(subscribe(twice, "fence") && sd_bus_get_n_queued_read(twice.get(), &came) >= 0);
    EXPECT_EQ(came, 2U) << "once for both";
    const std::clock_t before = std::clock();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 20) << "who listens sleeps meanwhile";
}

// An event of a name of six letters, with a text that has no end.
std::string endlessEvent(const std::string& name) {
    using namespace std::string_literals;
    return "l\4\1\1\6\0\0\0\2\0\0\0\x3f\0\0\0"s + "\1\1o\0\1\0\0\0/\0\0\0\0\0\0\0"s +
           "\2\1s\0\x0d\0\0\0sdbus.Service\0\0\0"s + "\3\1s\0\6\0\0\0"s + name + "\0\0"s + "\x08\1g\0\1s\0\0"s +
           "\1\0\0\0ab"s;
}

TEST_F(EventTest, ThatCantBeReadAreTold) {
    RawService service([](int client) {
        readFirstMessage(client);
        const std::string answer("l\2\1\1\0\0\0\0\1\0\0\0\x08\0\0\0\5\1u\0\1\0\0\0", 24);
        const std::string sent = answer + endlessEvent("_hex_4") + endlessEvent("EVENT1");
        EXPECT_EQ(::send(client, sent.data(), sent.size(), MSG_NOSIGNAL), static_cast<ssize_t>(sent.size()));
        isClosed(client);
    });
    const auto proxy = proxyTo();
    EXPECT_TRUE(mSeen.listen(proxy, "EVENT1"));
    EXPECT_TRUE(waitUntil([&] { return mLog.has("service unit sent a malformed event", 6); }));
    EXPECT_EQ(mLog.count("service unit sent an event of a malformed name", 6), 1);
}

TEST_F(EventTest, ArriveAgainWhenTheServiceIsBack) {
    const auto proxy = proxyTo();
    std::optional<TestService> service(std::in_place);
    ASSERT_TRUE(mSeen.listen(proxy, "E"));
    for (const char* round : {"1", "2"}) {
        service.emplace();
        EXPECT_TRUE(
            waitUntil([&] { return service->publish("E", round) && mSeen.waitFor(std::string("E=") + round, 20); }));
    }
    EXPECT_EQ(mLog.count("service unit can't be reached: its events are lost until it is back", 6), 2);
    EXPECT_EQ(mLog.count("service unit is back: its events arrive again", 5), 2);
    EXPECT_TRUE(mLog.has("platform/sdbus/event_listener noteLost(", 6));
}

TEST_F(EventTest, MayUseTheirOwnProxyAndDestroyIt) {
    TestService service;
    Proxy proxy = proxyTo();
    std::promise<std::string> answer;
    ASSERT_TRUE(proxy->addEventListener(
        "THROW", new SDBusEventCallback([](auto) { throw std::runtime_error("spilt"); }), SDBusSameUser));
    ASSERT_TRUE(proxy->addEventListener("THROW", new SDBusEventCallback([](auto) { throw 1; }), SDBusSameUser));
    const auto last = [&](const std::shared_ptr<SDBusMessage>&) {
        mSeen.listen(proxy, "MORE");  // does not wait for itself
        const std::string text = call(proxy, "ECHO", "from a callback")->getString(0);
        proxy.reset();
        answer.set_value(text);
    };
    ASSERT_TRUE(proxy->addEventListener("LAST", new SDBusEventCallback(last), SDBusSameUser));
    service.publish("THROW", "");
    service.publish("LAST", "");
    service.publish("LAST", "not seen any more");
    EXPECT_EQ(answer.get_future().get(), "from a callback");
    EXPECT_EQ(mLog.count("threw: spilt", 7), 1);
    EXPECT_EQ(mLog.count("a callback of event THROW threw", 7), 2);
}

TEST_F(EventTest, AreCutOffFromWhoDoesNotRead) {
    TestService service;
    const auto proxy = proxyTo();
    ASSERT_TRUE(mSeen.listen(proxy, "BIG"));
    const RawClient silent = rawClient();
    ASSERT_TRUE(subscribe(silent, "BIG"));
    const std::string mebibyte(std::size_t{1} << 20, '.');
    int cutOffAt = 0;
    for (int i = 10; i < 50; ++i) {
        ASSERT_TRUE(service.publish("BIG", std::to_string(i) + mebibyte));
        ASSERT_TRUE(mSeen.waitFor("BIG=" + std::to_string(i) + std::string(14, '.')));
        if (cutOffAt == 0 && mLog.has("cut off")) cutOffAt = i;
    }
    // What the socket took is there still. Behind that waited what is 16 MiB with one message more; it may show one
    // later.
    int taken = 0;
    ASSERT_EQ(::ioctl(sd_bus_get_fd(silent.get()), FIONREAD, &taken), 0);
    EXPECT_THAT(cutOffAt - 10 - taken / static_cast<int>(mebibyte.size()), testing::AnyOf(15, 16));
    EXPECT_EQ(mSeen.all().size(), 40u);
    EXPECT_EQ(mLog.count("is cut off: it does not read", 6), 1);
}

TEST_F(EventTest, TogetherStayWithinTheBudgetOfAll) {
    TestService service;
    std::vector<RawClient> silent;
    for (int i = 0; i < 6; ++i) {
        silent.push_back(rawClient());
        ASSERT_TRUE(subscribe(silent.back(), "HUGE"));
    }
    ASSERT_TRUE(service.publish("HUGE", std::string(std::size_t{50} << 20, '.')));
    const auto proxy = proxyTo();
    EXPECT_EQ(call(proxy, "ECHO", "behind it")->getString(0), "behind it");
    EXPECT_EQ(mLog.count("too much waits for all clients", 6), 1) << "6 times 50 MiB are 44 MiB too many";
}

// ---- Clients that do not keep to the rules ----

TEST_F(HostileTest, GarbageAndSilenceEndAtTheirSender) {
    TestService service;
    const auto proxy = proxyTo();
    const auto started = std::chrono::steady_clock::now();
    pollfd silent{connectTo(socket()), POLLIN, 0};
    const std::string handshake = std::string("\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n", 29);
    const struct {
        const char* what;
        std::string bytes;
        bool ends = true;
    } cases[] = {
        {"no handshake", "GET / HTTP/1.0\r\n\r\n"},
        {"a line without end", std::string(1, '\0') + std::string(100000, 'A')},
        {"no message", handshake + std::string(64, 'x')},
        {"a message of 3 GiB", handshake + std::string("l\x01\0\x01\0\0\0\xc0\x01\0\0\0\0\0\0\0", 16)},
        // sd-bus passes over a message whose framing holds and whose fields do not.
        {"fields that are none",
         handshake + std::string("l\x01\0\x01\0\0\0\0\x01\0\0\0\x10\0\0\0", 16) + std::string(16, '\xff'), false},
    };
    for (const auto& [what, bytes, ends] : cases) {
        const int fd = connectTo(socket());
        ASSERT_GE(fd, 0);
        EXPECT_GT(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), 0) << what;
        EXPECT_EQ(call(proxy, "ECHO", what)->getString(0), what);
        EXPECT_TRUE(!ends || isClosed(fd)) << what;
        ::close(fd);
    }
    EXPECT_EQ(::poll(&silent, 1, 15000), 1);
    EXPECT_TRUE(isClosed(silent.fd));
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(4900));
    EXPECT_EQ(mLog.count("it did not finish its handshake", 6), 1);
    ::close(silent.fd);
}

TEST_F(HostileTest, HalfOpenHandshakesHoldUpNobody) {
    TestService service;
    const RawClient honest = rawClient();
    std::array<int, 200> silent{};
    for (int& fd : silent) fd = connectTo(socket());
    EXPECT_EQ(call(proxyTo(), "ECHO", "honest")->getString(0), "honest");
    EXPECT_TRUE(isClosed(silent[0])) << "the oldest makes way";
    EXPECT_TRUE(subscribe(honest, "E")) << "but nobody who has finished";
    EXPECT_TRUE(mLog.has("have not finished their handshake", 6));
    EXPECT_LE(mLog.count("is cut off"), 20) << "the log is not flooded";
    for (const int fd : silent) ::close(fd);
}

TEST_F(HostileTest, PingsWithoutEndAreCutOff) {
    TestService service;
    const RawClient client = rawClient();
    int r = 0;
    for (int i = 0; i < 60000 && r >= 0; ++i) {  // sends and never reads; the answers are sd-bus' own
        sd_bus_message* ping = nullptr;
        ASSERT_GE(
            sd_bus_message_new_method_call(client.get(), &ping, nullptr, "/", "org.freedesktop.DBus.Peer", "Ping"), 0);
        uint64_t cookie = 0;
        r = sd_bus_send(client.get(), ping, &cookie);
        sd_bus_message_unref(ping);
        if (r >= 0 && i % 100 == 0) r = sd_bus_flush(client.get());
    }
    EXPECT_TRUE(waitUntil([&] { return mLog.has("it does not read its answers", 6); }));
    EXPECT_EQ(call(proxyTo(), "ECHO", "after it")->getString(0), "after it");
}

// A call of a method with a name of four letters, without arguments.
std::string rawCall(const std::string& method) {
    using namespace std::string_literals;
    return "l\x01\0\x01\0\0\0\0\x01\0\0\0\x1d\0\0\0"s + "\x01\x01o\0\x01\0\0\0/\0\0\0\0\0\0\0"s +
           "\x03\x01s\0\4\0\0\0"s + method + "\0\0\0\0"s;
}

TEST_F(HostileTest, SlowCallsInOnePieceLetOthersInBetween) {
    std::promise<void> waits;
    const auto go = waits.get_future().share();
    Heard handled;
    TestService service([&, go](TestService& self, const std::shared_ptr<SDBusMessage>& call) {
        handled.add(call->methodName());
        if (call->methodName() == "SLOW") {
            go.wait();
            std::this_thread::sleep_for(std::chrono::milliseconds(60));
        }
        return TestService::echo(self, call);
    });
    const RawClient other = rawClient();
    const int fd = connectTo(socket());
    std::string bytes("\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n", 29);
    for (int i = 0; i < 16; ++i) bytes += rawCall("SLOW");
    EXPECT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    ASSERT_TRUE(waitUntil([&] { return !handled.all().empty(); }));
    sd_bus_message* quick = nullptr;
    ASSERT_GE(sd_bus_message_new_method_call(other.get(), &quick, nullptr, "/", "sdbus.Service", "QUICK"), 0);
    EXPECT_GE(sd_bus_send(other.get(), quick, nullptr), 0);
    sd_bus_message_unref(quick);
    EXPECT_GE(sd_bus_flush(other.get()), 0);
    waits.set_value();
    ASSERT_TRUE(waitUntil([&] { return handled.all().size() == 17; }, kLongMs));
    const auto order = handled.all();
    EXPECT_LT(std::find(order.begin(), order.end(), "QUICK") - order.begin(), 4);
    ::close(fd);
}

TEST_F(HostileTest, TooManySubscriptionsAreRefusedAtOnce) {
    TestService service;
    const auto proxy = proxyTo();
    for (int i = 0; i < 1024; ++i) ASSERT_TRUE(mSeen.listen(proxy, "E" + std::to_string(i)));
    const auto started = std::chrono::steady_clock::now();
    for (const char* more : {"1", "2", "3"}) EXPECT_FALSE(mSeen.listen(proxy, more));
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2));
    EXPECT_FALSE(subscribe(rawClient(), std::string(300, 'x')));
}

// A service, and what comes and goes with it, in a process that lives on.
TEST_F(PeersTest, LeaveNoDescriptorBehind) {
    const auto open = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    const auto round = [this] {
        TestService service;
        const auto proxy = proxyTo();
        EXPECT_EQ(call(proxy, "ECHO", "a")->getString(0), "a");
        EXPECT_TRUE(mSeen.listen(proxy, "E"));
        rawClient();
        ::close(connectTo(socket()));
    };
    round();
    const auto before = open();
    for (int i = 0; i < 10; ++i) round();
    EXPECT_TRUE(waitUntil([&] { return open() <= before; })) << open() << " of " << before;
}

TEST_F(PeersTest, AChildThatLivesOnHoldsNoConnection) {
    std::optional<TestService> service(std::in_place);
    const RawClient client = rawClient();
    ASSERT_TRUE(subscribe(client, "E"));
    const pid_t child = ::fork();
    if (child == 0) ::pause();
    service.reset();
    EXPECT_TRUE(isClosed(sd_bus_get_fd(client.get())));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
}

// Accepting goes on when a descriptor is free again, and does not spin until then.
TEST_F(HostileTest, ServiceOutlivesALackOfDescriptors) {
    TestService service;
    Seen seen;  // outlives the proxy, whose thread fills it
    const auto proxy = proxyTo();
    ASSERT_EQ(call(proxy, "ECHO", "before")->getString(0), "before");
    const int waiting = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);  // the lowest number that was free
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{static_cast<rlim_t>(waiting + 1), before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    ASSERT_TRUE(connectSocket(waiting, socket()));
    EXPECT_TRUE(waitUntil([&] { return mLog.has("takes no new clients for now", 7); }));
    EXPECT_EQ(call(proxy, "ECHO", "meanwhile")->getString(0), "meanwhile");
    EXPECT_LE(mLog.count("takes no new clients for now"), 2);
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_TRUE(seen.listen(proxy, "E") || waitUntil([&] { return service.publish("E", "x") && !seen.all().empty(); }));
    ::close(waiting);
}

}  // namespace
}  // namespace test
