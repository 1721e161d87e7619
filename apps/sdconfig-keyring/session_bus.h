// The user's session bus, which may come later than this program.
#pragma once

#include <functional>
#include <string>

#include "apps/sdconfig-keyring/glib_handles.h"
#include "base/unique_fd.h"

namespace keyring {

class SessionBus {
public:
    // Both are called from the main loop. onChange: the bus may be there now. onLoss: it was, and went. The library has
    // one connection a process, which does not come back.
    SessionBus(std::function<void()> onChange, std::function<void()> onLoss);
    ~SessionBus();
    SessionBus(const SessionBus&) = delete;
    SessionBus& operator=(const SessionBus&) = delete;

    // Null where there is none now.
    GDBusConnection* connection();

private:
    static gboolean onFolder(int descriptor, GIOCondition condition, gpointer self);
    static void onClosed(GDBusConnection* connection, gboolean remote, GError* error, gpointer self);
    void watchFolder();

    const std::function<void()> mOnChange;
    const std::function<void()> mOnLoss;
    const std::string mAddress;  // "": of none
    sd::UniqueFd mFolder;        // tells of what is made where the bus's socket lies or will lie
    guint mFolderSource = 0;
    Handle<GDBusConnection> mConnection;
};

}  // namespace keyring
