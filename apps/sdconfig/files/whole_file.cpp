#include "apps/sdconfig/files/whole_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <list>

namespace cli {

namespace {

namespace fs = std::filesystem;

constexpr mode_t kPermissions = 0777;
constexpr int kMostLinks = 40;  // as many as the kernel follows

std::string systemProblem(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

// Not every file system has the call that keeps what is there; the others have links.
bool renameToFree(const std::string& from, const std::string& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
    return errno == EINVAL && ::link(from.c_str(), to.c_str()) == 0 && ::unlink(from.c_str()) == 0;
}

bool isTrusted(const struct stat& link) {
    return link.st_uid == ::geteuid() || link.st_uid == 0;
}

// Makes the path, which is absolute, one without links. What of it isn't there stays as it is.
std::string followLinks(fs::path& path) {
    std::list<fs::path> rest(path.begin(), path.end());
    int links = 0;
    path.clear();
    while (!rest.empty()) {
        const fs::path above = path;
        const fs::path name = rest.front();
        rest.pop_front();
        if (name.empty() || name == ".") continue;
        path = name == ".." ? above.parent_path() : above / name;
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0 || !S_ISLNK(status.st_mode)) continue;
        if (!isTrusted(status)) return "the link " + path.string() + " was made by another user";
        if (++links > kMostLinks) return std::strerror(ELOOP);
        std::error_code failure;
        const fs::path target = fs::read_symlink(path, failure);
        if (failure) return failure.message();
        rest.insert(rest.begin(), target.begin(), target.end());
        path = above;  // which an absolute target replaces
    }
    return "";
}

}  // namespace

UnfinishedFile::UnfinishedFile(const std::string& target)
    : mTarget(target),
      mPath(target + ".XXXXXX"),
      mFile(::mkostemp(mPath.data(), O_CLOEXEC)),
      mFailure(mFile.get() < 0 || !setMode(0600) ? errno : 0) {}  // the mode is not left to the umask

UnfinishedFile::~UnfinishedFile() {
    if (mFile.get() >= 0 && !mInPlace) ::unlink(mPath.c_str());
}

bool UnfinishedFile::write(std::string_view bytes) {
    if (mFailure) errno = mFailure;
    while (!mFailure && !bytes.empty()) {
        const ssize_t written = ::write(mFile.get(), bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return !mFailure;
}

bool UnfinishedFile::setMode(mode_t mode) {
    return ::fchmod(mFile.get(), mode) == 0;
}

bool UnfinishedFile::putInPlace(Existing existing) {
    if (::fsync(mFile.get()) != 0) return false;
    mInPlace =
        existing == Existing::Replace ? std::rename(mPath.c_str(), mTarget.c_str()) == 0 : renameToFree(mPath, mTarget);
    return mInPlace && apps::syncFolder(std::filesystem::path(mTarget).parent_path());
}

std::string readWhole(const std::string& path, std::size_t mostBytes, std::string& text) {
    const apps::Descriptor file(path == "-" ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                                            : ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (file.get() < 0) return systemProblem("it can't be read");
    std::array<char, 65536> buffer;
    for (;;) {
        const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return systemProblem("it can't be read");
        if (count == 0) return "";
        text.append(buffer.data(), static_cast<std::size_t>(count));
        if (text.size() > mostBytes) return "it is longer than " + std::to_string(mostBytes >> 20) + " MiB";
    }
}

std::string resolveTarget(std::string& path) {
    std::error_code failure;
    fs::path target = fs::absolute(path, failure);
    if (failure) return failure.message();
    if (!target.has_filename()) return "it names a folder";
    if (std::string problem = followLinks(target); !problem.empty()) return problem;
    path = target;
    struct stat status {};
    const bool there = ::stat(path.c_str(), &status) == 0;
    return there && !S_ISREG(status.st_mode) ? "it is there and is no regular file" : "";
}

std::string writeWhole(const std::string& path, const std::string& text, Mode mode) {
    std::string target = path;
    if (std::string problem = resolveTarget(target); !problem.empty()) return problem;
    UnfinishedFile file(target);
    struct stat replaced {};
    const bool keepsMode =
        mode == Mode::Kept && ::stat(target.c_str(), &replaced) == 0 && replaced.st_uid == ::geteuid();
    if (file.write(text) && (!keepsMode || file.setMode(replaced.st_mode & kPermissions)) &&
        file.putInPlace(UnfinishedFile::Existing::Replace))
        return "";
    return systemProblem("it can't be written");
}

}  // namespace cli
