#include "tests/torture/power/disk.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace power {
namespace {

std::string folderOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

bool isBelow(const std::string& path, const std::string& folder) {
    return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 && path[folder.size()] == '/';
}

// Takes a name, and those below it where it is a folder's, out of the names, as they would be called under another.
std::map<std::string, int> take(std::map<std::string, int>& names, const std::string& from, const std::string& to) {
    std::map<std::string, int> taken;
    for (auto name = names.lower_bound(from); name != names.end();) {
        const bool isIt = name->first == from || isBelow(name->first, from);
        if (!isIt && name->first.compare(0, from.size(), from) != 0) break;
        if (isIt) taken[to + name->first.substr(from.size())] = name->second;
        name = isIt ? names.erase(name) : std::next(name);
    }
    return taken;
}

std::size_t upTo(std::size_t most, std::mt19937_64& random) {
    return std::uniform_int_distribution<std::size_t>(0, most)(random);
}

}  // namespace

std::vector<Entry> readLog(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), {});
    std::vector<Entry> entries;
    for (std::size_t at = 0; at < bytes.size();) {
        Record record{};
        if (bytes.size() - at < sizeof record) throw std::runtime_error("the log of calls is cut");
        std::memcpy(&record, bytes.data() + at, sizeof record);
        at += sizeof record;
        if (bytes.size() - at < record.pathLength + record.dataLength)
            throw std::runtime_error("the log of calls is cut");
        entries.push_back({record.kind, record.file, record.number, bytes.substr(at, record.pathLength),
                           bytes.substr(at + record.pathLength, record.dataLength)});
        at += record.pathLength + record.dataLength;
    }
    return entries;
}

// An inode whose file has no name any more is another file by now, unless it is written by that name.
int Disk::fileOf(const Entry& entry) {
    constexpr std::string_view kDeleted = " (deleted)";  // as the kernel shows what is open and has no name
    const bool isDeleted = entry.path.size() > kDeleted.size() &&
                           entry.path.compare(entry.path.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0;
    const auto isNamed = [this](int file) {
        return std::any_of(mSeen.begin(), mSeen.end(), [file](const auto& name) { return name.second == file; });
    };
    const auto known = mByInode.find(entry.file);
    if (known != mByInode.end() && (isDeleted || isNamed(known->second))) return known->second;
    const int file = static_cast<int>(mFiles.size());
    mFiles.emplace_back();
    mByInode[entry.file] = file;
    if (entry.kind != Kind::Link && entry.kind != Kind::Rename && !isDeleted)
        rename({folderOf(entry.path), Kind::Link, entry.path, "", file, false});
    return file;
}

void Disk::change(File& file, Change change) {
    apply(change, file.seen);
    file.pending.push_back(std::move(change));
}

void Disk::rename(const Naming& naming) {
    apply(naming, mSeen);
    mPending.push_back(naming);
}

void Disk::apply(const Naming& naming, Names& names) {
    if (naming.kind == Kind::Link) {
        names[naming.path] = naming.file;
    } else if (naming.kind == Kind::Unlink) {
        names.erase(naming.path);
    } else {
        Names moved = take(names, naming.path, naming.to);
        Names replaced = take(names, naming.to, naming.path);
        // A new name that is synced alone brings the file along, wherever the old one was.
        if (moved.empty() && naming.file >= 0) moved[naming.to] = naming.file;
        names.merge(moved);
        if (naming.isExchange) names.merge(replaced);
    }
}

void Disk::apply(const Change& change, std::string& content) {
    if (change.isTruncation) return content.resize(change.at);
    if (content.size() < change.at + change.data.size()) content.resize(change.at + change.data.size());
    content.replace(change.at, change.data.size(), change.data);
}

void Disk::apply(const Entry& entry) {
    const auto number = static_cast<std::uint64_t>(entry.number);
    switch (entry.kind) {
        case Kind::Exists:
            mFiles.push_back({entry.data, entry.data, {}});
            mByInode[entry.file] = mSeen[entry.path] = mSynced[entry.path] = static_cast<int>(mFiles.size()) - 1;
            return;
        case Kind::Open:
            if (File& file = mFiles[static_cast<std::size_t>(fileOf(entry))]; entry.number != 0 && !file.seen.empty())
                change(file, {0, "", true});
            return;
        case Kind::Write:
            return change(mFiles[static_cast<std::size_t>(fileOf(entry))], {number, entry.data, false});
        case Kind::Truncate:
            return change(mFiles[static_cast<std::size_t>(fileOf(entry))], {number, "", true});
        case Kind::Sync: {
            File& file = mFiles[static_cast<std::size_t>(fileOf(entry))];
            file.synced = file.seen;
            return file.pending.clear();
        }
        case Kind::SyncDir: {
            const auto isHere = [&](const Naming& naming) { return naming.folder == entry.path; };
            for (const Naming& naming : mPending)
                if (isHere(naming)) apply(naming, mSynced);
            mPending.erase(std::remove_if(mPending.begin(), mPending.end(), isHere), mPending.end());
            return;
        }
        case Kind::Rename: {
            const auto known = mSeen.find(entry.path);
            const bool isFolder = known == mSeen.end() && mSeen.lower_bound(entry.path + "/") != mSeen.end() &&
                                  isBelow(mSeen.lower_bound(entry.path + "/")->first, entry.path);
            const int file = known != mSeen.end() ? known->second : isFolder ? -1 : fileOf(entry);
            return rename({folderOf(entry.data), Kind::Rename, entry.path, entry.data, file, entry.number != 0});
        }
        case Kind::Link:
            return rename({folderOf(entry.path), Kind::Link, entry.path, "", fileOf(entry), false});
        case Kind::Unlink:
            return rename({folderOf(entry.path), Kind::Unlink, entry.path, "", -1, false});
        case Kind::Mark:
            return;
    }
}

Files Disk::contentsOf(const Names& names, const std::vector<std::string>& contents) const {
    Files files;
    for (const auto& [path, file] : names)
        if (isBelow(path, mRoot)) files[path.substr(mRoot.size() + 1)] = contents[static_cast<std::size_t>(file)];
    return files;
}

Files Disk::asSeen() const {
    std::vector<std::string> contents;
    for (const File& file : mFiles) contents.push_back(file.seen);
    return contentsOf(mSeen, contents);
}

std::string Disk::contentAfterCut(const File& file, int mode, std::mt19937_64& random) const {
    enum Mode { kNothing, kAll, kFirst, kSome };  // of what is pending
    if (mode == kNothing) return file.synced;
    if (mode == kAll) return file.seen;
    std::string content = file.synced;
    const std::size_t first = upTo(file.pending.size(), random);
    for (std::size_t i = 0; i < file.pending.size(); ++i) {
        Change change = file.pending[i];
        const bool isKept = mode == kFirst ? i < first : upTo(1, random) == 1;
        const bool isTorn = !change.isTruncation && (mode == kFirst ? i == first : upTo(3, random) == 0);
        if (isTorn) {
            const std::size_t sector = upTo(1, random) == 0 ? 512 : 4096;
            const std::size_t length = std::min(change.data.size(), upTo(change.data.size() / sector, random) * sector);
            if (const bool isEnd = upTo(3, random) == 0; isEnd) {
                change.at += length;
                change.data.erase(0, length);
            } else {
                change.data.resize(length);
            }
        }
        if (isKept || isTorn) apply(change, content);
    }
    return content;
}

Files Disk::afterCut(std::mt19937_64& random) const {
    Names names = mSynced;
    std::size_t kept = upTo(mPending.size(), random);
    if (const auto choice = upTo(3, random); choice < 2) kept = choice == 0 ? 0 : mPending.size();
    for (std::size_t i = 0; i < kept; ++i) apply(mPending[i], names);
    std::vector<std::string> contents;
    const auto mode = static_cast<int>(upTo(4, random));  // the same for all files, or one each
    for (const File& file : mFiles)
        contents.push_back(contentAfterCut(file, mode == 4 ? static_cast<int>(upTo(3, random)) : mode, random));
    return contentsOf(names, contents);
}

}  // namespace power
