// Writes a backup.
#pragma once

#include <sqlite3.h>

#include <string>
#include <vector>

#include "apps/data/data_files.h"
#include "apps/data/temporary_folder.h"
#include "apps/sdconfig/backup/backup_manifest.h"
#include "apps/sdconfig/files/whole_file.h"
#include "apps/sdconfig/terminal/interruption.h"
#include "apps/sdconfig/terminal/messages.h"

namespace cli {

// Works in a folder beside the file, so that there has to be room for the databases twice.
class BackupWriter {
public:
    // folder: the data folder, whose key ring the security layer knows.
    BackupWriter(const std::string& folder, const std::string& file, const Interruption& interruption);

    // The databases, each as it stands at one moment and none that is damaged. A running service is not held up.
    Problem copyDatabases();

    // The trail, after the databases: so it has all that they carry of it. One that can't be copied is left out, and
    // told.
    Problem copyTrail();

    // What the copies hold, as a digest under the key that seals, where there is one. After the databases.
    Problem addState();

    // The key ring, sealed. After all else: a later ring opens earlier values, never the reverse, and its seal covers
    // what stands before it.
    Problem addRing(const SecretText& passphrase);

    Problem writeFile(UnfinishedFile::Existing existing) const;

    // What the copies hold, of each of apps::kLayouts.
    std::size_t count(std::size_t layout) const { return mCounts.at(layout); }
    const BackupManifest::State& state() const { return *mManifest.state; }
    bool hasSealed() const { return mSealed > 0; }
    std::size_t unreadable() const { return mUnreadable; }

private:
    std::string copyOf(const std::string& file) const { return mStaging.path() + "/" + file; }
    Problem copyDatabase(const apps::DatabaseLayout& layout);
    Problem describe(const std::string& copy, BackupManifest::Database& description);
    std::string copy(sqlite3* source, const std::string& path) const;
    Problem unwritten() const;  // as errno has it
    Problem stopped() const;    // or interrupted

    const std::string mFolder;
    const std::string mFile;
    const Interruption& mInterruption;
    const apps::TemporaryFolder mStaging;
    BackupManifest mManifest;
    std::vector<std::size_t> mCounts;
    std::size_t mSealed = 0;
    std::size_t mUnreadable = 0;
};

}  // namespace cli
