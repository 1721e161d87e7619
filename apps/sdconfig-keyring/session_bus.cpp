#include "apps/sdconfig-keyring/session_bus.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string_view>
#include <utility>

#include <glib-unix.h>

namespace keyring {

namespace {

constexpr char kAddress[] = "DBUS_SESSION_BUS_ADDRESS";
constexpr std::string_view kPathAddress = "unix:path=";

std::string variable(const char* name) {
    const char* const value = std::getenv(name);
    return value ? value : "";
}

// As told, or where systemd has it. Never one that a library would start: that is nobody's session.
std::string sessionAddress() {
    std::string told = variable(kAddress);
    if (!told.empty() && told.find("autolaunch:") == std::string::npos) return told;
    const std::string folder = variable("XDG_RUNTIME_DIR");
    if (folder.empty()) return "";
    const Handle<char> escaped(g_dbus_address_escape_value((folder + "/bus").c_str()));
    return std::string(kPathAddress) + escaped.get();
}

// Of the socket, where the address names one.
std::string socketPath(const std::string& address) {
    if (address.compare(0, kPathAddress.size(), kPathAddress) != 0) return "";
    const std::string escaped = address.substr(kPathAddress.size(), address.find_first_of(",;") - kPathAddress.size());
    const Handle<char> path(g_uri_unescape_string(escaped.c_str(), nullptr));
    return path ? path.get() : "";
}

}  // namespace

SessionBus::SessionBus(std::function<void()> onChange, std::function<void()> onLoss)
    : mOnChange(std::move(onChange)), mOnLoss(std::move(onLoss)), mAddress(sessionAddress()) {
    ::setenv(kAddress, mAddress.c_str(), 1);  // for the library's own look
    watchFolder();
}

SessionBus::~SessionBus() {
    if (mFolderSource) g_source_remove(mFolderSource);
    if (mConnection) g_signal_handlers_disconnect_by_data(mConnection.get(), this);
}

GDBusConnection* SessionBus::connection() {
    if (mConnection || mAddress.empty()) return mConnection.get();
    mConnection.reset(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
    if (!mConnection) return nullptr;
    g_dbus_connection_set_exit_on_close(mConnection.get(), FALSE);
    g_signal_connect(mConnection.get(), "closed", G_CALLBACK(onClosed), this);
    return mConnection.get();
}

// The socket is made, and then its mode is set, when it can be connected to.
void SessionBus::watchFolder() {
    const std::string path = socketPath(mAddress);
    if (path.empty()) return;
    const std::string folder = path.substr(0, path.rfind('/') + 1);
    mFolder = sd::UniqueFd(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (::inotify_add_watch(mFolder.get(), folder.c_str(), IN_CREATE | IN_MOVED_TO | IN_ATTRIB | IN_ONLYDIR) < 0)
        return;
    mFolderSource = g_unix_fd_add(mFolder.get(), G_IO_IN, onFolder, this);
}

gboolean SessionBus::onFolder(int descriptor, GIOCondition /*condition*/, gpointer self) {
    std::array<char, 4096> events;
    while (::read(descriptor, events.data(), events.size()) > 0) {
    }
    const auto& bus = *static_cast<SessionBus*>(self);
    if (!bus.mConnection) bus.mOnChange();
    return G_SOURCE_CONTINUE;
}

void SessionBus::onClosed(GDBusConnection* /*connection*/, gboolean /*remote*/, GError* /*error*/, gpointer self) {
    static_cast<SessionBus*>(self)->mOnLoss();
}

}  // namespace keyring
