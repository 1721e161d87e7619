#include "libsdconfig/listener_map.h"

#include <algorithm>
#include <chrono>

#include "src/sdconfig_protocol.h"

namespace sd {

DMConfig::Listener::~Listener() = default;

bool ListenerMap::addToKnown(const std::string& key, DMConfig::Listener* listener) {
    const std::lock_guard lock(mGuard);
    const auto found = mListeners.find(key);
    if (found == mListeners.end()) return false;
    found->second.push_back(listener);
    return true;
}

void ListenerMap::add(const std::string& key, DMConfig::Listener* listener) {
    const std::lock_guard lock(mGuard);
    mListeners[key].push_back(listener);
}

ListenerMap::Removal ListenerMap::remove(const std::string& key, const DMConfig::Listener* listener) {
    const std::lock_guard lock(mGuard);
    const auto found = mListeners.find(key);
    if (found == mListeners.end()) return Removal::NoKey;
    auto& listeners = found->second;
    const auto registration = std::find(listeners.begin(), listeners.end(), listener);
    if (registration == listeners.end()) return Removal::NoListener;
    listeners.erase(registration);
    return Removal::Done;
}

void ListenerMap::onEvent(SDBusMessage& event) {
    if (event.eventName() != protocol::kDmChanged) return;
    const std::string key = event.getString(0);
    const std::string value = event.getString(1);
    const bool flag = event.getBool(2);

    std::vector<DMConfig::Listener*> listeners;
    {
        const std::lock_guard lock(mGuard);
        if (const auto found = mListeners.find(key); found != mListeners.end()) listeners = found->second;
    }
    struct Delivery {
        ListenerMap& map;
        ~Delivery() { map.endDelivery(); }
    };
    for (DMConfig::Listener* listener : listeners) {
        if (!beginDelivery(key, listener)) continue;
        const Delivery delivery{*this};
        listener->onChanged(key, value, flag);
    }
}

// False when the listener has been unregistered since the event came: it may be gone.
bool ListenerMap::beginDelivery(const std::string& key, DMConfig::Listener* listener) {
    const std::lock_guard lock(mGuard);
    const auto& registered = mListeners[key];
    if (std::find(registered.begin(), registered.end(), listener) == registered.end()) return false;
    mRunning = listener;
    mEventThread = std::this_thread::get_id();
    return true;
}

void ListenerMap::endDelivery() {
    const std::lock_guard lock(mGuard);
    mRunning = nullptr;
    ++mDeliveries;
    mDelivered.notify_all();
}

void ListenerMap::awaitDelivery(const DMConfig::Listener* listener) {
    std::unique_lock lock(mGuard);
    if (mRunning != listener || mEventThread == std::this_thread::get_id()) return;
    const unsigned long before = mDeliveries;
    mDelivered.wait_for(lock, std::chrono::milliseconds(protocol::kCallTimeoutMs),
                        [&] { return mDeliveries != before; });
}

}  // namespace sd
