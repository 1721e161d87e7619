#include "platform/sdsecurity/key_store.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "platform/sdsecurity/log.h"

namespace sd::security {
namespace {

using KeyRingState = SDSecurity::KeyRingState;

constexpr char kSource[] = "platform/sdsecurity/key_store";
constexpr char kFileName[] = "sdsecurity.keys";
constexpr char kHandedOver[] = "a ring handed over by the host";

// The variable's value where it is an absolute path, else "": relative ones have no meaning here.
std::string folderFrom(const char* variable) {
    const char* const value = std::getenv(variable);
    return value && *value == '/' ? value : "";
}

}  // namespace

void KeyStore::useFolder(const std::string& folder) {
    const std::lock_guard lock(mMutex);
    mToldFolder = folder;
    mPlace.reset();
    mRing.reset();
}

bool KeyStore::useDescriptor(int descriptor) {
    RingRead read = parseRing(readDescriptor(descriptor));
    if (read.state != KeyRingState::Usable) {
        LOG(7, AT "%s: %s", HERE, kHandedOver, read.reason.c_str());
        return false;
    }
    const std::lock_guard lock(mMutex);
    mPlace = Place{Place::Kind::HandedOver, "", kHandedOver, ""};
    mRing = std::make_shared<const KeyRing>(std::move(read.ring));
    mCounter.reset("");
    return true;
}

std::optional<KeyStore::Place> KeyStore::credentialsPlace() {
    const std::string folder = folderFrom("CREDENTIALS_DIRECTORY");
    if (folder.empty()) return std::nullopt;
    Place place{Place::Kind::Credentials, "", folder + '/' + kFileName, ""};
    struct stat status {};
    // One that is there and can't be used is broken, and no reason to seal by another ring.
    if (::lstat(place.path.c_str(), &status) != 0 && errno == ENOENT) return std::nullopt;
    return place;
}

KeyStore::Place KeyStore::defaultPlace() {
    std::string data = folderFrom("XDG_DATA_HOME");
    if (const std::string home = folderFrom("HOME"); data.empty() && !home.empty()) data = home + "/.local/share";
    if (data.empty())
        return {Place::Kind::DefaultFolder, "", kFileName, "neither XDG_DATA_HOME nor HOME names a folder for it"};
    const std::string folder = data + "/sdconfig";
    return {Place::Kind::DefaultFolder, folder, folder + '/' + kFileName, ""};
}

// Decided at the first use: the environment may change later, the ring must not.
const KeyStore::Place& KeyStore::place() {
    if (mPlace) return *mPlace;
    mPlace = credentialsPlace();
    if (!mPlace && mToldFolder.empty()) mPlace = defaultPlace();
    if (!mPlace) mPlace = Place{Place::Kind::Folder, mToldFolder, mToldFolder + '/' + kFileName, ""};
    mCounter.reset(mPlace->folder);
    return *mPlace;
}

RingRead KeyStore::read() {
    if (!place().reason.empty()) return {KeyRingState::Broken, {}, place().reason};
    const bool credentials = place().kind == Place::Kind::Credentials;
    RingRead found = parseRing(readFile(place().path, credentials ? Readers::GroupToo : Readers::OwnerOnly));
    if (found.state == KeyRingState::Absent) found.reason = "there is no key ring";
    return found;
}

// Brings the ring in memory up to date with its file. False, with a line logged, where there is none then.
bool KeyStore::update(bool makeIfAbsent) {
    if (place().kind == Place::Kind::HandedOver) return true;
    RingRead found = read();
    if (found.state == KeyRingState::Usable) {
        mRing = std::make_shared<const KeyRing>(std::move(found.ring));
        return true;
    }
    if (mRing) {
        LOG(6, AT "%s: %s; going on with the keys in memory", HERE, place().path.c_str(), found.reason.c_str());
        return true;
    }
    if (found.state == KeyRingState::Absent && makeIfAbsent && !place().folder.empty()) found.reason = makeRing();
    if (mRing) return true;
    LOG(7, AT "%s: %s", HERE, place().path.c_str(), found.reason.c_str());
    return false;
}

// Returns why there is still no ring, or "".
std::string KeyStore::makeRing() {
    std::string reason;
    if (!makeFolder(place().folder, place().kind == Place::Kind::DefaultFolder, reason)) return reason;
    const std::optional<LockedFolder> folder = LockedFolder::lock(place().folder, reason);
    if (!folder) return reason;
    RingRead found = read();  // another process may have been first
    if (found.state == KeyRingState::Broken) return found.reason;
    if (found.state == KeyRingState::Absent) {
        std::optional<Key> key = makeKey();
        if (!key) return "no random bytes for a key";
        found.ring.keys.push_back(std::move(*key));
        if (!folder->create(kFileName, formatKeyRing(found.ring), reason)) return reason;
    }
    mRing = std::make_shared<const KeyRing>(std::move(found.ring));
    return "";
}

// Returns why the ring has no new key, or "".
std::string KeyStore::addKey() {
    if (place().folder.empty()) return "it is not for this process to write";
    std::string reason;
    const std::optional<LockedFolder> folder = LockedFolder::lock(place().folder, reason);
    if (!folder) return reason;
    RingRead found = read();
    if (found.state != KeyRingState::Usable) return found.reason;
    std::optional<Key> key = makeKey();
    if (!key) return "no random bytes for a key";
    found.ring.keys.push_back(std::move(*key));
    const SecretBytes text = formatKeyRing(found.ring);
    if (text.size() > kMaxRingText) return "it is full";
    if (!folder->replace(kFileName, text, reason)) return reason;
    mRing = std::make_shared<const KeyRing>(std::move(found.ring));
    return "";
}

std::shared_ptr<const KeyRing> KeyStore::ringToSeal() {
    const std::lock_guard lock(mMutex);
    if (!mRing || !mCounter.has(mRing->current().id)) {
        if (!update(true) || !mCounter.reserve(mRing->current().id)) return nullptr;
    }
    mCounter.take();
    return mRing;
}

std::shared_ptr<const KeyRing> KeyStore::ringToOpen(const KeyId& id) {
    const std::lock_guard lock(mMutex);
    if (mRing && mRing->find(id)) return mRing;
    if (!update(false)) return nullptr;
    if (mRing->find(id)) return mRing;
    LOG(7, AT "%s: no key %s in it", HERE, place().path.c_str(), toHex(id).c_str());
    return nullptr;
}

SDSecurity::KeyRingStatus KeyStore::check() {
    const std::lock_guard lock(mMutex);
    if (place().kind == Place::Kind::HandedOver) return {KeyRingState::Usable, place().path};
    const RingRead found = read();
    if (found.reason.empty()) return {found.state, place().path};
    return {found.state, place().path + ": " + found.reason};
}

bool KeyStore::rotate() {
    const std::lock_guard lock(mMutex);
    const std::string reason = addKey();
    if (!reason.empty()) LOG(7, AT "%s: can't be rotated: %s", HERE, place().path.c_str(), reason.c_str());
    return reason.empty();
}

}  // namespace sd::security
