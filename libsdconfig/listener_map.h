// The client's listeners and the events that reach them. Not for users of the library.
#pragma once

#include <condition_variable>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "libsdconfig/dmconfig.h"
#include "platform/sdbus/sdbus.h"

namespace sd {

// Keys, compared exactly, to the listeners registered for them, in the order of registration. Events come on a thread
// of their own, so everything is under a guard; it is held for a look-up or a change alone, never while a listener runs
// or a call is on the bus: a listener may call anything.
class ListenerMap {
public:
    // By key. In nodes of their own, so that to add them takes no memory: the service has been told by then.
    using Registrations = std::map<std::string, std::list<DMConfig::Listener*>>;

    // Adds a registration to a key that is there already; false when it isn't.
    bool addToKnown(const std::string& key, DMConfig::Listener* listener);
    void add(Registrations registrations) noexcept;

    enum class Removal { Done, NoKey, NoListener };
    // Takes the listener's first registration out. The key's entry stays, even when it was the last one.
    Removal remove(const std::string& key, const DMConfig::Listener* listener);

    // Keys of which the service counts a registration more than there are here: memory ran out over the answer to one,
    // or before one was taken back. The latter takes one out; empty where there is none.
    using Overcounted = std::multimap<std::string, std::list<DMConfig::Listener*>>;
    void noteOvercounted(Registrations registrations) noexcept;
    void noteOvercounted(Overcounted::node_type one) noexcept;
    Overcounted::node_type takeOvercounted() noexcept;

    // Calls the listeners of the key that a "DM_CHANGED" tells of; other events are none of its business. A listener
    // that throws costs the others nothing.
    void onEvent(SDBusMessage& event);

    // Waits until the listener is not running, so that a caller may destroy it once it is unregistered. Not on the
    // event thread, and 5000 ms at most: the listener may be waiting for the very thread that waits here.
    void awaitDelivery(const DMConfig::Listener* listener);

    // Calls no listener any more. False when one is running still, on this thread or after 5000 ms.
    bool close();

private:
    bool beginDelivery(const std::string& key, DMConfig::Listener* listener);
    void endDelivery();
    bool awaitEnd(std::unique_lock<std::mutex>& lock);

    std::mutex mGuard;
    Registrations mListeners;
    Overcounted mOvercounted;
    const DMConfig::Listener* mRunning = nullptr;  // whom the event thread is calling
    unsigned long mDeliveries = 0;                 // how many calls have come to their end
    bool mClosed = false;
    std::thread::id mEventThread;
    std::condition_variable mDelivered;
};

}  // namespace sd
