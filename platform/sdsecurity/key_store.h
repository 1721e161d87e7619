// Where this process has its key ring from, and when it looks at it again.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/sdsecurity/key_ring.h"
#include "platform/sdsecurity/ring_file.h"
#include "platform/sdsecurity/ring_opener.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "platform/sdsecurity/seal_counter.h"

namespace sd::security {

// A usable ring is kept in memory and read again only when a block of seals is used up or an envelope names a key that
// it does not hold: another process may have rotated. A ring that is broken or absent is looked at by every operation,
// so that a repair needs no restart. Where the file is gone, the next block puts what is in memory there again: a new
// ring would strand what was sealed before. A wrapped ring stays wrapped. Any thread. Operations throw CryptoFailure.
class KeyStore {
public:
    // "" is the default folder.
    void useFolder(const std::string& folder);
    bool useDescriptor(int descriptor);
    void setSealSocket(const std::string& path);
    void setKeyringProgram(const std::string& path);
    void watchKeyring();

    // The ring whose current key may seal one value more; makes the file if there is none. Null with a line logged.
    std::shared_ptr<const KeyRing> ringToSeal();
    // A ring that holds the key, and may open with it. Null with a line logged, and why.
    std::shared_ptr<const KeyRing> ringToOpen(const KeyId& id, SDSecurity::OpenResult& why);

    // A key like that which will seal next: where there is no ring yet, one that is then forgotten.
    Key keyToTry();

    SDSecurity::KeyRingStatus check(Wait wait = Wait::Yes);
    SDSecurity::KeyUse use();
    std::vector<SDSecurity::KeyInfo> keys();
    bool requiresBoundForm();

    // Change the ring. False with a line logged, and the ring as it was.
    bool rotate();
    bool setState(const std::string& id, KeyState state);
    bool removeKey(const std::string& id);
    bool requireBoundForm();

    // The slots of a wrapped ring (key_store_slots.cpp), as SDSecurity has them.
    using SlotResult = SDSecurity::SlotResult;
    using SlotKeys = SDSecurity::SlotKeys;
    std::vector<SDSecurity::SlotInfo> slots();
    std::vector<SDSecurity::SlotInfo> knownSlots();
    SlotResult makeSlotKey(SlotKind kind, SDSecurity::SlotUse use, const std::string& typed, std::string& key);
    SlotResult protect(SlotKind kind, const SlotKeys& keys);
    SlotResult unprotect(SlotKind kind, const SlotKeys& keys);
    SlotResult unprotectAll();
    SlotResult unlock(const std::string& key);
    SlotResult recover(const std::string& key);

private:
    static constexpr char kFileName[] = "sdsecurity.keys";

    struct Place {
        enum class Kind { Folder, DefaultFolder, Credentials, HandedOver } kind;
        std::string folder;  // where this layer may write; empty for what was handed over
        std::string path;    // of the ring
        std::string reason;  // why there is no such place, or ""
    };
    static std::optional<Place> credentialsPlace();
    static Place defaultPlace();

    const Place& place();
    FileRead readPlace();
    RingRead opened(const FileRead& file, Wait wait);
    RingRead read(Wait wait = Wait::Yes);
    void keep(RingRead found);
    void removePlainLeftover();
    std::string strangenessOf(const RingRead& found) const;
    bool tellUnusable(const RingRead& found);
    static SecretBytes textOf(const RingRead& ring);
    bool update(bool makeIfAbsent);
    std::string makeRing();
    // Changes a ring. Returns why it can't, or "".
    using Edit = std::function<std::string(KeyRing&)>;
    std::string edited(const Edit& edit);
    bool change(const char* toBe, const Edit& edit);

    // A ring that is to be changed: as it stands, with the folder held.
    struct Held {
        LockedFolder folder;
        RingRead found;
    };
    std::optional<WrappedRing> wrappingThere(SlotResult& why);
    std::optional<WrappedRing> wrappingToTell();
    SlotResult hold(std::optional<Held>& held);
    struct NewSlot;
    SlotResult makeSlot(SlotKind kind, const std::string& typedKey, NewSlot& made);
    SlotResult keepSlot(const Slot& standing, const std::string& typedKey, NewSlot& made) const;
    SlotResult tried(const FileRead& file, const SecretBytes& text, const std::vector<NewSlot>& slots);
    SlotResult wrap(Held& held, SlotKind kind, const SlotKeys& keys);
    SlotResult addSlot(Held& held, SlotKind kind, const SlotKeys& keys);
    SlotResult renew(Held& held, SlotKind kind, bool removes, const SlotKeys& keys);
    SlotResult store(Held& held, RingRead next, const SecretBytes& master, std::vector<NewSlot> slots);
    // The next two, makeSlot and tried give mMutex back while they ask.
    SlotAnswer ask(const Slot& slot);
    void forget(const std::vector<Slot>& slots);
    SlotResult openBy(SlotKind kind, const std::string& key);

    // Held while slots are changed, before the other one; that is given back while somebody is asked for a slot's key,
    // so that values are sealed and opened meanwhile.
    std::mutex mChangingSlots;
    std::mutex mMutex;       // guards all below
    bool mIsAsking = false;  // for a slot's key, with the folder held
    std::string mToldFolder;
    std::optional<Place> mPlace;
    std::shared_ptr<const KeyRing> mRing;
    std::optional<WrappedRing> mWrapping;  // that mRing stands in, or a locked one
    RingOpener mOpener;
    bool mToldLocked = false;
    std::chrono::steady_clock::time_point mWaitAgain{};  // for the folder's lock, to make a ring
    SealCounter mCounter;
};

}  // namespace sd::security
