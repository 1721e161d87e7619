#include "platform/sdsecurity/key_store.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "platform/sdsecurity/log.h"
#include "platform/sdsecurity/ring_text.h"

namespace sd::security {
namespace {

using KeyRingState = SDSecurity::KeyRingState;

constexpr char kSource[] = "platform/sdsecurity/key_store";
// One call may seal many values: while another process holds the folder's lock, one of them waits for it.
constexpr std::chrono::seconds kSealPause{5};
constexpr char kHandedOver[] = "a ring handed over by the host";

// The variable's value where it is an absolute path, else "": relative ones have no meaning here.
std::string folderFrom(const char* variable) {
    const char* const value = std::getenv(variable);
    return value && *value == '/' ? value : "";
}

// Nothing was sealed yet: no value in a row can be of the unbound form.
KeyRing newRing() {
    KeyRing ring;
    ring.add(makeKey());
    ring.requiresBoundForm = true;
    return ring;
}

// The key of the ring with that id, unless it seals. Returns why there is none, or "".
std::string findToChange(KeyRing& ring, const std::string& id, std::vector<Key>::iterator& key) {
    const std::optional<KeyId> wanted = keyIdOf(id);
    key = std::find_if(ring.keys.begin(), ring.keys.end(), [&](const Key& one) { return one.id == wanted; });
    if (key == ring.keys.end()) return "no such key in it";
    return key->state == KeyState::Sealing ? "that key seals: rotate the ring first" : "";
}

}  // namespace

void KeyStore::useFolder(const std::string& folder) {
    const std::lock_guard lock(mMutex);
    // What holds should the folder's name find no memory: no other folder's ring may seal in the place of this one's.
    mPlace = Place{Place::Kind::Folder, "", "", "out of memory"};
    mToldFolder = folder;
    mPlace.reset();
    mRing.reset();
    mWrapping.reset();
    mOpener.reset();
    mToldLocked = false;
}

bool KeyStore::useDescriptor(int descriptor) {
    const FileRead file = readDescriptor(descriptor);
    const std::lock_guard lock(mMutex);
    RingRead found = opened(file, Wait::Yes);
    if (found.state == KeyRingState::Broken) {
        LOG(7, AT "%s: %s", HERE, kHandedOver, found.reason.c_str());
        return false;
    }
    mPlace = Place{Place::Kind::HandedOver, "", kHandedOver, ""};
    mRing.reset();
    mWrapping = found.wrapping;
    mToldLocked = false;
    if (found.state == KeyRingState::Usable) keep(std::move(found));
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

// What stands at the place, unread.
FileRead KeyStore::readPlace() {
    if (!place().reason.empty()) return {KeyRingState::Broken, {}, place().reason};
    const bool credentials = place().kind == Place::Kind::Credentials;
    FileRead file = readFile(place().path, credentials ? Readers::GroupToo : Readers::OwnerOnly);
    if (file.state == KeyRingState::Absent) file.reason = "there is no key ring";
    return file;
}

// The ring of a text, plain or wrapped.
RingRead KeyStore::opened(const FileRead& file, Wait wait) {
    if (file.state != KeyRingState::Usable || !isWrapped(viewOf(file.bytes))) return parseRing(file);
    RingRead read{KeyRingState::Broken, {}, ""};
    std::optional<WrappedRing> wrapping = parseWrappedRing(viewOf(file.bytes), read.reason);
    if (!wrapping) return read;
    RingOpener::Opened text = mOpener.open(*wrapping, wait);
    read = parseRing({text.state, std::move(text.text), std::move(text.reason)});
    read.wrapping = std::move(wrapping);
    read.master = std::move(text.master);
    return read;
}

RingRead KeyStore::read(Wait wait) {
    if (place().kind != Place::Kind::HandedOver) {
        RingRead found = opened(readPlace(), wait);
        if (!mRing && found.state == KeyRingState::Locked) mWrapping = found.wrapping;
        if (mRing || !mWrapping || found.state != KeyRingState::Absent) return found;
        return {KeyRingState::Broken, {}, "the wrapped key ring that stood there is gone"};  // and no other is made
    }
    if (mRing) return {KeyRingState::Usable, *mRing, "", mWrapping, mOpener.master()};
    return opened({KeyRingState::Usable, formatWrappedRing(*mWrapping), ""}, wait);
}

// Whoever was killed while a ring was made plain again may have left a plain one beside the wrapped one.
void KeyStore::removePlainLeftover() {
    std::string ignored;
    if (place().folder.empty() || ::access((place().path + ".new").c_str(), F_OK) != 0) return;
    if (const auto folder = LockedFolder::lock(place().folder, {}, ignored)) folder->removeLeftover(kFileName);
}

// From now on this is the ring in memory.
void KeyStore::keep(RingRead found) {
    mRing = std::make_shared<const KeyRing>(std::move(found.ring));
    if (found.wrapping) mOpener.keep(*found.wrapping, found.master);
    mWrapping = std::move(found.wrapping);
    if (std::exchange(mToldLocked, false)) LOG(6, AT "%s: it is open now", HERE, place().path.c_str());
}

// Why what stands in the file is none that the ring in memory can have become, or "".
std::string KeyStore::strangenessOf(const RingRead& found) const {
    // Only this process would have taken the wrap off.
    if (mWrapping && !found.wrapping) return "a plain key ring stands there in the place of a wrapped one";
    if (!mRing) return "";
    // A rotation keeps the key that seals. Where it is gone the folder was exchanged beneath the process.
    if (!found.ring.find(mRing->current().id)) return "another key ring stands there";
    // That is required for good: an earlier copy was put back, and would open values in rows that are not theirs.
    return mRing->requiresBoundForm && !found.ring.requiresBoundForm ? "an earlier key ring stands there" : "";
}

// Logs why there is no ring to be used: of one that is locked once, since every call would come to that. Always false.
bool KeyStore::tellUnusable(const RingRead& found) {
    const bool isLocked = found.state == KeyRingState::Locked;
    if (!isLocked || !mToldLocked) LOG(7, AT "%s: %s", HERE, place().path.c_str(), found.reason.c_str());
    mToldLocked = isLocked;
    return false;
}

// Brings the ring in memory up to date with its file. False, with a line logged, where there is none then.
bool KeyStore::update(bool makeIfAbsent) {
    if (place().kind == Place::Kind::HandedOver && mRing) return true;
    RingRead found = read();
    if (found.state == KeyRingState::Usable) found.reason = strangenessOf(found);
    if (found.state == KeyRingState::Usable && found.reason.empty()) {
        keep(std::move(found));
        return true;
    }
    if (found.state == KeyRingState::Absent && makeIfAbsent && !place().folder.empty()) {
        found.reason = makeRing();
        if (found.reason.empty()) return true;
    }
    if (!mRing) return tellUnusable(found);
    LOG(6, AT "%s: %s; going on with the keys in memory", HERE, place().path.c_str(), found.reason.c_str());
    return true;
}

// The file's text of a ring: wrapped as it was, where it was. Throws CryptoFailure.
SecretBytes KeyStore::textOf(const RingRead& ring) {
    SecretBytes text = formatKeyRing(ring.ring);
    if (!ring.wrapping) return text;
    WrappedRing wrapped = *ring.wrapping;
    sealRing(wrapped, ring.master, text);
    return formatWrappedRing(wrapped);
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
    if (found.state == KeyRingState::Broken || found.state == KeyRingState::Locked) return found.reason;
    if (found.state == KeyRingState::Usable) {
        reason = strangenessOf(found);
        if (!reason.empty()) return reason;
    } else {
        if (!folder) return reason;
        found.ring = mRing ? *mRing : newRing();
        found.wrapping = mWrapping;
        found.master = mOpener.master();
        if (!folder->create(kFileName, textOf(found), reason)) return reason;
        if (mRing) LOG(6, AT "%s: the key ring was gone; it is written again from memory", HERE, place().path.c_str());
    }
    keep(std::move(found));
    return "";
}

std::string KeyStore::edited(const Edit& edit) {
    if (place().folder.empty()) return "it is not for this process to write";
    std::string reason;
    const std::optional<LockedFolder> folder = LockedFolder::lock(place().folder, kRotateWait, reason);
    if (!folder) return reason;
    RingRead found = read();
    if (found.state != KeyRingState::Usable) return found.reason;
    reason = strangenessOf(found);
    if (!reason.empty()) return reason;
    const SecretBytes before = formatKeyRing(found.ring);
    reason = edit(found.ring);
    if (!reason.empty()) return reason;
    const bool isChanged = formatKeyRing(found.ring) != before;
    if (isChanged && !folder->replace(kFileName, textOf(found), reason)) return reason;
    keep(std::move(found));
    return "";
}

// toBe: what was to become of the ring or of a key, for the line that tells that it did not.
bool KeyStore::change(const char* toBe, const Edit& edit) {
    const std::lock_guard lock(mMutex);
    // All who seal would wait along for whoever is asked for a slot's key.
    const std::string reason = mIsAsking ? "its slots are being changed" : edited(edit);
    if (!reason.empty()) LOG(7, AT "%s: can't %s: %s", HERE, place().path.c_str(), toBe, reason.c_str());
    return reason.empty();
}

std::shared_ptr<const KeyRing> KeyStore::ringToSeal() {
    const std::lock_guard lock(mMutex);
    if (!mRing || !mCounter.has(mRing->current().id)) {
        if (!update(true) || !mCounter.reserve(mRing->current().id)) return nullptr;
    }
    mCounter.take();
    return mRing;
}

std::shared_ptr<const KeyRing> KeyStore::ringToOpen(const KeyId& id, SDSecurity::OpenResult& why) {
    const std::lock_guard lock(mMutex);
    const auto opens = [](const Key* key) { return key && key->state != KeyState::Disabled; };
    if (mRing && opens(mRing->find(id))) return mRing;
    if (!update(false)) {
        why = mToldLocked ? SDSecurity::OpenResult::RingLocked : SDSecurity::OpenResult::RingUnusable;
        return nullptr;
    }
    const Key* const key = mRing->find(id);
    if (opens(key)) return mRing;
    why = key ? SDSecurity::OpenResult::KeyDisabled : SDSecurity::OpenResult::KeyMissing;
    if (key)
        LOG(7, AT "%s: key %s is disabled", HERE, place().path.c_str(), toHex(id).c_str());
    else
        LOG(7, AT "%s: no key %s in it", HERE, place().path.c_str(), toHex(id).c_str());
    return nullptr;
}

SDSecurity::KeyRingStatus KeyStore::check(Wait wait) {
    const std::lock_guard lock(mMutex);
    if (place().kind == Place::Kind::HandedOver && mRing) return {KeyRingState::Usable, place().path};
    RingRead found = read(wait);
    if (found.state == KeyRingState::Usable) {
        found.reason = strangenessOf(found);
        if (!found.reason.empty()) found.state = KeyRingState::Broken;
    }
    SDSecurity::KeyRingStatus status{found.state, place().path};
    if (!found.reason.empty()) status.detail += ": " + found.reason;
    if (found.state != KeyRingState::Usable) return status;
    if (found.wrapping && mOpener.watchesKeyring()) removePlainLeftover();  // a process that serves
    keep(std::move(found));
    return status;
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
    const RingRead found = read(Wait::No);
    return found.state == KeyRingState::Usable ? found.ring.current() : makeKey();
}

std::vector<SDSecurity::KeyInfo> KeyStore::keys() {
    const std::lock_guard lock(mMutex);
    const RingRead found = read();
    if (found.state != KeyRingState::Usable) tellUnusable(found);
    SealCounts counts;
    if (!place().folder.empty()) counts = storedCounts(place().folder);
    std::vector<SDSecurity::KeyInfo> all;
    for (const Key& key : found.ring.keys) {
        const std::string id = toHex(key.id);
        all.push_back({id, key.state, key.made, key.version, counts[id]});
    }
    return all;
}

bool KeyStore::requiresBoundForm() {
    const std::lock_guard lock(mMutex);
    const RingRead found = read();
    return found.state == KeyRingState::Usable && found.ring.requiresBoundForm;
}

bool KeyStore::rotate() {
    return change("be rotated", [](KeyRing& ring) {
        if (ring.keys.size() == kMaxKeys) return "it is full";
        ring.add(makeKey());
        return "";
    });
}

bool KeyStore::setState(const std::string& id, KeyState state) {
    const bool isDisabled = state == KeyState::Disabled;
    return change(isDisabled ? "disable a key" : "enable a key", [&](KeyRing& ring) -> std::string {
        if (state == KeyState::Sealing) return "a key seals from its making to the next rotation";
        std::vector<Key>::iterator key;
        std::string reason = findToChange(ring, id, key);
        if (reason.empty()) key->state = state;
        return reason;
    });
}

bool KeyStore::removeKey(const std::string& id) {
    return change("remove a key", [&](KeyRing& ring) {
        std::vector<Key>::iterator key;
        std::string reason = findToChange(ring, id, key);
        if (reason.empty()) ring.keys.erase(key);
        return reason;
    });
}

bool KeyStore::requireBoundForm() {
    return change("require the bound form", [](KeyRing& ring) {
        ring.requiresBoundForm = true;
        return "";
    });
}

}  // namespace sd::security
