#include "apps/sdconfig/backup/backup_manifest.h"

#include <sstream>

#include "apps/common/digest_text.h"
#include "apps/data/data_files.h"
#include "apps/sdconfig/backup/hex.h"
#include "apps/sdconfig/backup/trail_copy.h"

namespace cli {

namespace {

constexpr std::string_view kNoDigest = "-";
constexpr std::string_view kTrail = "trail";
constexpr std::string_view kSum = "sum ";
constexpr std::size_t kDigestDigits = 64;

std::string ringLine(const SealedRing& ring) {
    std::ostringstream line;
    line << "keys scrypt " << ring.cost << ' ' << SealedRing::kBlockSize << ' ' << SealedRing::kParallel << ' '
         << toHex(ring.salt) << ' ' << toHex(ring.nonce) << ' ' << toHex(ring.bytes) << '\n';
    return line.str();
}

// The words are taken as they come: what they should be is told by writing them again.
std::optional<SealedRing> readRing(std::istream& line) {
    SealedRing ring;
    std::string word;
    std::string salt;
    std::string nonce;
    std::string bytes;
    if (!(line >> ring.cost >> word >> word >> salt >> nonce >> bytes)) return std::nullopt;
    ring.salt = fromHex(salt);
    ring.nonce = fromHex(nonce);
    ring.bytes = fromHex(bytes);
    const bool fits = ring.cost >= SealedRing::kLeastCost && ring.cost <= SealedRing::kMostCost &&
                      ring.salt.size() == SealedRing::kSaltBytes && ring.nonce.size() == SealedRing::kNonceBytes &&
                      ring.bytes.size() > SealedRing::kTagBytes;
    return fits ? std::optional(ring) : std::nullopt;
}

std::string digestWord(const BackupManifest::State& state) {
    return state.digest.empty() ? std::string(kNoDigest) : state.digest;
}

std::optional<BackupManifest::State> readState(std::istream& line) {
    BackupManifest::State state{};
    std::string word;
    if (!(line >> word >> state.made >> state.digest) || state.made <= 0) return std::nullopt;
    if (state.digest == kNoDigest) state.digest.clear();
    const bool fits = state.digest.empty() || apps::isDigestText(state.digest);
    return fits ? std::optional(state) : std::nullopt;
}

}  // namespace

std::string contextOf(const BackupManifest& manifest) {
    std::ostringstream text;
    text << kBackupName << (!manifest.trail.empty() ? 3 : manifest.state ? 2 : 1) << '\n';
    for (std::size_t i = 0; i < apps::kLayouts.size(); ++i)
        text << "database " << apps::kLayouts[i]->file << ' ' << manifest.databases[i].size << ' '
             << manifest.databases[i].digest << '\n';
    if (manifest.state) text << "state " << manifest.state->made << ' ' << digestWord(*manifest.state) << '\n';
    for (const BackupManifest::TrailFile& one : manifest.trail)
        text << kTrail << ' ' << one.name << ' ' << one.file.size << ' ' << one.file.digest << '\n';
    return text.str();
}

std::string formatManifest(const BackupManifest& manifest) {
    const std::string text = contextOf(manifest) + (manifest.ring ? ringLine(*manifest.ring) : "keys none\n");
    return text + std::string(kSum) + digestOf(text) + "\n";
}

std::optional<BackupManifest> parseManifest(std::string_view text, std::size_t& length) {
    const std::size_t sum = text.substr(0, kMaxManifest).find("\n" + std::string(kSum));
    if (sum == std::string_view::npos) return std::nullopt;
    length = sum + 1 + kSum.size() + kDigestDigits + 1;
    std::istringstream words{std::string(text.substr(0, sum))};
    std::string word;
    std::string format;
    words >> word >> format;
    BackupManifest manifest;
    for (std::size_t i = 0; i < apps::kLayouts.size(); ++i) {
        BackupManifest::Database database{};
        words >> word >> word >> database.size >> database.digest;
        manifest.databases.push_back(database);
    }
    if (format != "1" && !(manifest.state = readState(words))) return std::nullopt;
    while (words >> word && word == kTrail) {
        BackupManifest::TrailFile one{};
        words >> one.name >> one.file.size >> one.file.digest;
        if (!isTrailFile(one.name)) return std::nullopt;
        manifest.trail.push_back(std::move(one));
    }
    words >> word;
    if (word != "none" && !(manifest.ring = readRing(words))) return std::nullopt;
    if (formatManifest(manifest) != text.substr(0, length)) return std::nullopt;
    return manifest;
}

}  // namespace cli
