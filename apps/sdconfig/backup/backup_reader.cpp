#include "apps/sdconfig/backup/backup_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "apps/data/data_files.h"
#include "apps/sdconfig/files/whole_file.h"

namespace cli {

namespace {

Problem damaged() {
    return {"the file is no backup, or a damaged one", "take another one"};
}

bool isOfLaterFormat(const std::string& text) {
    const std::size_t at = kBackupName.size();
    return text.compare(0, at, kBackupName) == 0 && text.size() > at && text[at] > kLatestFormat && text[at] <= '9';
}

Problem unwritten(const std::string& path) {
    return {path + " can't be written: " + std::strerror(errno),
            "see that the folder of DATA-DIR can be written and has room"};
}

}  // namespace

Problem BackupReader::open() {
    const char* const kNameIt = "name a file that \"backup\" wrote";
    std::error_code failure;
    const auto type = std::filesystem::status(mPath, failure).type();
    if (failure) return {"the file can't be read: " + failure.message(), kNameIt};
    if (type != std::filesystem::file_type::regular) return {"it is no regular file", kNameIt};
    mFile.open(mPath, std::ios::binary);
    if (!mFile.is_open()) return {std::string("the file can't be read: ") + std::strerror(errno), kNameIt};
    std::string text(kMaxManifest, '\0');
    mFile.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(mFile.gcount()));
    std::size_t length = 0;
    std::optional<BackupManifest> manifest = parseManifest(text, length);
    if (!manifest)
        return isOfLaterFormat(text) ? Problem{"the file is of a later version", "use that version"} : damaged();
    mManifest = std::move(*manifest);
    mFile.clear();
    mFile.seekg(static_cast<std::streamoff>(length));
    return {};
}

Problem BackupReader::unpackFiles(const std::string& folder, const Interruption& interruption) {
    for (std::size_t i = 0; i < apps::kLayouts.size(); ++i)
        if (Problem problem = unpack(mManifest.databases[i], folder + "/" + apps::kLayouts[i]->file, interruption))
            return problem;
    for (const BackupManifest::TrailFile& one : mManifest.trail)
        if (Problem problem = unpack(one.file, folder + "/" + one.name, interruption)) return problem;
    return mFile.peek() == std::ifstream::traits_type::eof() ? Problem{} : damaged();
}

Problem BackupReader::unpack(const BackupManifest::Database& database, const std::string& target,
                             const Interruption& interruption) {
    UnfinishedFile file(target);
    Digest digest;
    std::vector<char> piece(std::size_t{1} << 20);
    for (std::uint64_t left = database.size; left > 0;) {
        if (interruption.came()) return interrupted();
        mFile.read(piece.data(), static_cast<std::streamsize>(std::min<std::uint64_t>(left, piece.size())));
        const auto count = static_cast<std::size_t>(mFile.gcount());
        if (count == 0) return damaged();
        digest.add({piece.data(), count});
        if (!file.write({piece.data(), count})) return unwritten(target);
        left -= count;
    }
    if (digest.hex() != database.digest) return damaged();
    return file.putInPlace(UnfinishedFile::Existing::Keep) ? Problem{} : unwritten(target);
}

Problem BackupReader::unpackRing(const SecretText& passphrase, const std::string& folder) const {
    const std::optional<SecretText> ring = openRing(*mManifest.ring, passphrase, contextOf(mManifest));
    if (!ring) return {"the passphrase does not open the key ring, or the file was changed", "try another one"};
    return putFile(folder + "/" + apps::kRingFile, ring->get());
}

Problem putFile(const std::string& path, const std::string& content) {
    UnfinishedFile file(path);
    const bool done = file.write(content) && file.putInPlace(UnfinishedFile::Existing::Keep);
    return done ? Problem{} : unwritten(path);
}

}  // namespace cli
