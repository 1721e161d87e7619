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
// One call may seal many values: while another process holds the folder's lock, one of them waits for it.
constexpr std::chrono::seconds kSealPause{5};
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
    auto ring = std::make_shared<const KeyRing>(std::move(read.ring));
    Place handedOver{Place::Kind::HandedOver, "", kHandedOver, ""};
    const std::lock_guard lock(mMutex);
    mPlace = std::move(handedOver);
    mRing = std::move(ring);
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
    std::optional<Place> found = credentialsPlace();
    if (!found && mToldFolder.empty()) found = defaultPlace();
    if (!found) found = Place{Place::Kind::Folder, mToldFolder, mToldFolder + '/' + kFileName, ""};
    mCounter.reset(found->folder);
    mPlace = std::move(found);
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
    // A rotation keeps the key that seals. Where it is gone the folder was exchanged beneath the process.
    const bool isForeign = mRing && found.state == KeyRingState::Usable && !found.ring.find(mRing->current().id);
    if (isForeign) found.reason = "another key ring stands there";
    if (found.state == KeyRingState::Usable && !isForeign) {
        mRing = std::make_shared<const KeyRing>(std::move(found.ring));
        return true;
    }
    if (found.state == KeyRingState::Absent && makeIfAbsent && !place().folder.empty()) {
        found.reason = makeRing();
        if (found.reason.empty()) return true;
    }
    if (mRing) {
        LOG(6, AT "%s: %s; going on with the keys in memory", HERE, place().path.c_str(), found.reason.c_str());
        return true;
    }
    LOG(7, AT "%s: %s", HERE, place().path.c_str(), found.reason.c_str());
    return false;
}

// Makes the file, with the keys in memory where there are any. Returns why there is still no ring, or "".
std::string KeyStore::makeRing() {
    std::string reason;
    // A folder that went with its ring is not made anew: its databases are gone, too.
    if (!mRing && !makeFolder(place().folder, place().kind == Place::Kind::DefaultFolder, reason)) return reason;
    const auto now = std::chrono::steady_clock::now();
    const auto wait = now < mWaitAgain ? std::chrono::milliseconds(0) : kSealWait;
    const std::optional<LockedFolder> folder = LockedFolder::lock(place().folder, wait, reason);
    if (!folder) mWaitAgain = now + kSealPause;
    RingRead found = read();  // another process may have been first, and have held the lock for that
    if (found.state == KeyRingState::Broken) return found.reason;
    if (found.state == KeyRingState::Absent) {
        if (!folder) return reason;
        if (mRing)
            found.ring = *mRing;
        else
            found.ring.keys.push_back(makeKey());
        if (!folder->create(kFileName, formatKeyRing(found.ring), reason)) return reason;
        if (mRing) LOG(6, AT "%s: the key ring was gone; it is written again from memory", HERE, place().path.c_str());
    }
    mRing = std::make_shared<const KeyRing>(std::move(found.ring));
    return "";
}

// Returns why the ring has no new key, or "".
std::string KeyStore::addKey() {
    if (place().folder.empty()) return "it is not for this process to write";
    std::string reason;
    const std::optional<LockedFolder> folder = LockedFolder::lock(place().folder, kRotateWait, reason);
    if (!folder) return reason;
    RingRead found = read();
    if (found.state != KeyRingState::Usable) return found.reason;
    found.ring.keys.push_back(makeKey());
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
    RingRead found = read();
    if (found.state == KeyRingState::Usable) mRing = std::make_shared<const KeyRing>(std::move(found.ring));
    if (found.reason.empty()) return {found.state, place().path};
    return {found.state, place().path + ": " + found.reason};
}

SDSecurity::KeyUse KeyStore::use() {
    const std::lock_guard lock(mMutex);
    if (place().folder.empty()) return SDSecurity::KeyUse::Fine;
    const RingRead found = read();
    if (found.state != KeyRingState::Usable) return SDSecurity::KeyUse::Fine;
    return storedUse(place().folder, found.ring.current().id);
}

Key KeyStore::keyToTry() {
    const std::lock_guard lock(mMutex);
    if (mRing) return mRing->current();
    const RingRead found = read();
    return found.state == KeyRingState::Usable ? found.ring.current() : makeKey();
}

bool KeyStore::rotate() {
    const std::lock_guard lock(mMutex);
    const std::string reason = addKey();
    if (!reason.empty()) LOG(7, AT "%s: can't be rotated: %s", HERE, place().path.c_str(), reason.c_str());
    return reason.empty();
}

}  // namespace sd::security
