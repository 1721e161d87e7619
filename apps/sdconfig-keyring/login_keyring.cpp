#include "apps/sdconfig-keyring/login_keyring.h"

#include <sys/random.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/sdsecurity/hex.h"
#include "platform/sdsecurity/keyring_line.h"

namespace keyring {

namespace {

using sd::security::SecretBytes;
using sd::security::SlotAnswer;
using Outcome = SlotAnswer::Outcome;

constexpr char kBus[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
constexpr char kSecrets[] = "org.freedesktop.secrets";
constexpr char kSecretsPath[] = "/org/freedesktop/secrets";
constexpr char kService[] = "org.freedesktop.Secret.Service";
constexpr char kCollection[] = "org.freedesktop.Secret.Collection";
constexpr char kItem[] = "org.freedesktop.Secret.Item";
constexpr char kPrompt[] = "org.freedesktop.Secret.Prompt";
constexpr char kIsLocked[] = "org.freedesktop.Secret.Error.IsLocked";
constexpr char kNoSuchObject[] = "org.freedesktop.Secret.Error.NoSuchObject";

// What an item is found by, and what a person sees of it in a program that shows the keyring.
constexpr char kLabel[] = "sdconfig key ring slot";
constexpr char kSchema[] = "sdconfig.KeyRingSlot";
constexpr char kApplication[] = "sdconfig";
constexpr char kContentType[] = "application/octet-stream";

// Who asks waits for 5 s; a find may come while another one is done for a watch.
constexpr std::chrono::milliseconds kReadLimit{2000};
constexpr std::chrono::milliseconds kWriteLimit{4000};

constexpr std::size_t kMostTried = 8;   // items of one id
constexpr std::size_t kMostTold = 120;  // of a text that came from elsewhere

constexpr char kLocked[] = "locked";
constexpr char kNoBus[] = "absent: there is no session bus";
constexpr char kNoService[] = "absent: nobody offers it on the session bus";
constexpr char kNoDefault[] = "absent: there is no default keyring";
constexpr char kGone[] = "the item is gone, or this is another keyring";
constexpr char kChanged[] = "the item was changed";

GVariant* attributesOf(const std::string& id) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a{ss}"));
    g_variant_builder_add(&builder, "{ss}", "application", kApplication);
    g_variant_builder_add(&builder, "{ss}", "id", id.c_str());
    g_variant_builder_add(&builder, "{ss}", "xdg:schema", kSchema);
    return g_variant_builder_end(&builder);
}

GVariant* propertiesOf(const std::string& id) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a{sv}"));
    g_variant_builder_add(&builder, "{sv}", "org.freedesktop.Secret.Item.Label", g_variant_new_string(kLabel));
    g_variant_builder_add(&builder, "{sv}", "org.freedesktop.Secret.Item.Attributes", attributesOf(id));
    return g_variant_builder_end(&builder);
}

std::string newId() {
    std::array<unsigned char, sd::security::keyring::kItemIdSize> bytes{};
    if (::getentropy(bytes.data(), bytes.size()) != 0) return "";
    std::string id;
    sd::security::appendHex(bytes, id);
    return id;
}

std::string printable(std::string text) {
    text.resize(std::min(text.size(), kMostTold));
    for (char& letter : text)
        if (letter < ' ' || letter > '~') letter = '?';
    return text;
}

std::string remoteName(const GError& error) {
    const Handle<char> name(g_dbus_error_get_remote_error(&error));
    return name ? name.get() : "";
}

std::string reasonOf(const GError& error) {
    const auto is = [&error](GQuark domain, int code) { return g_error_matches(&error, domain, code) != FALSE; };
    if (remoteName(error) == kIsLocked) return kLocked;
    if (is(G_IO_ERROR, G_IO_ERROR_TIMED_OUT) || is(G_DBUS_ERROR, G_DBUS_ERROR_NO_REPLY)) return LoginKeyring::kSilent;
    if (is(G_IO_ERROR, G_IO_ERROR_CLOSED) || is(G_DBUS_ERROR, G_DBUS_ERROR_DISCONNECTED)) return kNoBus;
    if (is(G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) || is(G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER))
        return kNoService;
    return "it failed: " + printable(error.message);
}

SlotAnswer done() {
    SlotAnswer answer;
    answer.outcome = Outcome::Done;
    return answer;
}

}  // namespace

LoginKeyring::LoginKeyring(std::function<void()> onChange, std::function<void()> onLoss)
    : mOnChange(std::move(onChange)), mBus(mOnChange, std::move(onLoss)) {}

LoginKeyring::~LoginKeyring() {
    if (!mConnection) return;
    for (const guint subscription : mSubscriptions) g_dbus_connection_signal_unsubscribe(mConnection, subscription);
}

SlotAnswer LoginKeyring::store(const SecretBytes& key) {
    return attempt(Starting::Allowed, kWriteLimit, [&] {
        const std::string id = newId();
        if (id.empty()) throw Failure{Outcome::NotNow, "there are no random bytes"};
        const std::string collection = defaultCollection();
        SecretValue* const value =
            secret_value_new(reinterpret_cast<const char*>(key.data()), static_cast<gssize>(key.size()), kContentType);
        GVariant* const secret = secret_service_encode_dbus_secret(mSession.get(), value);
        secret_value_unref(value);
        const Handle<GVariant> made =
            callKeyring(collection.c_str(), kCollection, "CreateItem",
                        g_variant_new("(@a{sv}@(oayays)b)", propertiesOf(id), secret, FALSE), "(oo)");
        const char* prompt = nullptr;
        g_variant_get(made.get(), "(o&o)", nullptr, &prompt);
        refusePrompt(prompt);
        SlotAnswer answer = done();
        answer.sealed = id;
        return answer;
    });
}

SlotAnswer LoginKeyring::find(const std::string& id, Starting starting) {
    return attempt(starting, kReadLimit, [&] {
        const Items items = itemsOf(id);
        for (const std::string& item : items.unlocked) {
            SlotAnswer answer = done();
            answer.key = contentOf(item.c_str());
            if (answer.key.size() == sd::security::kKeySize) return answer;
        }
        if (!items.unlocked.empty()) throw Failure{Outcome::Refused, kChanged};
        if (items.hasLocked) throw Failure{Outcome::NotNow, kLocked};
        throw Failure{Outcome::Refused, kGone};
    });
}

SlotAnswer LoginKeyring::forget(const std::string& id) {
    return attempt(Starting::Allowed, kWriteLimit, [&] {
        const Items items = itemsOf(id);
        for (const std::string& item : items.unlocked) {
            const Handle<GVariant> deleted = callKeyring(item.c_str(), kItem, "Delete", nullptr, "(o)");
            const char* prompt = nullptr;
            g_variant_get(deleted.get(), "(&o)", &prompt);
            refusePrompt(prompt);
        }
        if (items.hasLocked) throw Failure{Outcome::NotNow, kLocked};
        return done();
    });
}

// Runs a request with the keyring at hand.
template <class Request>
SlotAnswer LoginKeyring::attempt(Starting starting, std::chrono::milliseconds limit, Request request) {
    mDeadline = sd::Deadline(limit);
    try {
        reach(starting);
        return request();
    } catch (const Failure& failure) {
        SlotAnswer answer;
        answer.outcome = failure.outcome;
        answer.reason = failure.reason;
        return answer;
    }
}

void LoginKeyring::reach(Starting starting) {
    if (!mConnection) listen();
    std::string now = owner();
    if (now.empty() && starting == Starting::Allowed) {
        callBus("StartServiceByName", g_variant_new("(su)", kSecrets, 0), "(u)");
        now = owner();
    }
    if (now.empty()) throw Failure{Outcome::NotNow, kNoService};
    if (mSession && now == mOwner) return;
    mOwner = now;
    openSession();
}

// Whatever the keyring's service tells may mean that it was unlocked, and a new owner of its name that it has come.
void LoginKeyring::listen() {
    mConnection = mBus.connection();
    if (!mConnection) throw Failure{Outcome::NotNow, kNoBus};
    mSubscriptions = {g_dbus_connection_signal_subscribe(mConnection, kSecrets, nullptr, nullptr, nullptr, nullptr,
                                                         G_DBUS_SIGNAL_FLAGS_NONE, onSignal, this, nullptr),
                      g_dbus_connection_signal_subscribe(mConnection, kBus, kBus, "NameOwnerChanged", kBusPath,
                                                         kSecrets, G_DBUS_SIGNAL_FLAGS_NONE, onSignal, this, nullptr)};
}

void LoginKeyring::onSignal(GDBusConnection* /*connection*/, const char* /*sender*/, const char* /*path*/,
                            const char* /*interface*/, const char* /*signal*/, GVariant* /*arguments*/, gpointer self) {
    static_cast<LoginKeyring*>(self)->mOnChange();
}

// The bus's name of who offers the keyring; "" where nobody does.
std::string LoginKeyring::owner() {
    const Handle<GVariant> has = callBus("NameHasOwner", g_variant_new("(s)", kSecrets), "(b)");
    gboolean isOwned = FALSE;
    g_variant_get(has.get(), "(b)", &isOwned);
    if (!isOwned) return "";
    const Handle<GVariant> reply = callBus("GetNameOwner", g_variant_new("(s)", kSecrets), "(s)");
    const char* name = nullptr;
    g_variant_get(reply.get(), "(&s)", &name);
    return name;
}

// In which secrets cross the bus encrypted. The library opens it without a limit, so whether the keyring's service
// answers at all is seen first.
void LoginKeyring::openSession() {
    mSession.reset();
    callKeyring(kSecretsPath, kService, "ReadAlias", g_variant_new("(s)", SECRET_COLLECTION_DEFAULT), "(o)");
    Handle<GError> error;
    mSession.reset(secret_service_open_sync(SECRET_TYPE_SERVICE, kSecrets, SECRET_SERVICE_OPEN_SESSION, nullptr,
                                            ErrorPlace(error)));
    if (!mSession) throw Failure{Outcome::NotNow, error ? reasonOf(*error) : kSilent};
}

Handle<GVariant> LoginKeyring::call(const char* service, const char* path, const char* interface, const char* method,
                                    GVariant* arguments, const char* reply) {
    Handle<GError> error;
    Handle<GVariant> result(g_dbus_connection_call_sync(
        mConnection, service, path, interface, method, arguments, G_VARIANT_TYPE(reply),
        G_DBUS_CALL_FLAGS_NO_AUTO_START, std::max(mDeadline.millisecondsLeft(), 1), nullptr, ErrorPlace(error)));
    if (result) return result;
    const bool isGone = remoteName(*error) == kNoSuchObject;
    throw Failure{isGone ? Outcome::Refused : Outcome::NotNow, isGone ? kGone : reasonOf(*error)};
}

Handle<GVariant> LoginKeyring::callBus(const char* method, GVariant* arguments, const char* reply) {
    return call(kBus, kBusPath, kBus, method, arguments, reply);
}

Handle<GVariant> LoginKeyring::callKeyring(const char* path, const char* interface, const char* method,
                                           GVariant* arguments, const char* reply) {
    return call(mOwner.c_str(), path, interface, method, arguments, reply);
}

// The one that new items go to, which login unlocks. Throws where there is none or it is locked.
std::string LoginKeyring::defaultCollection() {
    const Handle<GVariant> alias =
        callKeyring(kSecretsPath, kService, "ReadAlias", g_variant_new("(s)", SECRET_COLLECTION_DEFAULT), "(o)");
    const char* path = nullptr;
    g_variant_get(alias.get(), "(&o)", &path);
    if (std::strcmp(path, "/") == 0) throw Failure{Outcome::NotNow, kNoDefault};
    const Handle<GVariant> property =
        callKeyring(path, kProperties, "Get", g_variant_new("(ss)", kCollection, "Locked"), "(v)");
    GVariant* value = nullptr;
    g_variant_get(property.get(), "(v)", &value);
    const Handle<GVariant> locked(value);
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN) || g_variant_get_boolean(value))
        throw Failure{Outcome::NotNow, kLocked};
    return path;
}

// A keyring that is locked need not tell of its items, so none are there only where it was unlocked before the search.
LoginKeyring::Items LoginKeyring::itemsOf(const std::string& id) {
    Items items = search(id);
    if (!items.unlocked.empty() || items.hasLocked) return items;
    defaultCollection();
    return search(id);
}

LoginKeyring::Items LoginKeyring::search(const std::string& id) {
    const Handle<GVariant> found =
        callKeyring(kSecretsPath, kService, "SearchItems", g_variant_new("(@a{ss})", attributesOf(id)), "(aoao)");
    GVariantIter* first = nullptr;
    GVariantIter* second = nullptr;
    g_variant_get(found.get(), "(aoao)", &first, &second);
    const Handle<GVariantIter> unlocked(first);
    const Handle<GVariantIter> locked(second);
    Items items{{}, g_variant_iter_n_children(second) > 0};
    for (const char* path = nullptr; items.unlocked.size() < kMostTried && g_variant_iter_next(first, "&o", &path);)
        items.unlocked.emplace_back(path);
    return items;
}

// Nothing, where it is no key.
SecretBytes LoginKeyring::contentOf(const char* item) {
    const Handle<GVariant> reply =
        callKeyring(item, kItem, "GetSecret",
                    g_variant_new("(o)", secret_service_get_session_dbus_path(mSession.get())), "((oayays))");
    const Handle<GVariant> secret(g_variant_get_child_value(reply.get(), 0));
    SecretValue* const value = secret_service_decode_dbus_secret(mSession.get(), secret.get());
    if (!value) throw Failure{Outcome::NotNow, "what it answers can't be decrypted"};
    gsize size = 0;
    const char* const bytes = secret_value_get(value, &size);
    SecretBytes content;
    if (size == sd::security::kKeySize) content.assign(bytes, bytes + size);
    secret_value_unref(value);
    return content;
}

// Where the keyring would ask the user first.
void LoginKeyring::refusePrompt(const char* prompt) {
    if (std::strcmp(prompt, "/") == 0) return;
    callKeyring(prompt, kPrompt, "Dismiss", nullptr, "()");
    throw Failure{Outcome::NotNow, kLocked};
}

}  // namespace keyring
