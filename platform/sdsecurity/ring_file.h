// The files of the security layer: read with suspicion, written whole or not at all.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "base/unique_fd.h"
#include "platform/sdsecurity/key_ring.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "platform/sdsecurity/system_error.h"
#include "platform/sdsecurity/wrapped_ring.h"

namespace sd::security {

// Who else than its owner may read a file. systemd shows the access list of a unit's credentials as a group's
// right.
enum class Readers { OwnerOnly, GroupToo };

struct FileRead {
    SDSecurity::KeyRingState state;  // of the file
    SecretBytes bytes;
    std::string reason;  // where it is broken
};
// Reads a file of at most kMaxWrappedText bytes: a plain one, no link, of the effective user or root.
FileRead readFile(const std::string& path, Readers readers);
// Reads what the host handed over, from its start to its end.
FileRead readDescriptor(int descriptor);

// How a ring was found, or what it was opened to.
struct RingRead {
    SDSecurity::KeyRingState state;
    KeyRing ring;
    std::string reason;
    std::optional<WrappedRing> wrapping{};  // that it stands in, if it does
    SecretBytes master{};                   // which opened that
};
// Of a plain ring's text.
RingRead parseRing(const FileRead& file);

// How long the lock of a folder is waited for; a holder needs milliseconds. All who call a service wait for its
// seals; who rotates can wait for a holder that is held up itself.
inline constexpr std::chrono::milliseconds kSealWait{200};
inline constexpr std::chrono::milliseconds kRotateWait{5000};

// A folder of the effective user, held against all other processes that would write there. One that belongs to
// somebody else is refused: a run as root would leave files there that its owner can't read.
class LockedFolder {
public:
    // Returns nothing, with the reason, where the lock can't be had in that time.
    static std::optional<LockedFolder> lock(const std::string& path, std::chrono::milliseconds wait,
                                            std::string& reason);
    LockedFolder(LockedFolder&&) noexcept = default;
    LockedFolder& operator=(LockedFolder&&) = delete;
    ~LockedFolder();

    // Writes a file of mode 0600 that is there whole or not at all, after a power cut too. False, with the reason
    // and the files as they were, where that fails; `create` fails where the file exists.
    bool create(const std::string& name, const SecretBytes& bytes, std::string& reason) const;
    bool replace(const std::string& name, const SecretBytes& bytes, std::string& reason) const;

    // What a process that was killed at its writing has left of a file: overwritten, and gone.
    void removeLeftover(const std::string& name) const;

    // As replace, where `trial` agrees with what was read back of the new file before it takes the old one's place.
    // It returns why it doesn't, or "".
    using Trial = std::function<std::string(const FileRead&)>;
    bool replaceTried(const std::string& name, const SecretBytes& bytes, const Trial& trial, std::string& reason) const;

private:
    LockedFolder(std::string path, UniqueFd folder, UniqueFd lock)
        : mPath(std::move(path)), mFolder(std::move(folder)), mLock(std::move(lock)) {}
    bool writeAside(const std::string& name, const SecretBytes& bytes, std::string& reason) const;

    std::string mPath;
    UniqueFd mFolder;
    UniqueFd mLock;
};

// A file that holds a plain ring now, held open to be overwritten once another has taken its place.
class PlainFile {
public:
    explicit PlainFile(const std::string& path);
    // Overwrites what is left of it. Returns why it was not, or "".
    std::string overwrite() const;

private:
    UniqueFd mFile;
};

// Makes a folder of mode 0700, and those above it too if `parents`. One that exists is left as it is.
bool makeFolder(const std::string& path, bool parents, std::string& reason);

}  // namespace sd::security
