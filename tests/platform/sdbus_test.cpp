// Calls, what they carry, and who may serve a name.
#include "platform/sdbus/sdbus.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/sdbus/fork.h"
#include "tests/platform/sdbus_support.h"
#include "tests/support/scarce_memory.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::HasSubstr;

namespace test {
namespace {

class BusTest : public testing::Test {
protected:
    std::string folder() const { return mBus.folder() / "sdbus"; }
    std::string socket() const { return folder() + "/" + kService; }
    std::string lock() const { return socket() + ".lock"; }

    PrivateBus mBus;
    LogCapture mLog;
};

using CallTest = BusTest;
using RegistrationTest = BusTest;

// ---- What a message carries ----

TEST_F(CallTest, CarriesEveryArgumentBothWays) {
    TestService service([](TestService& self, const std::shared_ptr<SDBusMessage>& message) {
        const auto reply = self.makeMethodReplyMessage(message, SDBusSameUser);
        reply->appendInt8(static_cast<int8_t>(message->getInt(0)));
        reply->appendInt32(message->getInt32(1));
        reply->appendBool(message->getBool(2));
        reply->appendCString(message->getString(3).c_str());
        reply->appendCString(nullptr);
        return self.sendMessage(reply);
    });
    const auto proxy = proxyTo();
    const auto message = proxy->makeMethodCallMessage("GET_PROPERTY");
    message->appendInt8(-128);
    message->appendInt32(INT32_MIN);
    message->appendBool(true);
    message->appendCString("gr\xc3\xbc\xc3\x9f");
    EXPECT_EQ(message->type(), 1);
    const auto reply = proxy->callWithReplyBlocking(message, kLongMs);
    ASSERT_EQ(reply->type(), 2);
    EXPECT_EQ(reply->signature(), "yibss");
    EXPECT_EQ(reply->getErrorType(), SDBusNoError);
    EXPECT_EQ(reply->getInt(0), -128);
    EXPECT_EQ(reply->getInt32(1), INT32_MIN);
    EXPECT_TRUE(reply->getBool(2));
    EXPECT_EQ(reply->getString(3), "gr\xc3\xbc\xc3\x9f");
    EXPECT_EQ(reply->getString(4), "");
    EXPECT_TRUE(mLog.lines().empty() || !mLog.has("argument")) << "nothing of that was a misread";

    // An absent position is read quietly, one of another kind with a line that does not tell what stands there.
    EXPECT_EQ(reply->getString(5) + reply->getString(-1), "");
    EXPECT_EQ(reply->getInt(99), 0);
    EXPECT_FALSE(mLog.has("argument"));
    EXPECT_EQ(reply->getInt(3), 0);
    EXPECT_EQ(reply->getInt32(0), 0);
    EXPECT_FALSE(reply->getBool(1));
    EXPECT_EQ(reply->getString(2), "");
    EXPECT_EQ(mLog.count("argument", 6), 4);
    EXPECT_FALSE(mLog.has("gr\xc3\xbc"));
}

TEST_F(CallTest, CarriesEveryByteString) {
    TestService service;
    const auto proxy = proxyTo();
    // Among them cut off characters, an overlong one, a surrogate, one beyond Unicode, noncharacters, and the last ones
    // there are.
    std::vector<std::string> texts{"",
                                   "\xff\xfe",
                                   "abc\xe2\x82",
                                   "\xc0\xaf",
                                   "\xed\xa0\x80",
                                   "\xf4\x90\x80\x80",
                                   "\xef\xb7\x90",
                                   "\xef\xb7\xaf",
                                   "\xef\xbf\xbe\xf4\x8f\xbf\xbd"};
    for (const char byte : {'x', '\0'})
        texts.insert(texts.end(), {{'a', byte, 'b'}, std::string(std::size_t{16} << 20, byte)});
    for (const std::string& text : texts) {
        const auto reply = call(proxy, "ECHO", text);
        EXPECT_EQ(reply->getErrorType(), SDBusNoError);
        EXPECT_TRUE(reply->getString(0) == text) << text.substr(0, 16);
    }
}

TEST_F(CallTest, CarriesMoreArgumentsThanASignatureHasRoomFor) {
    TestService service([](TestService& self, const std::shared_ptr<SDBusMessage>& message) {
        const auto reply = self.makeMethodReplyMessage(message, SDBusSameUser);
        for (int i = 0; i < message->getInt32(0); ++i) {
            reply->appendString(i % 3 == 0 ? "\xff" + std::to_string(i) : std::to_string(i));
            reply->appendInt8(static_cast<int8_t>(i));
            reply->appendBool(i % 2 == 0);
        }
        return self.sendMessage(reply);
    });
    const auto proxy = proxyTo();
    for (const int triples : {63, 64, 85, 86, 5000}) {  // both sides of 255 letters, with and without byte strings
        const auto message = proxy->makeMethodCallMessage("LIST");
        message->appendInt32(triples);
        const auto reply = proxy->callWithReplyBlocking(message, kLongMs);
        const int last = triples - 1;
        ASSERT_EQ(reply->type(), 2) << triples;
        EXPECT_EQ(reply->getString(0).size(), 2U);
        EXPECT_THAT(reply->getString(last * 3), HasSubstr(std::to_string(last)));
        EXPECT_EQ(reply->getInt(last * 3 + 1), static_cast<int8_t>(last));
        EXPECT_EQ(reply->getBool(last * 3 + 2), last % 2 == 0);
        EXPECT_EQ(reply->getString(last * 3 + 3), "");
    }
}

TEST_F(CallTest, KeepsNamesApart) {
    TestService service([](TestService& self, const std::shared_ptr<SDBusMessage>& message) {
        return self.reply(message, message->methodName());
    });
    const auto proxy = proxyTo();
    const std::string names[] = {
        "GET_PROPERTY",        ".sdconfigChanged",   "", "_hex_", "_hex_41", "A-b", "1st", std::string("a\0b", 3),
        std::string(255, 'a'), std::string(125, '.')};
    for (const std::string& name : names) {
        const auto reply = call(proxy, name);
        EXPECT_EQ(reply->type(), 2) << name;
        EXPECT_EQ(reply->getString(0), name);
    }
    for (const std::string& name : {std::string(256, 'a'), std::string(126, '.')})
        EXPECT_EQ(call(proxy, name)->getErrorType(), SDBusNotSent) << name.size();
}

// ---- How a call ends ----

TEST_F(CallTest, TellsWhyThereIsNoAnswer) {
    const auto proxy = proxyTo();
    const std::string tooMuch((std::size_t{64} << 20) + 1, '\0');
    const auto started = std::chrono::steady_clock::now();
    auto answer = call(proxy, "ECHO");
    EXPECT_EQ(answer->type(), 3);
    EXPECT_EQ(answer->getErrorType(), SDBusUnreachable);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s) << "nobody is there: no reason to wait";
    EXPECT_EQ(proxy->callWithReplyBlocking(nullptr, 1000)->getErrorType(), SDBusNotSent);
    {
        TestService service([&](TestService& self, const std::shared_ptr<SDBusMessage>& message) {
            if (message->methodName() == "THROW") throw std::runtime_error("spilt");
            if (message->methodName() == "HUGE") return self.reply(message, tooMuch);
            return message->methodName() == "ECHO" && TestService::echo(self, message);
        });
        EXPECT_EQ(call(proxy, "REFUSED", "", 50)->getErrorType(), SDBusTimeout);
        EXPECT_EQ(call(proxy, "THROW", "", 50)->getErrorType(), SDBusTimeout);
        EXPECT_EQ(call(proxy, "HUGE", "", 50)->getErrorType(), SDBusTimeout);
        EXPECT_EQ(call(proxy, "ECHO", "on it goes")->getString(0), "on it goes");
        EXPECT_EQ(mLog.count("THROW threw: spilt", 7), 1);
        EXPECT_EQ(mLog.count("a reply can't be sent: its size is beyond what a message takes", 7), 1);
        EXPECT_EQ(call(proxy, "ECHO", tooMuch)->getErrorType(), SDBusNotSent);
    }
    EXPECT_EQ(call(proxy, "ECHO")->getErrorType(), SDBusUnreachable) << "it has ended";
}

TEST_F(CallTest, GoesWithOthersAndEachHasAnAnswer) {
    const auto proxy = proxyTo();
    const auto together = [&](const std::vector<std::string>& methods, int timeoutMs) {
        std::vector<std::shared_ptr<SDBusMessage>> calls;
        for (const std::string& method : methods) {
            calls.push_back(proxy->makeMethodCallMessage(method));
            calls.back()->appendString(method);
        }
        std::string answers;
        for (const auto& answer : proxy->callsWithRepliesBlocking(calls, timeoutMs))
            answers += answer->type() == 2 ? answer->getString(0) : std::to_string(answer->getErrorType());
        return answers;
    };
    for (int service = 0; service < 2; ++service) {  // over an idle connection of the first one, too
        std::vector<std::shared_ptr<SDBusMessage>> held;
        TestService reversing([&](TestService& self, const std::shared_ptr<SDBusMessage>& message) {
            held.push_back(message);
            for (; message->methodName() == "c" && !held.empty(); held.pop_back()) TestService::echo(self, held.back());
            return true;
        });
        EXPECT_EQ(together({"a", std::string(300, '.'), "b", "c"}, kLongMs), "a5bc");
        EXPECT_EQ(together({"c", "d"}, 2000), "c1");
        EXPECT_EQ(together({"c"}, kLongMs), "c");
    }
    RawService silent([](int client) { readFirstMessage(client); });
    EXPECT_EQ(together({"a", "b"}, kLongMs), "33");
    EXPECT_EQ(silent.clients(), 1) << "they were sent once and are lost with their service";
}

TEST_F(CallTest, IsNotBrokenOffBySignals) {
    static std::atomic<int> sSignals{0};
    TestService service([](TestService& self, const std::shared_ptr<SDBusMessage>& message) {
        return waitUntil([] { return sSignals > 20; }) && TestService::echo(self, message);
    });
    const auto proxy = proxyTo();
    struct sigaction action {};
    action.sa_handler = [](int) { ++sSignals; };  // without SA_RESTART
    ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);
    const pthread_t caller = ::pthread_self();
    std::atomic<bool> over{false};
    std::thread interrupter([&] { waitUntil([&] { return over || ::pthread_kill(caller, SIGUSR1) != 0; }); });
    EXPECT_EQ(call(proxy, "ECHO", "whole")->getString(0), "whole");
    over = true;
    interrupter.join();
}

TEST_F(CallTest, SaysOnTheWireWhatADebuggerWouldExpect) {
    // Answers with a text that has no end.
    const std::string answer(
        "l\x02\x01\x01\x06\0\0\0\x01\0\0\0\x0f\0\0\0\x05\x01u\0\x01\0\0\0\x08\x01g\0\x01s\0\0\x01\0\0\0ab", 38);
    std::promise<std::string> sent;
    RawService service([&](int client) {
        sent.set_value(readFirstMessage(client));
        EXPECT_EQ(::send(client, answer.data(), answer.size(), MSG_NOSIGNAL), static_cast<ssize_t>(answer.size()));
    });
    const auto proxy = proxyTo();
    EXPECT_TRUE(bus().isServiceRegistered(kService));
    const auto message = proxy->makeMethodCallMessage(".get");
    message->appendInt8(-1);
    message->appendInt32(7);
    message->appendBool(true);
    message->appendString("ab");
    message->appendString("\xff");
    EXPECT_EQ(proxy->callWithReplyBlocking(message, kLongMs)->getErrorType(), SDBusPeerLost);
    // Little endian, a call, version 1; the lengths of body and header with the serial between; then path, member,
    // interface and signature, each at a multiple of 8; then the arguments, each at its own alignment.
    const std::string expected = std::string("l\x01\0\x01\x19\0\0\0\x01\0\0\0\x4c\0\0\0", 16) +
                                 std::string("\x01\x01o\0\x01\0\0\0/\0\0\0\0\0\0\0", 16) +
                                 std::string("\x03\x01s\0\x0d\0\0\0_hex_2e676574\0\0\0", 24) +
                                 std::string("\x02\x01s\0\x0d\0\0\0sdbus.Service\0\0\0", 24) +
                                 std::string("\x08\x01g\0\x06yibsay\0\0\0\0\0", 16) +
                                 std::string("\xff\0\0\0\x07\0\0\0\x01\0\0\0\x02\0\0\0ab\0\0\x01\0\0\0\xff", 25);
    EXPECT_EQ(sent.get_future().get(), expected);
    EXPECT_EQ(service.clients(), 1) << "it was sent once, over the connection that showed that the service is there";
    EXPECT_EQ(mLog.count("service unit answered with a malformed message", 7), 1);
}

TEST_F(CallTest, HoldsUpNoOtherThread) {
    std::promise<std::shared_ptr<SDBusMessage>> held;
    TestService service([&](TestService& self, const std::shared_ptr<SDBusMessage>& message) {
        if (message->methodName() != "HOLD") return TestService::echo(self, message);
        held.set_value(message);
        return true;
    });
    const auto proxy = proxyTo();
    auto slow = std::async(std::launch::async, [&] { return call(proxy, "HOLD", "slow"); });
    auto call1 = held.get_future().get();
    EXPECT_EQ(call(proxy, "ECHO", "quick")->getString(0), "quick");
    // Answered from another thread than the handler's, and once only.
    EXPECT_TRUE(TestService::echo(service, call1));
    EXPECT_EQ(slow.get()->getString(0), "slow");
    EXPECT_FALSE(TestService::echo(service, call1));

    std::array<std::future<int>, 8> threads;
    for (std::size_t i = 0; i < threads.size(); ++i)
        threads[i] = std::async(std::launch::async, [&proxy, i] {
            int right = 0;
            for (int n = 0; n < 100; ++n) {
                const std::string text = std::to_string(i) + "." + std::to_string(n);
                right += call(proxy, "ECHO", text)->getString(0) == text;
                for (int look = 0; look < 200; ++look) right += bus().isServiceRegistered(kService);  // idle ones serve
            }
            return right;
        });
    for (auto& thread : threads) EXPECT_EQ(thread.get(), 20100);
}

TEST_F(CallTest, TellsWhoMadeIt) {
    Heard callers;
    std::promise<std::shared_ptr<SDBusMessage>> refused;
    TestService service([&](TestService& self, const std::shared_ptr<SDBusMessage>& message) {
        SDBusPeer peer{};
        if (message->methodName() == "SHORT") {
            refused.set_value(message);
            throw std::bad_alloc();
        }
        const bool known = SDBusMessage::peerOf(*message, peer) && peer.user == ::geteuid() && peer.admittedNs > 0;
        callers.add(known ? std::to_string(peer.process) : "unknown");
        return self.reply(message, std::to_string(peer.connection));
    });
    const auto proxy = proxyTo();
    const std::string connection = call(proxy, "A")->getString(0);
    EXPECT_EQ(call(proxy, "SHORT")->getErrorType(), SDBusErrorReply);
    EXPECT_EQ(mLog.count("the handler of SHORT was short of memory", 7), 1);
    EXPECT_FALSE(service.reply(refused.get_future().get(), "")) << "it has its answer";
    EXPECT_EQ(call(proxy, "A")->getString(0), connection);
    EXPECT_TRUE(inChild([&] { return call(proxy, "A")->getString(0) != connection; }));
    const std::string self = std::to_string(::getpid());
    EXPECT_THAT(callers.all(), testing::ElementsAre(self, self, testing::Not(testing::AnyOf(self, "0", "unknown"))));
    SDBusPeer peer{};
    EXPECT_FALSE(SDBusMessage::peerOf(*proxy->makeMethodCallMessage("A"), peer)) << "it came from nobody";
}

TEST_F(CallTest, WorksInAForkedChildAndAfterIt) {
    TestService service;
    const auto proxy = proxyTo();
    const auto listen = [&] { return proxy->addEventListener("E", new SDBusEventCallback({}), SDBusSameUser); };
    ASSERT_EQ(call(proxy, "ECHO", "a")->getString(0), "a");
    ASSERT_TRUE(listen());
    const bool held = inChild([&] {
        TestService unnamed(TestService::echo, "");
        const bool works = bus().registrationFailure("") == "a service can't be named so" &&
                           call(proxy, "ECHO", "child")->getString(0) == "child" && listen();
        const bool servesNothing = !service.publish("EVENT", "") && !bus().registrationFailure(kService).empty();
        bus().unregisterServiceInterface(kService);
        return works && servesNothing && fs::exists(socket());
    });
    EXPECT_TRUE(held);
    EXPECT_EQ(call(proxy, "ECHO", "b")->getString(0), "b");
}

TEST(ClosedInChildTest, ANumberThatIsUsedAgainKeepsItsNoteWhenTheOldOneGoes) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    auto old = std::make_unique<sdbus::ClosedInChild>(ends[0]);
    ::close(ends[0]);  // as sd-bus does in the middle of its work
    const int again = ::dup(ends[1]);
    ASSERT_EQ(again, ends[0]);
    const sdbus::ClosedInChild note(again);
    old.reset();
    EXPECT_TRUE(inChild([again] { return ::fcntl(again, F_GETFD) < 0; })) << "the child keeps its parent's socket";
    EXPECT_GE(::fcntl(again, F_GETFD), 0);
    for (const int end : ends) ::close(end);
}

TEST_F(CallTest, TakesWhatOtherClientsSend) {
    Heard seen;
    Heard refused;
    const auto echo = [&](TestService& self, const std::shared_ptr<SDBusMessage>& message) {
        seen.add(message->getString(0) + message->getString(1) + message->getString(2));
        return TestService::echo(self, message);
    };
    TestService service(echo, kService, [&](const SDBusRefusal& refusal) {
        const bool isOurs = refusal.peer.process == ::getpid() && refusal.untold == 0;
        refused.add(isOurs ? refusal.reason : "of another one");
        throw 1;
    });
    const RawClient client = rawClient();
    const auto answers = [&](const char* method, const char* types, auto... values) {
        return sd_bus_call_method(client.get(), "x.y", "/any", "a.b", method, nullptr, nullptr, types, values...) >= 0;
    };
    // What is no string, number or boolean takes a position and has no value.
    EXPECT_TRUE(answers("M", "sds", "v", 1.5, "w") && answers("M", "avs", 2, "s", "p", "ad", 1, 1.0, "q"));
    EXPECT_TRUE(answers("M", "sass", "x", 1, "", "y"));
    EXPECT_THAT(seen.all(), testing::ElementsAre("vw", "pq", "xy"));
    EXPECT_FALSE(answers("_hex_41", ""));
    EXPECT_TRUE(mLog.has("the method's name is malformed", 6));
    EXPECT_EQ(mLog.count("the observer of refusals threw", 7), 1);
    for (int i = 0; i < 40; ++i) EXPECT_FALSE(answers("_hex_41", ""));
    EXPECT_THAT(refused.all(), testing::Each("the method's name is malformed"));
    EXPECT_THAT(refused.all(), testing::SizeIs(testing::AllOf(testing::Ge(20U), testing::Lt(41U)))) << "of a flood";
    EXPECT_EQ(sd_bus_can_send(client.get(), SD_BUS_TYPE_UNIX_FD), 0) << "it would hold them";
    // A debugging tool takes it for a message bus and asks for a name first.
    sd_bus_message* hello = nullptr;
    const char* name = "";
    constexpr char kDBus[] = "org.freedesktop.DBus";
    sd_bus_call_method(client.get(), kDBus, "/org/freedesktop/DBus", kDBus, "Hello", nullptr, &hello, nullptr);
    EXPECT_TRUE(hello && sd_bus_message_read(hello, "s", &name) > 0 && name[0] == ':') << name;
    sd_bus_message_unref(hello);
}

TEST_F(CallTest, ACrowdAtTheDoorIsNoAbsence) {
    const int listener = listenAt(socket());
    ASSERT_EQ(::listen(listener, 0), 0);
    const int crowd = connectTo(socket());  // there is room for one
    EXPECT_TRUE(bus().isServiceRegistered(kService));
    EXPECT_EQ(call(proxyTo(), "ECHO", "", 50)->getErrorType(), SDBusTimeout);
    for (const int end : {crowd, listener}) ::close(end);
}

// ---- Who may serve ----

TEST_F(RegistrationTest, NamesTheOwnerOfATakenName) {
    Process owner = startService();
    EXPECT_TRUE(bus().isServiceRegistered(kService));
    const std::string why = "service unit is already served by process " + std::to_string(owner.pid());
    {
        TestService second;
        EXPECT_FALSE(second.isRegistered());
        EXPECT_FALSE(second.publish("EVENT", ""));
        EXPECT_EQ(bus().registrationFailure(kService), why);
        EXPECT_EQ(mLog.count(why, 7), 1);
    }
    EXPECT_EQ(call(proxyTo(), "ECHO", "first")->getString(0), "first") << "the owner is not disturbed";
    owner.stop();
    EXPECT_FALSE(bus().isServiceRegistered(kService));

    TestService now;
    EXPECT_EQ(bus().registrationFailure(kService), "");
    EXPECT_EQ(bus().serviceProcess(kService), ::getpid());
    EXPECT_EQ(readFile(lock()), std::to_string(::getpid()) + "\n");
    EXPECT_EQ(fs::status(folder()).permissions(), fs::perms::owner_all);
    EXPECT_EQ(fs::status(socket()).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    TestService twice;
    EXPECT_FALSE(twice.isRegistered());
    EXPECT_FALSE(bus().registerServiceInterface("other", &now, SDBusSameUser, 1));
    EXPECT_EQ(bus().registrationFailure("other"), "the interface serves another name");
}

TEST_F(RegistrationTest, TouchesNothingThatIsNotItsOwn) {
    const auto registers = [](const std::string& why) {
        TestService service;
        const std::string failure = bus().registrationFailure(kService);
        if (service.isRegistered() || failure.find(why) == std::string::npos) ADD_FAILURE() << why << ": " << failure;
    };
    const std::string elsewhere = mBus.folder() / "elsewhere";
    writeFile(elsewhere, "kept");
    fs::create_directory_symlink(mBus.folder().path(), folder());
    registers("cannot open the folder");
    EXPECT_EQ(bus().socketPath(kService), "");
    fs::remove(folder());
    fs::create_directory(folder());
    fs::permissions(folder(), fs::perms::owner_all | fs::perms::group_read);
    registers("open to others");
    fs::permissions(folder(), fs::perms::owner_all);
    EXPECT_EQ(bus().socketPath(kService), socket());
    fs::create_symlink(elsewhere, lock());
    registers("cannot lock");
    fs::remove(lock());
    writeFile(lock(), "1\n");
    EXPECT_EQ(bus().serviceProcess(kService), 0) << "it is what a dead one left";
    fs::remove(lock());
    ASSERT_EQ(::mkfifo(lock().c_str(), 0600), 0);
    registers("no regular file");
    fs::remove(lock());
    writeFile(socket(), "in the way");
    registers("no socket");
    fs::remove(socket());
    const int listener = listenAt(socket());  // as systemd would hold it: without the lock
    registers("somebody listens");
    EXPECT_TRUE(fs::is_socket(socket()));
    ::close(listener);
    EXPECT_EQ(readFile(elsewhere), "kept");
    TestService service;
    EXPECT_TRUE(service.isRegistered()) << "what the dead one left is replaced";

    for (const char* name : {"", ".hidden", "a/b", "a b"}) {
        TestService bad(TestService::echo, name);
        EXPECT_FALSE(bad.isRegistered()) << name;
        EXPECT_FALSE(proxyTo(name)) << name;
    }
    EXPECT_FALSE(proxyTo(std::string(65, 'a')));
    EXPECT_TRUE(TestService(TestService::echo, "Az.09_-").isRegistered());
    fs::permissions(mBus.folder().path(), fs::perms::all);
    TestService open(TestService::echo, "other");
    EXPECT_THAT(bus().registrationFailure("other"), HasSubstr("others may write"));
    for (const char* runtime : {"", static_cast<const char*>(nullptr)}) {
        const ScopedEnv environment("XDG_RUNTIME_DIR", runtime);
        EXPECT_EQ(bus().socketPath("x"), "/tmp/sdbus-" + std::to_string(::geteuid()) + "/x");
    }
    {
        const ScopedEnv environment("XDG_RUNTIME_DIR", "/proc/self");
        TestService nowhere(TestService::echo, "nowhere");
        EXPECT_THAT(bus().registrationFailure("nowhere"), HasSubstr("cannot create the folder /proc/self/sdbus"));
    }
    const std::string deep = mBus.folder() / std::string(100, 'd');
    fs::create_directory(deep);
    const ScopedEnv environment("XDG_RUNTIME_DIR", deep.c_str());
    TestService far(TestService::echo, "far");
    EXPECT_THAT(bus().registrationFailure("far"), HasSubstr("longer than 107 bytes"));
}

TEST_F(RegistrationTest, TakesOverASocketOfSystemd) {
    Process process = startService({{"TEST_LISTEN_AT", socket()}});
    EXPECT_EQ(call(proxyTo(), "ECHO", "activated")->getString(0), "activated");
    EXPECT_EQ(bus().serviceProcess(kService), process.pid());
    EXPECT_EQ(process.stop(), 0);
    EXPECT_TRUE(fs::exists(socket())) << "it stays systemd's";
    EXPECT_FALSE(fs::exists(lock()));
    const ScopedEnv process1("LISTEN_PID", std::to_string(::getpid()).c_str());
    const ScopedEnv count("LISTEN_FDS", "1"), names("LISTEN_FDNAMES", kService);
    TestService mistaken;
    EXPECT_THAT(bus().registrationFailure(kService), HasSubstr("is no listening Unix stream socket"));
}

TEST_F(RegistrationTest, WritesWhatIsQueuedBeforeItEnds) {
    const std::string large(std::size_t{8} << 20, 'x');
    std::promise<void> handled;
    TestService service([&](TestService& self, const std::shared_ptr<SDBusMessage>& message) {
        const bool sent = self.reply(message, large);
        handled.set_value();
        return sent;
    });
    const auto proxy = proxyTo();
    auto answer = std::async(std::launch::async, [&] { return call(proxy, "LARGE"); });
    handled.get_future().wait();
    bus().unregisterServiceInterface(kService);
    EXPECT_TRUE(answer.get()->getString(0) == large);
    EXPECT_FALSE(fs::exists(socket()));
}

TEST_F(RegistrationTest, EndsAlthoughMemoryRunsOutMeanwhile) {
    ScarceMemory::forEach([this](std::uint64_t n) {
        TestService service;
        const int client = connectTo(socket());  // it stays
        ASSERT_EQ(call(proxyTo(), "ECHO")->type(), 2);
        const ScarceMemory scarce(ScarceMemory::Of::Others, n);
        bus().unregisterServiceInterface(kService);
        EXPECT_FALSE(fs::exists(socket()));
        ::close(client);
    });
}

// Root alone can play two users.
TEST_F(RegistrationTest, AdmitsNoOtherUser) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    constexpr uid_t kNobody = 65534;
    const auto asNobody = [](const std::function<bool()>& act) {
        return inChild([&] { return ::setuid(kNobody) == 0 && act(); });
    };
    {
        Heard refused;
        TestService service(TestService::echo, kService, [&](const SDBusRefusal& refusal) {
            refused.add(std::to_string(refusal.peer.user) + " " + refusal.reason);
        });
        for (const std::string& path : {mBus.folder().path(), folder(), socket()})
            fs::permissions(path, fs::perms::all);
        EXPECT_TRUE(asNobody([&] {
            const int fd = connectTo(socket());
            char byte = 0;
            return fd >= 0 && ::read(fd, &byte, 1) == 0;
        }));
        EXPECT_TRUE(waitUntil([&] { return mLog.has("it belongs to another user", 6); }));
        EXPECT_TRUE(waitUntil([&] { return !refused.all().empty(); }));
        EXPECT_THAT(refused.all(), testing::ElementsAre("65534 it belongs to another user"));
    }
    // A listener is who it was when it began to listen.
    for (const std::string& path : {mBus.folder().path(), folder()}) fs::permissions(path, fs::perms::owner_all);
    const int listener = listenAt(socket());
    ASSERT_TRUE(asNobody([&] { return ::listen(listener, 1) == 0; }));
    EXPECT_EQ(call(proxyTo(), "ECHO")->getErrorType(), SDBusUnreachable);
    EXPECT_FALSE(bus().isServiceRegistered(kService));
    EXPECT_EQ(mLog.count("its socket belongs to user 65534", 7), 1);
    ::close(listener);
}

}  // namespace
}  // namespace test
