#include "libsdconfig/listener_map.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <vector>

#include "platform/velmarlog/log_line.h"
#include "src/sdconfig_protocol.h"

namespace sd {

namespace {

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "listener_map";

void call(DMConfig::Listener& listener, const std::string& key, const std::string& value, bool flag) {
    try {
        listener.onChanged(key, value, flag);
    } catch (const std::exception& error) {
        LOG(7, AT "a listener of key %s threw: %s", HERE, key.c_str(), error.what());
    } catch (...) {
        LOG(7, AT "a listener of key %s threw", HERE, key.c_str());
    }
}

}  // namespace

DMConfig::Listener::~Listener() = default;

bool ListenerMap::addToKnown(const std::string& key, DMConfig::Listener* listener) {
    const std::lock_guard lock(mGuard);
    const auto found = mListeners.find(key);
    if (found == mListeners.end()) return false;
    found->second.push_back(listener);
    return true;
}

void ListenerMap::add(Registrations registrations) noexcept {
    const std::lock_guard lock(mGuard);
    mListeners.merge(registrations);
    for (auto& [key, listeners] : registrations) {  // what is left is of keys that are there
        auto& known = mListeners.find(key)->second;
        known.splice(known.end(), listeners);
    }
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

void ListenerMap::noteOvercounted(Registrations registrations) noexcept {
    const std::lock_guard lock(mGuard);
    mOvercounted.merge(registrations);
}

void ListenerMap::noteOvercounted(Overcounted::node_type one) noexcept {
    const std::lock_guard lock(mGuard);
    mOvercounted.insert(std::move(one));
}

ListenerMap::Overcounted::node_type ListenerMap::takeOvercounted() noexcept {
    const std::lock_guard lock(mGuard);
    return mOvercounted.empty() ? Overcounted::node_type() : mOvercounted.extract(mOvercounted.begin());
}

void ListenerMap::onEvent(SDBusMessage& event) {
    if (event.eventName() != protocol::kDmChanged) return;
    const std::string key = event.getString(0);
    const std::string value = event.getString(1);
    const bool flag = event.getBool(2);

    std::vector<DMConfig::Listener*> listeners;
    {
        const std::lock_guard lock(mGuard);
        if (const auto found = mListeners.find(key); found != mListeners.end())
            listeners.assign(found->second.begin(), found->second.end());
    }
    struct Delivery {
        ListenerMap& map;
        ~Delivery() { map.endDelivery(); }
    };
    for (DMConfig::Listener* listener : listeners) {
        if (!beginDelivery(key, listener)) continue;
        const Delivery delivery{*this};
        call(*listener, key, value, flag);
    }
}

// False when the listener has been unregistered since the event came, or the map was closed: it may be gone.
bool ListenerMap::beginDelivery(const std::string& key, DMConfig::Listener* listener) {
    const std::lock_guard lock(mGuard);
    const auto& registered = mListeners[key];
    if (mClosed || std::find(registered.begin(), registered.end(), listener) == registered.end()) return false;
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
    if (mRunning && mRunning == listener) (void)awaitEnd(lock);
}

bool ListenerMap::close() {
    std::unique_lock lock(mGuard);
    mClosed = true;
    return !mRunning || awaitEnd(lock);
}

bool ListenerMap::awaitEnd(std::unique_lock<std::mutex>& lock) {
    if (mEventThread == std::this_thread::get_id()) return false;
    const bool ended = mDelivered.wait_for(lock, std::chrono::milliseconds(protocol::kCallTimeoutMs),
                                           [this, before = mDeliveries] { return mDeliveries != before; });
    lock.unlock();
    if (!ended) LOG(6, AT "a listener still runs after %d ms: it is not waited for", HERE, protocol::kCallTimeoutMs);
    return ended;
}

}  // namespace sd
