// The first lines of a backup: what follows them, and the key ring. docs/security.md has the format.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "apps/sdconfig/backup/backup_seal.h"

namespace cli {

struct BackupManifest {
    struct Database {
        std::uint64_t size;
        std::string digest;  // in hexadecimal
    };
    std::vector<Database> databases;  // one for each of apps::kLayouts, in that order
    // What the databases held; nothing in a backup of the first format.
    struct State {
        std::int64_t made;   // when they were copied, seconds since 1970
        std::string digest;  // apps/common/digest_text.h; "" where there was no key ring that could be used
    };
    std::optional<State> state;
    struct TrailFile {
        std::string name;
        Database file;
    };
    std::vector<TrailFile> trail;  // the oldest first; none before the third format
    std::optional<SealedRing> ring;
};

// What each begins with; the number of the format follows.
inline constexpr std::string_view kBackupName = "sdconfig-backup ";
inline constexpr char kLatestFormat = '3';

// The bound of a manifest: a wrapped key ring has 96 KiB at most, and a digit is half a byte; a file of the trail takes
// 125 bytes, and there are 1,001 at most.
inline constexpr std::size_t kMaxManifest = std::size_t{336} << 10;

// What a sealed ring is bound to: everything but itself.
std::string contextOf(const BackupManifest& manifest);

std::string formatManifest(const BackupManifest& manifest);

// Reads a manifest at the beginning of `text`, of which `length` bytes are it then. Any bytes are safe. Returns nothing
// where it is not exactly what formatManifest makes.
std::optional<BackupManifest> parseManifest(std::string_view text, std::size_t& length);

}  // namespace cli
