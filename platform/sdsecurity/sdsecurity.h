// The security layer: seals and opens short secrets, and answers named constants.
#pragma once

#include <memory>
#include <string>

#define SDSECURITY_API __attribute__((visibility("default")))

namespace sd {

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
    // Never creates a ring.
    std::string FastDecrypt(const std::string& cipher);

    // The constant that the host registered under `name`, or "".
    std::string GetString(const std::string& name);

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
    KeyRingStatus CheckKeyRing();

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
    bool RotateKey();

    SDSecurity(const SDSecurity&) = delete;
    SDSecurity& operator=(const SDSecurity&) = delete;

private:
    SDSecurity();
    ~SDSecurity();
    struct State;
    std::unique_ptr<State> mState;
};

}  // namespace sd
