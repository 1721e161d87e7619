// Reads a backup, which may be anybody's: every byte is checked before it counts.
#pragma once

#include <fstream>
#include <string>

#include "apps/sdconfig/backup/backup_manifest.h"
#include "apps/sdconfig/terminal/interruption.h"
#include "apps/sdconfig/terminal/messages.h"

namespace cli {

class BackupReader {
public:
    explicit BackupReader(const std::string& path) : mPath(path) {}

    // Takes the manifest. Comes first.
    Problem open();
    bool hasRing() const { return mManifest.ring.has_value(); }
    bool hasTrail() const { return !mManifest.trail.empty(); }
    // Proven by unpackRing alone.
    const std::optional<BackupManifest::State>& state() const { return mManifest.state; }

    // Puts the files into the folder: the databases and the trail, all of them, and then the key ring.
    Problem unpackFiles(const std::string& folder, const Interruption& interruption);
    Problem unpackRing(const SecretText& passphrase, const std::string& folder) const;

private:
    Problem unpack(const BackupManifest::Database& database, const std::string& target,
                   const Interruption& interruption);

    const std::string mPath;
    std::ifstream mFile;
    BackupManifest mManifest;
};

// Puts a new file there, for the user's eyes alone.
Problem putFile(const std::string& path, const std::string& content);

}  // namespace cli
