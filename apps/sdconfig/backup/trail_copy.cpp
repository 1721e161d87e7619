#include "apps/sdconfig/backup/trail_copy.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <string_view>
#include <utility>

#include "apps/sdconfig/files/whole_file.h"
#include "trail/files.h"

namespace cli {

namespace {

constexpr int kTries = 10;

struct TrailFile {
    std::string name;
    sd::UniqueFd file;
};

bool isSameFile(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Opens all files as they belong together. False where the service rotated or packed one meanwhile.
bool openAll(int folder, std::vector<TrailFile>& files, std::string& problem) {
    files.clear();
    const auto take = [&](const std::string& name, sd::trail::OpenedFile& opened) {
        if (!opened.problem.empty() && problem.empty()) problem = name + " " + opened.problem;
        if (opened.file) files.push_back({name, std::move(opened.file)});
    };
    sd::trail::OpenedFile current = sd::trail::openFile(folder, sd::trail::kCurrentFile, O_RDONLY);
    for (const sd::trail::RotatedFile& one : sd::trail::listRotated(folder)) {
        sd::trail::OpenedFile opened = sd::trail::openFile(folder, one.name, O_RDONLY);
        if (opened.isAbsent) return false;
        take(one.name, opened);
    }
    take(sd::trail::kCurrentFile, current);
    struct stat now {};
    const bool isThere = ::fstatat(folder, sd::trail::kCurrentFile, &now, AT_SYMLINK_NOFOLLOW) == 0;
    return isThere ? !current.isAbsent && (!current.problem.empty() || isSameFile(now, current.status))
                   : current.isAbsent;
}

// Up to the last newline, where that is asked for.
std::string copyFile(const TrailFile& from, const std::string& path, bool wholeLines,
                     const Interruption& interruption) {
    UnfinishedFile copy(path);
    std::string piece(std::size_t{1} << 20, '\0');
    std::uint64_t size = 0;
    std::uint64_t whole = 0;
    for (ssize_t count = 0; (count = ::read(from.file.get(), piece.data(), piece.size())) != 0;) {
        if (interruption.came()) return "it was interrupted";
        if (count < 0) return from.name + " " + sd::trail::reasonOf("can't be read", errno);
        const std::string_view bytes(piece.data(), static_cast<std::size_t>(count));
        if (const std::size_t end = bytes.rfind('\n'); end != std::string_view::npos) whole = size + end + 1;
        size += bytes.size();
        if (!copy.write(bytes)) return sd::trail::reasonOf("no copy can be written", errno);
    }
    if (!copy.putInPlace(UnfinishedFile::Existing::Keep)) return sd::trail::reasonOf("no copy can be written", errno);
    std::error_code failure;
    if (wholeLines && whole != size) std::filesystem::resize_file(path, whole, failure);
    return failure ? failure.message() : "";
}

}  // namespace

bool isTrailFile(const std::string& name) {
    constexpr std::string_view kStart = "trail-";
    if (name == sd::trail::kCurrentFile) return true;
    std::uint64_t first = 0;
    const char* const digits = name.data() + std::min(name.size(), kStart.size());
    if (std::from_chars(digits, name.data() + name.size(), first).ec != std::errc()) return false;
    const std::string rotated = sd::trail::rotatedName(first);
    return name == rotated || name == sd::trail::packedName(rotated);
}

std::string copyTrail(const std::string& folder, const std::string& target, const Interruption& interruption,
                      std::vector<std::string>& names) {
    const sd::UniqueFd opened = sd::trail::openFolder(folder);
    if (!opened) return sd::trail::reasonOf("the folder can't be opened", errno);
    std::vector<TrailFile> files;
    std::string problem;
    int tries = 0;
    while (!openAll(opened.get(), files, problem))
        if (++tries == kTries) return "it is rotated again and again";
    if (!problem.empty()) return problem;
    for (const TrailFile& file : files) {
        problem = copyFile(file, target + "/" + file.name, file.name == sd::trail::kCurrentFile, interruption);
        if (!problem.empty()) return problem;
        names.push_back(file.name);
    }
    return "";
}

}  // namespace cli
