// The service's registry of listeners.
#include <cstddef>
#include <cstdint>

#include "platform/velmarlog/log_line.h"
#include "src/sdconfig_helpers.h"
#include "src/sdconfig_interface.h"
#include "src/sdconfig_interface_call.h"
#include "src/sdconfig_protocol.h"

namespace sd {

namespace {
constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "src/sdconfig_service_sdbus";

// Of one answer of the list.
constexpr std::ptrdiff_t kListedMost = 1000;
constexpr std::size_t kListedBytesMost = std::size_t{1} << 20;
}  // namespace

bool SDConfigInterface::RegisterListener(const std::string& key, bool flag) {
    const std::lock_guard lock(mMutex);
    countRegistration(key, flag);
    return true;
}

void SDConfigInterface::countRegistration(const std::string& key, bool flag) {
    if (key.size() > kKeyBytesMax) return;  // nothing of that name is ever kept
    mListenerFlags[key] = flag;             // before it counts: memory may run out over either
    ++mListenerCounts[key];
}

bool SDConfigInterface::RegisterListenersWithList(const std::vector<std::string>& keys, bool flag) {
    if (keys.empty()) {
        LOG(7, AT "keys is empty", HERE);
        return false;
    }
    const std::lock_guard lock(mMutex);
    for (const std::string& key : keys) countRegistration(key, flag);
    return true;
}

bool SDConfigInterface::UnRegisterListener(const std::string& key, bool /*flag*/) {
    const std::lock_guard lock(mMutex);
    const auto found = mListenerCounts.find(key);
    if (found == mListenerCounts.end()) {
        LOG(7, AT "the key is not found", HERE);
        return false;
    }
    const int old = found->second--;
    if (old <= 0) {
        LOG(7, AT "the key is already UnRegistered", HERE);
        return false;
    }
    if (old > 1) {
        LOG(5, AT "the key do not need to UnRegistered", HERE);
        return true;
    }
    mListenerCounts.erase(found);
    mListenerFlags.erase(key);
    return true;
}

// This, DMChanged and listListeners take no lock: they run on the thread that alone changes the maps.
bool SDConfigInterface::IsAllConfigsAlreadyListened(const std::vector<std::string>& keys) {
    if (keys.empty()) {
        LOG(7, AT "keys is empty", HERE);
        return false;
    }
    for (const std::string& key : keys) {
        const auto found = mListenerCounts.find(key);
        if (found == mListenerCounts.end() || found->second < 1) return false;
    }
    return true;
}

bool SDConfigInterface::DMChanged(const std::string& key, const std::string& value, bool strong) {
    const auto found = mListenerCounts.find(key);
    if (found == mListenerCounts.end() || found->second < 1) return false;

    const auto event = makeEventMessage(protocol::kDmChanged, SDBusSameUser);
    event->appendString(key);
    event->appendString(value);
    if (mListenerFlags[key]) event->appendBool(strong);
    publishEvent(event);
    return true;
}

// Some of the keys that clients listen to, from the one after the given one on.
bool SDConfigInterface::listListeners(Call& call) {
    const std::string after = call.request->getString(0);
    // The empty key is the first one, not one that the list has got to.
    const auto begin = after.empty() ? mListenerCounts.begin() : mListenerCounts.upper_bound(after);
    auto end = begin;
    std::ptrdiff_t count = 0;
    for (std::size_t bytes = 0; end != mListenerCounts.end() && count < kListedMost; ++end, ++count) {
        bytes += end->first.size();
        if (count > 0 && bytes > kListedBytesMost) break;
    }
    const auto reply = makeReply(call);
    reply->appendBool(end != mListenerCounts.end());
    reply->appendInt32(static_cast<int32_t>(count));
    for (auto one = begin; one != end; ++one) {
        reply->appendString(one->first);
        reply->appendInt32(one->second);
    }
    sendMessage(reply);
    return true;
}

}  // namespace sd
