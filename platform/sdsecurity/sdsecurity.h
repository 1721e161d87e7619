// The security layer: seals and opens short secrets, and answers named constants.
#pragma once

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

    // Answers GetString(name). A later registration of the same name replaces the earlier one.
    void RegisterString(const std::string& name, const std::string& value);

    enum class KeyRingState {
        Usable,  // there, and every key in it is sound
        Absent,  // not made yet: the first seal makes it
        Broken,  // there, but unreadable, malformed, too widely readable, or somebody else's
    };
    struct KeyRingStatus {
        KeyRingState state;
        std::string detail;  // the ring's path and, where it is broken, the reason; no key material
    };

    // Looks at the ring without making or changing it. One that can be used is kept in memory, and written again where
    // its file is gone when the next value is sealed.
    SDSECURITY_OPTIONAL KeyRingStatus CheckKeyRing();

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
    std::string DigestUnderKey(const std::string& id, const std::vector<std::string_view>& texts);

    struct Seal {
        std::string keyId;
        bool isBound;  // to a row
    };
    // How a text was sealed, as it says of itself: without opening it, without a ring. Nothing where it is no envelope.
    SDSECURITY_OPTIONAL static std::optional<Seal> SealOf(const std::string& cipher);

    SDSecurity(const SDSecurity&) = delete;
    SDSecurity& operator=(const SDSecurity&) = delete;

private:
    SDSecurity();
    ~SDSecurity();
    struct State;
    std::unique_ptr<State> mState;
};

}  // namespace sd
