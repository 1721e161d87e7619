// The login keyring, as far as slots of the key ring need it. It is asked over the session bus, without ever a prompt:
// what would need one is "locked".
#pragma once

#include <libsecret/secret.h>

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "apps/sdconfig-keyring/glib_handles.h"
#include "apps/sdconfig-keyring/session_bus.h"
#include "base/deadline.h"
#include "platform/sdsecurity/slot_answer.h"

namespace keyring {

// Whether the bus may start the keyring's service for a request.
enum class Starting { Allowed, Left };

class LoginKeyring {
public:
    // Both are called from the main loop. onChange: a request might find another state than before. onLoss: no request
    // will be done any more; another process may do them.
    LoginKeyring(std::function<void()> onChange, std::function<void()> onLoss);
    ~LoginKeyring();
    LoginKeyring(const LoginKeyring&) = delete;
    LoginKeyring& operator=(const LoginKeyring&) = delete;

    // As KeyringHelper's.
    sd::security::SlotAnswer store(const sd::security::SecretBytes& key);
    sd::security::SlotAnswer find(const std::string& id, Starting starting);
    sd::security::SlotAnswer forget(const std::string& id);

    static constexpr char kSilent[] = "it does not answer";  // the one reason that no change follows upon

private:
    // Thrown by what follows: why a request can't be done.
    struct Failure {
        sd::security::SlotAnswer::Outcome outcome;
        std::string reason;
    };
    struct Items {
        std::vector<std::string> unlocked;  // their paths
        bool hasLocked;
    };

    template <class Request>
    sd::security::SlotAnswer attempt(Starting starting, std::chrono::milliseconds limit, Request request);
    void reach(Starting starting);
    void listen();
    std::string owner();
    void openSession();
    Handle<GVariant> call(const char* service, const char* path, const char* interface, const char* method,
                          GVariant* arguments, const char* reply);
    Handle<GVariant> callBus(const char* method, GVariant* arguments, const char* reply);
    Handle<GVariant> callKeyring(const char* path, const char* interface, const char* method, GVariant* arguments,
                                 const char* reply);
    std::string defaultCollection();
    Items itemsOf(const std::string& id);
    Items search(const std::string& id);
    sd::security::SecretBytes contentOf(const char* item);
    void refusePrompt(const char* prompt);

    static void onSignal(GDBusConnection* connection, const char* sender, const char* path, const char* interface,
                         const char* signal, GVariant* arguments, gpointer self);

    const std::function<void()> mOnChange;
    SessionBus mBus;
    GDBusConnection* mConnection = nullptr;
    std::array<guint, 2> mSubscriptions{};
    std::string mOwner;  // who offers the keyring, and has mSession
    Handle<SecretService> mSession;
    sd::Deadline mDeadline{{}};  // of the request in hand
};

}  // namespace keyring
