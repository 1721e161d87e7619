// A service behind its socket, in the fuzzer's process, and an honest client of it.
#pragma once

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <exception>
#include <stdexcept>
#include <string>

#include "fuzz/support.h"
#include "libsdconfig/sdconfig.h"
#include "platform/sdbus/handles.h"
#include "platform/sdbus/message.h"
#include "platform/sdbus/sdbus.h"
#include "platform/sdbus/wire.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "sql/SQLiteDatabase.h"
#include "src/sdconfig_interface.h"
#include "src/sdconfig_protocol.h"
#include "src/sdconfig_service_sdbus.h"

namespace fuzz {

inline constexpr std::array<const char*, 3> kEvents{sd::protocol::kSdconfigChanged, sd::protocol::kPolicyChanged,
                                                    sd::protocol::kDmChanged};

inline void subscribe(sd_bus* bus, const std::string& event) {
    expect(sd_bus_call_method(bus, nullptr, sdbus::wire::kPath, sdbus::wire::kControlInterface, sdbus::wire::kSubscribe,
                              nullptr, nullptr, "s", event.c_str()) >= 0,
           "events can be asked for");
}

inline sdbus::BusMessagePtr newCall(sd_bus* bus, const char* member) {
    sd_bus_message* call = nullptr;
    expect(
        sd_bus_message_new_method_call(bus, &call, nullptr, sdbus::wire::kPath, sdbus::wire::kInterface, member) >= 0,
        "a call can be made");
    return sdbus::BusMessagePtr(call);
}

// Lets nothing out but what the stores let through: a priority that is empty or beyond an int. A value with a zero byte
// in the right place makes one.
class CheckedInterface : public sd::SDConfigInterface {
public:
    bool handleMethodCall(std::shared_ptr<SDBusMessage> message) override {
        try {
            return SDConfigInterface::handleMethodCall(message);
        } catch (const std::invalid_argument&) {
            throw;
        } catch (const std::out_of_range&) {
            throw;
        } catch (const std::exception& error) {
            expect(false, error.what());
            throw;
        }
    }
};

// For waits that have a limit of their own: the fuzzer's timer, which looks for hangs, would interrupt them.
class Uninterrupted {
public:
    Uninterrupted() {
        sigset_t timer;
        ::sigemptyset(&timer);
        ::sigaddset(&timer, SIGALRM);
        ::pthread_sigmask(SIG_BLOCK, &timer, &mBefore);
    }
    ~Uninterrupted() { ::pthread_sigmask(SIG_SETMASK, &mBefore, nullptr); }
    Uninterrupted(const Uninterrupted&) = delete;
    Uninterrupted& operator=(const Uninterrupted&) = delete;

private:
    sigset_t mBefore{};
};

class Served {
public:
    // Never destroyed, so that the layer ends the service at exit while all is still there.
    static Served& get() {
        static Served* const sServed = new Served;
        return *sServed;
    }

    CheckedInterface& interface() { return mInterface; }
    sd_bus* client() { return mClient.get(); }

    // A connection that says nothing of itself.
    sdbus::UniqueFd connect() const {
        sdbus::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        mSocket.copy(address.sun_path, sizeof address.sun_path - 1);
        expect(::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
               "the service takes connections");
        return fd;
    }

    sdbus::BusPtr open() const {
        sd_bus* opened = nullptr;
        expect(sd_bus_new(&opened) >= 0, "a client can be made");
        sdbus::BusPtr bus(opened);
        const int fd = connect().release();
        expect(sd_bus_set_fd(opened, fd, fd) >= 0 && sd_bus_start(opened) >= 0, "a client can connect");
        return bus;
    }

    // The answer to one call with strings; the service has handled by then what was sent over the client before.
    sdbus::Arguments ask(const char* method, std::initializer_list<std::string> strings) {
        sdbus::BusMessagePtr call = newCall(mClient.get(), method);
        const sdbus::Arguments arguments(strings.begin(), strings.end());
        const auto plan = sdbus::WirePlan::make(arguments);
        expect(plan && plan->append(call.get(), arguments), "strings can be sent");
        const Uninterrupted wait;
        sd_bus_message* reply = nullptr;
        constexpr uint64_t kPatience = 8'000'000;
        expect(sd_bus_call(mClient.get(), call.get(), kPatience, nullptr, &reply) >= 0, "an honest call is answered");
        const sdbus::BusMessagePtr owner(reply);
        const auto answer = sdbus::decodeArguments(reply);
        expect(answer.has_value(), "an answer can be read");
        return *answer;
    }

    // Lets go of everybody, and serves on.
    void restart() {
        SDBusSerivceManager::initSync(-1)->unregisterServiceInterface(sd::protocol::kServiceName);
        serve();
    }

    // So that an input finds what every other one found.
    void forgetRows() {
        mConfig.executeCommand("DELETE FROM secure_v3");
        mPolicies.executeCommand("DELETE FROM dmhelperconfig");
    }

private:
    Served() {
        mInterface.openTrail();
        serve();
        mInterface.beginTrail();
    }

    void serve() {
        auto* const manager = SDBusSerivceManager::initSync(-1);
        expect(manager->registerServiceInterface(sd::protocol::kServiceName, &mInterface, SDBusSameUser, 1),
               "the service can be registered");
        mSocket = manager->socketPath(sd::protocol::kServiceName);
        mClient = open();
    }

    static std::string prepare() {
        hideLog();
        std::string folder = makeFolder();
        ::setenv("XDG_RUNTIME_DIR", folder.c_str(), 1);
        sd::SDConfig::setDataPath(folder);
        sd::SDConfigService::SetTrailKept(true);
        sd::SDConfigService::SetTrailSize(1, 1);
        sd::SDSecurity::GetInstance()->SetKeyRingFolder(folder);
        return folder;
    }

    const std::string mFolder = prepare();
    CheckedInterface mInterface;
    std::string mSocket;
    sdbus::BusPtr mClient;
    sd::data::SQLiteDatabase mConfig{mFolder + "/sdconfig.db"};
    sd::data::SQLiteDatabase mPolicies{mFolder + "/dmhelper.db"};
};

}  // namespace fuzz
