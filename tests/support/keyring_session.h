// A real login keyring on a session bus of its own.
#pragma once

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/support.h"

namespace test {

// A home with its desktop session, which this process and those that it starts belong to.
class KeyringSession {
public:
    void startBus() {
        writeFile(mHome / "bus.conf",
                  "<busconfig><type>session</type><listen>unix:path=" + (mHome / "bus") +
                      "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow send_destination=\"*\"/>"
                      "<allow receive_sender=\"*\"/><allow own=\"*\"/></policy></busconfig>");
        mBus.emplace(
            Process::start({"dbus-daemon", "--nofork", "--config-file=" + (mHome / "bus.conf"), "--print-address=2"}));
        ASSERT_TRUE(mBus->waitForErr("unix:path")) << mBus->err();
    }

    // With the keyring made anew, or as it was. Unlocked as a login does it, or not.
    void startKeyring(bool unlocked = true) {
        std::filesystem::create_directories(mHome / "data/keyrings");
        writeFile(mHome / "data/keyrings/default", "login");
        std::vector<std::string> command{"gnome-keyring-daemon", "--foreground", "--components=secrets"};
        if (unlocked) command.emplace_back("--unlock");
        mKeyring.emplace(Process::start(command, {}, "bench"));
        sd_bus* client = nullptr;
        ASSERT_GE(sd_bus_open_user(&client), 0);
        mClient.reset(client);
        ASSERT_TRUE(
            waitUntil([&] { return tell(kSecretsPath, "org.freedesktop.DBus.Peer", "Ping", ""); }, kProcessLimitMs))
            << mKeyring->err();
        Reply session;
        ASSERT_TRUE(ask(session, kSecretsPath, kService, "OpenSession", "sv", "plain", "s", ""));
        const char* path = nullptr;
        ASSERT_GE(sd_bus_message_read(session.get(), "vo", "s", nullptr, &path), 0);
        mSession = path;
    }
    void start() {
        startBus();
        startKeyring();
    }
    std::string address() const { return "unix:path=" + (mHome / "bus"); }
    void endBus() { mBus.reset(); }
    void endKeyring() { mKeyring.reset(); }
    void signalKeyring(int signal) { mKeyring->kill(signal); }

    void lock() { EXPECT_TRUE(tell(kSecretsPath, kService, "Lock", "ao", 1, kLogin)); }
    void unlock() {
        EXPECT_TRUE(tell(kSecretsPath, "org.gnome.keyring.InternalUnsupportedGuiltRiddenInterface",
                         "UnlockWithMasterPassword", "o(oayays)", kLogin, mSession.c_str(), 0, 5, 'b', 'e', 'n', 'c',
                         'h', "text/plain"));
    }
    // As a program for keyrings would, which a person uses.
    void changeItem(const std::string& id) {
        Reply found;
        ASSERT_TRUE(
            ask(found, kSecretsPath, kService, "SearchItems", "a{ss}", 2, "application", "sdconfig", "id", id.c_str()));
        const char* item = nullptr;
        ASSERT_GE(sd_bus_message_read(found.get(), "ao", 1, &item), 0);
        EXPECT_TRUE(tell(item, "org.freedesktop.Secret.Item", "SetSecret", "(oayays)", mSession.c_str(), 0, 3, 'n', 'e',
                         'w', "text/plain"));
    }

private:
    static constexpr char kSecrets[] = "org.freedesktop.secrets";
    static constexpr char kSecretsPath[] = "/org/freedesktop/secrets";
    static constexpr char kService[] = "org.freedesktop.Secret.Service";
    static constexpr char kLogin[] = "/org/freedesktop/secrets/collection/login";

    struct Close {
        void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
        void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
    };
    using Reply = std::unique_ptr<sd_bus_message, Close>;

    template <class... Arguments>
    bool ask(Reply& reply, const char* path, const char* interface, const char* method, const char* types,
             Arguments... arguments) {
        sd_bus_message* message = nullptr;
        const int result = sd_bus_call_method(mClient.get(), kSecrets, path, interface, method, nullptr, &message,
                                              types, arguments...);
        reply.reset(message);
        return result >= 0;
    }
    template <class... Arguments>
    bool tell(const char* path, const char* interface, const char* method, const char* types, Arguments... arguments) {
        Reply unread;
        return ask(unread, path, interface, method, types, arguments...);
    }

    const TempDir mHome;
    // Without the bus's address: it stands where it always does.
    const ScopedEnv mVariables[5]{{"HOME", mHome.path().c_str()},
                                  {"XDG_DATA_HOME", (mHome / "data").c_str()},
                                  {"XDG_CONFIG_HOME", (mHome / "config").c_str()},
                                  {"XDG_RUNTIME_DIR", mHome.path().c_str()},
                                  {"DBUS_SESSION_BUS_ADDRESS", nullptr}};
    std::optional<Process> mBus;
    std::optional<Process> mKeyring;
    std::unique_ptr<sd_bus, Close> mClient;
    std::string mSession;  // of mClient with the keyring
};

}  // namespace test
