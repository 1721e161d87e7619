// The security layer: seals and opens short secrets, and answers named constants.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#define SDSECURITY_API __attribute__((visibility("default")))

// What a host's own library of this name may lack: weak for all but the layer itself, so that a caller is loaded
// without it, and asks for its address before the call.
#ifndef SDSECURITY_OPTIONAL
#define SDSECURITY_OPTIONAL __attribute__((weak))
#endif

namespace sd {

// The row that a sealed value belongs to. Refers to the caller's texts.
struct SDSecurityRow {
    std::string_view database;  // the file's name, without its folder
    std::string_view table;
    std::string_view key;  // the letter case of A to Z doesn't count, as in a column COLLATE NOCASE
};

// Sealing is AES-256-GCM with a fresh random nonce a value, under the current key of a key ring: one file,
// "sdsecurity.keys", that the first seal makes. docs/security.md tells the formats and what they protect against.
// All operations may be called from any thread; none throws. A child that is forked off a process with threads leaves
// them alone, as it does the stores, until it has called exec(): it asks the service like any other process.
class SDSECURITY_API SDSecurity {
public:
    // The process's one instance. It is never destroyed, so static destructors may still use it.
    static SDSecurity* GetInstance();

    // Seals `plain` (any bytes) and returns an envelope: printable text without blanks, about 1.4 times as long as
    // `plain` plus 50 bytes. Makes the key ring if there is none yet.
    // Returns "" when the ring can't be used or made; one line is logged, without key material.
    std::string FastEncrypt(const std::string& plain);

    // Opens an envelope that FastEncrypt made, by the key of the ring that it names.
    // cipher: the text as it was stored; any bytes are safe.
    // Returns the plain bytes, or "" when the text is foreign, cut short or tampered with, when its key has left the
    // ring, or when the ring can't be used. Each failure logs one line, which holds neither the text nor key material.
    // What was sealed for a row (below) does not open here. Never creates a ring.
    std::string FastDecrypt(const std::string& cipher);

    // The constant that the host registered under `name`, or "".
    std::string GetString(const std::string& name);

    // ---- Values that stand in a database; static, so that there is an address to ask for ----

    enum class OpenResult {
        Done,
        NoEnvelope,    // the text is none that sealing writes
        Changed,       // after it was sealed
        OtherRow,      // sealed for another row than this
        UnboundForm,   // sealed for no row, which the ring no longer allows
        KeyMissing,    // the ring has no such key
        KeyDisabled,   // the ring has it, and it opens nothing for now
        RingUnusable,  // there is none, or it can't be used
        Failed,        // memory ran out, or OpenSSL could not be loaded
        RingLocked,    // it is there, and nothing at hand opens it now
    };

    // As FastEncrypt, for this row alone: moved to another key, table or database it opens no more.
    SDSECURITY_OPTIONAL static std::string EncryptForRow(const SDSecurityRow& row, const std::string& plain);

    // Opens what EncryptForRow made for the same row; and what FastEncrypt made, until the ring requires the bound
    // form. Returns as FastDecrypt does, with lines that name the row. why: where the reason goes, or null.
    SDSECURITY_OPTIONAL static std::string DecryptForRow(const SDSecurityRow& row, const std::string& cipher,
                                                         OpenResult* why = nullptr);

    // ---- For the host process, before the first of the operations above ----

    // Names the folder that holds the ring. Untold, it is $XDG_DATA_HOME/sdconfig (~/.local/share/sdconfig); a file
    // "sdsecurity.keys" in $CREDENTIALS_DIRECTORY comes before both and is never written to.
    void SetKeyRingFolder(const std::string& folder);

    // Takes the ring from an open descriptor (read from its start to its end; the caller keeps and closes it).
    // Returns false, and changes nothing, when what it holds is no ring.
    bool SetKeyRingDescriptor(int descriptor);

    // Who keeps the keys of a wrapped ring's slots (below); untold, who the machine has: the socket of root's seal
    // service, and the program that asks the login keyring.
    SDSECURITY_OPTIONAL void SetSealSocket(const std::string& path);
    SDSECURITY_OPTIONAL void SetKeyringProgram(const std::string& path);

    // Answers GetString(name). A later registration of the same name replaces the earlier one.
    void RegisterString(const std::string& name, const std::string& value);

    enum class KeyRingState {
        Usable,  // there, and every key in it is sound
        Absent,  // not made yet: the first seal makes it
        Broken,  // there, but unreadable, malformed, too widely readable, or somebody else's
        Locked,  // there and sound, but wrapped, and nothing at hand opens it now: Unlock and Recover do
    };
    struct KeyRingStatus {
        KeyRingState state;
        std::string detail;  // the ring's path and, where it is broken or locked, the reason; no key material
    };

    // Looks at the ring without making or changing it. One that can be used is kept in memory, and written again where
    // its file is gone when the next value is sealed. Waits for a wrapped one to be opened, 5 s at most.
    SDSECURITY_OPTIONAL KeyRingStatus CheckKeyRing();

    // As CheckKeyRing, but begins to open a wrapped ring and doesn't wait: it is Locked until that is done. What needs
    // the ring from then on waits. For the process that serves: the ring opens, too, when the login keyring is unlocked
    // later; and once it is open a plain one that was left beside it, where a process was killed, is removed.
    SDSECURITY_OPTIONAL KeyRingStatus OpenKeyRingAhead();

    enum class KeyUse {
        Fine,
        HalfUsed,  // it has sealed half of the values that it is good for, or more
        UsedUp,    // it seals no more
    };
    // How far the key that seals is used up, as the count beside its ring tells; RotateKey helps. Fine without a ring,
    // and with one that was handed over, which each process counts by itself.
    KeyUse CheckKeyUse();

    // Seals a text and opens it again, with the key that seals, or with a fresh one where there is no ring yet. Makes,
    // changes and counts nothing. Returns why that can't be done, or "". A host that begins with it learns of a missing
    // cipher before it is called, and finds OpenSSL set up from then on.
    std::string SelfTest();

    // Adds a fresh key to the ring, with which everything is sealed from now on; values sealed earlier still open.
    // Returns false, with a line logged and the ring as it was, when the ring can't be written.
    SDSECURITY_OPTIONAL bool RotateKey();

    // ---- The keys of the ring; each operation looks at the file itself, held where it changes it ----

    enum class KeyState {
        Sealing,   // exactly one: seals, and opens
        Opening,   // opens
        Disabled,  // neither, until it is enabled again
    };
    struct KeyInfo {
        std::string id;  // 16 hexadecimal digits
        KeyState state;
        std::int64_t made;    // seconds since 1970; 0 where that is not known
        std::string version;  // of the library that made it; "" where that is not known
        std::uint64_t seals;  // how many values it has sealed, in round numbers; 0 for a ring that was handed over
    };

    static constexpr std::size_t kMostKeys = 199;  // of a ring

    // In the order in which they were made. Empty, with a line logged, where there is no ring that can be used.
    SDSECURITY_OPTIONAL std::vector<KeyInfo> Keys();

    // Disables a key, or enables it again (Opening). Those who have the ring in memory see it when they next look at
    // it. Returns false, with a line logged and the ring as it was, for a key that seals or isn't there, and when the
    // ring can't be written. True where the key has that state already.
    SDSECURITY_OPTIONAL bool SetKeyState(const std::string& id, KeyState state);

    // Takes a key out of the ring: what it has sealed can't be opened by anybody then. Returns as SetKeyState does.
    // A process that still seals with it, since it has not looked at the ring since, would go on: the one that serves
    // the values is to call this.
    SDSECURITY_OPTIONAL bool RemoveKey(const std::string& id);

    // From now on DecryptForRow opens only what was sealed for its row; for good. Returns as RotateKey does.
    SDSECURITY_OPTIONAL bool RequireBoundForm();
    // Whether that is so; false without a ring that can be used. A ring that is made new requires it.
    bool RequiresBoundForm();

    // A digest of the texts under a key of the ring: who has not the ring can neither foresee nor forge it. Where a
    // text ends counts, and their order. 64 hexadecimal digits; "" with a line logged where there is no such key, or it
    // is disabled.
    SDSECURITY_OPTIONAL static std::string DigestUnderKey(const std::string& id,
                                                          const std::vector<std::string_view>& texts);

    struct Seal {
        std::string keyId;
        bool isBound;  // to a row
    };
    // How a text was sealed, as it says of itself: without opening it, without a ring. Nothing where it is no envelope.
    SDSECURITY_OPTIONAL static std::optional<Seal> SealOf(const std::string& cipher);

    // ---- A ring that is wrapped under a master key, which stands in slots: any one opens it ----

    enum class SlotKind {
        Recovery,    // a code that was shown once; every wrapped ring has this slot
        Passphrase,  // typed, or handed over by the system in $CREDENTIALS_DIRECTORY/sdsecurity.passphrase
        Host,        // the machine's own key, as root's seal service has it
        Keyring,     // the login keyring
    };
    enum class SlotState {
        Opens,     // now and here
        Typed,     // by what a person knows: that is not tried
        NotNow,    // who is to be asked does not answer, or is locked
        Refused,   // who was asked can't: it is for another machine or user, or was changed
        NotAsked,  // it was not needed yet
    };
    struct SlotInfo {
        SlotKind kind;
        std::int64_t made;  // seconds since 1970
        SlotState state;
        std::string reason;  // where it does not open, for a person
    };

    // The slots of the ring, in the order of their kinds; empty for a plain ring, and with a line logged where it can't
    // be read. Asks for the keys of slots that nobody types, which takes up to 5 s each.
    SDSECURITY_OPTIONAL std::vector<SlotInfo> Slots();
    // The same as it is known from the opening of the ring, or NotAsked. Asks nobody.
    SDSECURITY_OPTIONAL std::vector<SlotInfo> KnownSlots();

    enum class SlotOutcome {
        Done,
        NoRing,           // it is not made yet: the first seal makes it
        RingUnusable,     // it can't be read, or is none that the ring in memory can have become
        NotWrapped,       // it is plain, and has no slots
        Locked,           // nothing opens it now
        NoSuchSlot,       // it has none of that kind
        LastSlot,         // the only one beside that of the recovery code
        Mistyped,         // what was typed can be no recovery code, or is empty
        WrongKey,         // what was typed opens nothing
        NeedsRecovery,    // a new recovery code has to come along
        NeedsPassphrase,  // the passphrase has to come along
        NotNow,           // who seals or keeps the slot's key does not answer, or is locked
        Refused,          // who seals or keeps the slot's key can't
        NotOurs,          // it was handed over: not for this process to write
        NotStored,        // the file can't be written
        Failed,           // memory ran out, or OpenSSL could not be loaded
    };
    // The ring is as it was, unless it says Done.
    struct SlotResult {
        SlotOutcome outcome;
        std::string reason;  // for a person; where it is done, what else is to be known, or "". No key material.
    };

    // A fresh recovery code, 28 letters and digits in groups, to be shown once. "" with a line logged on failure.
    SDSECURITY_OPTIONAL static std::string MakeRecoveryCode();

    // Stretches what was typed for a slot: a recovery code as it was shown, in whatever spelling, or a passphrase.
    // Takes half a second and 128 MiB; a code that was mistyped is told before. Fresh: for a slot that is to be made.
    // Standing: for the slot of that kind that the ring has. key: where the slot's key goes, a text for the operations
    // below, of this process or the one that serves. It opens what the typed text opens; the caller wipes it.
    enum class SlotUse { Fresh, Standing };
    SDSECURITY_OPTIONAL SlotResult MakeSlotKey(SlotKind kind, SlotUse use, const std::string& typed, std::string& key);

    // Keys as MakeSlotKey makes them; "" for one that is not at hand.
    struct SlotKeys {
        std::string recovery;
        std::string passphrase;
    };

    // Makes a slot. What it was to open is tried on the new file before that takes the old one's place.
    // A plain ring is wrapped: by a slot of any kind but Recovery, and with keys.recovery, fresh. The plain file is
    // overwritten then; where that can't be done the result's reason tells.
    // A wrapped one gets the slot beside its others, or anew: Host and Keyring take no key, Passphrase takes
    // keys.passphrase, fresh.
    // Where an earlier code or passphrase is to open no more, the master key is made anew as Unprotect does it:
    // Recovery takes keys.recovery, fresh, and, where there is a slot of it, keys.passphrase, standing; Passphrase,
    // where there is one, both fresh.
    SDSECURITY_OPTIONAL SlotResult Protect(SlotKind kind, const SlotKeys& keys);

    // Removes a slot, and makes the master key and those of all other slots anew, and a key that seals from then on:
    // who had the slot and an earlier copy of the file opens nothing that is written later. Takes keys.recovery, fresh,
    // and, where a slot of it stays, keys.passphrase, standing. The last slot beside Recovery stays.
    SDSECURITY_OPTIONAL SlotResult Unprotect(SlotKind kind, const SlotKeys& keys);

    // Makes the ring a plain one again.
    SDSECURITY_OPTIONAL SlotResult UnprotectAll();

    // Opens the ring by its passphrase for this process. key: standing.
    SDSECURITY_OPTIONAL SlotResult Unlock(const std::string& key);

    // Opens the ring by its recovery code, and makes each slot of Host and Keyring anew that does not open here; the
    // result's reason names those that could not be made. key: standing.
    SDSECURITY_OPTIONAL SlotResult Recover(const std::string& key);

    SDSecurity(const SDSecurity&) = delete;
    SDSecurity& operator=(const SDSecurity&) = delete;

private:
    SDSecurity();
    ~SDSecurity();
    struct State;
    std::unique_ptr<State> mState;
};

}  // namespace sd
