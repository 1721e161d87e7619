#include "tests/torture/power/disk.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <set>
#include <stdexcept>

#include "base/unique_fd.h"
#include "tests/support/support.h"

namespace power {
namespace {

std::size_t upTo(std::size_t most, std::mt19937_64& random) {
    return std::uniform_int_distribution<std::size_t>(0, most)(random);
}

bool endsWith(const std::string& text, std::string_view end) {
    return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// As the kernel shows what is open and has no name.
bool isDeleted(const std::string& path) {
    return endsWith(path, " (deleted)");
}

// Of a database's log: mapped memory, whose changes are no calls. None need be known: whoever opens a database first
// makes its index anew from the log, whatever a cut left of it.
bool isIndex(const std::string& path) {
    return endsWith(path, "-shm");
}

}  // namespace

std::vector<Entry> readLog(const std::string& path) {
    const std::string bytes = test::readFile(path);
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

void appendToLog(const std::string& path, const Entry& entry) {
    const Record record{entry.kind, static_cast<std::uint32_t>(entry.path.size()), entry.file, entry.number,
                        entry.data.size()};
    std::string bytes(reinterpret_cast<const char*>(&record), sizeof record);
    bytes += entry.path + entry.data;
    const sd::UniqueFd log(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
    if (::write(log.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error("no room for a log of calls");
}

Files filesIn(const std::string& root) {
    Files files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        const std::string path = entry.path().lexically_relative(root);
        if (entry.is_directory())
            files[path + "/"];
        else
            files[path] = test::readFile(entry.path());
    }
    return files;
}

Disk::Place Disk::placeOf(const std::string& path) const {
    if (path.compare(0, mRoot.size() + 1, mRoot + "/") != 0) throw std::runtime_error(path + " was not recorded");
    Place place{0, path.substr(mRoot.size() + 1)};
    for (std::size_t end; (end = place.second.find('/')) != std::string::npos;) {
        place.first = nodeAt({place.first, place.second.substr(0, end)});
        if (place.first == kNone) throw std::runtime_error("the making of a folder was not recorded: " + path);
        place.second.erase(0, end + 1);
    }
    return place;
}

int Disk::nodeAt(const Place& place) const {
    const auto found = mSeen.find(place);
    return found == mSeen.end() ? kNone : found->second;
}

int Disk::add(const Entry& entry, bool isFolder) {
    const int node = static_cast<int>(mNodes.size());
    mNodes.push_back({isFolder});
    mByInode[entry.file] = node;
    return node;
}

// That what was recorded to be there is the file that the call found.
void Disk::checkIsAt(const Place& place, const Entry& entry) const {
    const auto known = mByInode.find(entry.file);
    if (known == mByInode.end() || nodeAt(place) != known->second)
        throw std::runtime_error("what made, moved or removed " + entry.path + " was not recorded");
}

// An inode whose file has no name any more is another file by now, unless it is still open.
int Disk::fileOf(const Entry& entry) {
    const auto isNamed = [this](int file) {
        return std::any_of(mSeen.begin(), mSeen.end(), [file](const auto& name) { return name.second == file; });
    };
    const auto known = mByInode.find(entry.file);
    const bool isOpen = entry.kind != Kind::Open && isDeleted(entry.path);
    if (known != mByInode.end() && (isOpen || isNamed(known->second))) return known->second;
    if (entry.kind != Kind::Open) throw std::runtime_error("the making of a file was not recorded: " + entry.path);
    const Place place = placeOf(entry.path);
    const int file = add(entry, false);
    name({place.first, {{place, file}}});
    return file;
}

void Disk::change(Node& file, Change change) {
    apply(change, file.seen);
    file.pending.push_back(std::move(change));
}

void Disk::name(Naming naming) {
    apply(naming, mSeen);
    mPending.push_back(std::move(naming));
}

void Disk::apply(const Naming& naming, Names& names) {
    for (const auto& [place, node] : naming.names)
        if (node == kNone)
            names.erase(place);
        else
            names[place] = node;
}

void Disk::apply(const Change& change, std::string& content) {
    if (change.isTruncation) return content.resize(change.at);
    if (content.size() < change.at + change.data.size()) content.resize(change.at + change.data.size());
    content.replace(change.at, change.data.size(), change.data);
}

void Disk::rename(const Entry& entry) {
    const Place from = placeOf(entry.path), to = placeOf(entry.data);
    checkIsAt(from, entry);
    name({to.first, {{from, entry.number != 0 ? nodeAt(to) : kNone}, {to, nodeAt(from)}}});
}

void Disk::syncFile(const Entry& entry) {
    const int node = fileOf(entry);
    Node& synced = mNodes[static_cast<std::size_t>(node)];
    synced.synced = synced.seen;
    synced.pending.clear();
    const auto isItsOwn = [node](const Naming& naming) {
        return std::any_of(naming.names.begin(), naming.names.end(),
                           [&](const auto& name) { return name.second == node; });
    };
    const auto last = std::find_if(mPending.rbegin(), mPending.rend(), isItsOwn);
    if (last != mPending.rend()) last->isFileSynced = true;
}

void Disk::syncFolder(const std::string& path) {
    const int folder = path == mRoot ? 0 : nodeAt(placeOf(path));
    const auto isHere = [&](const Naming& naming) { return naming.folder == folder; };
    for (const Naming& naming : mPending)
        if (isHere(naming)) apply(naming, mSynced);
    mPending.erase(std::remove_if(mPending.begin(), mPending.end(), isHere), mPending.end());
}

void Disk::apply(const Entry& entry) {
    const auto number = static_cast<std::uint64_t>(entry.number);
    switch (entry.kind) {
        case Kind::Exists: {
            const Place place = placeOf(entry.path);
            const int node = add(entry, entry.number != 0);
            mNodes.back().seen = mNodes.back().synced = entry.data;
            mSeen[place] = mSynced[place] = node;
            return;
        }
        case Kind::Open:
            if (Node& opened = file(entry); entry.number != 0 && !opened.seen.empty()) change(opened, {0, "", true});
            return;
        case Kind::Write:
            return change(file(entry), {number, entry.data, false});
        case Kind::Truncate:
            return change(file(entry), {number, "", true});
        case Kind::Sync:
            return syncFile(entry);
        case Kind::SyncFolder:
            return syncFolder(entry.path);
        case Kind::Rename:
            return rename(entry);
        case Kind::MakeFolder:
        case Kind::Link: {
            const Place place = placeOf(entry.path);
            return name({place.first, {{place, entry.kind == Kind::Link ? fileOf(entry) : add(entry, true)}}});
        }
        case Kind::Remove: {
            const Place place = placeOf(entry.path);
            checkIsAt(place, entry);
            return name({place.first, {{place, kNone}}});
        }
        case Kind::Mark:
            return;
    }
}

// What can be reached from the folder.
template <class ContentOf>
void Disk::collect(const Names& names, int folder, const std::string& path, const ContentOf& contentOf,
                   Files& files) const {
    for (auto at = names.lower_bound({folder, ""}); at != names.end() && at->first.first == folder; ++at) {
        const Node& node = mNodes[static_cast<std::size_t>(at->second)];
        const std::string below = path + at->first.second + (node.isFolder ? "/" : "");
        files[below] = node.isFolder ? "" : contentOf(node);
        if (node.isFolder) collect(names, at->second, below, contentOf, files);
    }
}

Files Disk::asSeen() const {
    Files files;
    collect(
        mSeen, 0, "", [](const Node& node) { return node.seen; }, files);
    return files;
}

// The first of the sectors that a write went to, the last, or any.
void Disk::applyPart(const Change& change, std::string& content, std::mt19937_64& random) {
    const std::size_t sector = upTo(1, random) == 0 ? 512 : 4096;
    const std::size_t end = change.at + change.data.size(), bound = change.at + upTo(change.data.size(), random);
    const auto part = upTo(2, random);
    for (std::size_t at = change.at, next; at < end; at = next) {
        next = std::min(end, (at / sector + 1) * sector);
        const bool isKept = part == 0 ? next <= bound : part == 1 ? at >= bound : upTo(1, random) == 1;
        if (isKept) apply({at, change.data.substr(at - change.at, next - at), false}, content);
    }
}

std::string Disk::contentAfterCut(const Node& file, int mode, std::mt19937_64& random) {
    enum Mode { kNothing, kAll, kFirst, kSome };  // of what is pending
    if (mode == kNothing) return file.synced;
    if (mode == kAll) return file.seen;
    std::string content = file.synced;
    const std::size_t first = upTo(file.pending.size(), random);
    for (std::size_t i = 0; i < file.pending.size(); ++i) {
        const Change& change = file.pending[i];
        const bool isKept = mode == kFirst ? i < first : upTo(1, random) == 1;
        const bool isTorn = !change.isTruncation && (mode == kFirst ? i == first : upTo(3, random) == 0);
        if (isTorn)
            applyPart(change, content, random);
        else if (isKept)
            apply(change, content);
        const bool isSizeKept = !change.isTruncation && (isTorn || !isKept) && upTo(3, random) == 0;
        if (isSizeKept) content.resize(std::max(content.size(), change.at + change.data.size()));
    }
    return content;
}

// Whatever is kept of the pending changes, those before it of the same names are, too.
Disk::Names Disk::namesAfterCut(std::mt19937_64& random) const {
    enum Mode { kNothing, kAll, kFirst, kSome };
    const auto mode = static_cast<Mode>(upTo(3, random));
    const std::size_t first = mode == kAll ? mPending.size() : mode == kFirst ? upTo(mPending.size(), random) : 0;
    const bool areFilesSynced = upTo(1, random) == 1;  // with their names
    std::vector<bool> areKept(mPending.size());
    std::set<Place> changed;
    for (std::size_t i = mPending.size(); i-- > 0;) {
        const Naming& naming = mPending[i];
        const bool isChosen = i < first || (mode == kSome && upTo(1, random) == 1);
        const auto isChanged = [&](const auto& name) { return changed.count(name.first) != 0; };
        areKept[i] = isChosen || (areFilesSynced && naming.isFileSynced) ||
                     std::any_of(naming.names.begin(), naming.names.end(), isChanged);
        if (!areKept[i]) continue;
        for (const auto& [place, node] : naming.names) changed.insert(place);
    }
    Names names = mSynced;
    for (std::size_t i = 0; i < mPending.size(); ++i)
        if (areKept[i]) apply(mPending[i], names);
    return names;
}

Files Disk::afterCut(std::mt19937_64& random) const {
    const Names names = namesAfterCut(random);
    const auto mode = static_cast<int>(upTo(4, random));  // the same for all files, or one each
    const auto contentOf = [&](const Node& file) {
        return contentAfterCut(file, mode == 4 ? static_cast<int>(upTo(3, random)) : mode, random);
    };
    Files files;
    collect(names, 0, "", contentOf, files);
    return files;
}

void checkRecording(const std::vector<Entry>& log, const std::string& root) {
    Disk disk(root);
    for (const Entry& entry : log) disk.apply(entry);
    const Files seen = disk.asSeen(), found = filesIn(root);
    for (const auto& [path, content] : found) {
        const auto at = seen.find(path);
        if (at == seen.end() || (at->second != content && !isIndex(path)))
            throw std::runtime_error("what made " + path + " was not recorded");
    }
    if (seen.size() != found.size()) throw std::runtime_error("what removed a file was not recorded");
}

}  // namespace power
