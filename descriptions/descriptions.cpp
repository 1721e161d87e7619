#include "descriptions/descriptions.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "base/folder_listing.h"
#include "base/letter_case.h"
#include "base/nearest.h"
#include "base/trusted_path.h"
#include "descriptions/description_reader.h"
#include "descriptions/glob.h"

namespace sd {

namespace {

constexpr std::string_view kSuffix = ".keys.json";
constexpr std::size_t kFilesMax = 10'000;
constexpr char kTrust[] = "give it to root, for others to read alone";
constexpr std::size_t kWithoutIndex = 8;  // look-ups
constexpr std::size_t kGlobsMax = 1'000;  // each is tried for each key that is looked up

bool isPlainKey(std::string_view name) {
    return std::none_of(name.begin(), name.end(), [](char c) { return c == '*' || c == '\\'; });
}

// The names of the files in an open folder. Returns 0, or why not all could be read.
int listFiles(const UniqueFd& folder, std::vector<std::string>& names) {
    FolderListing listing(folder.get());
    while (const char* const name = listing.next())
        if (isDescriptionFileName(name)) names.emplace_back(name);
    return errno;
}

std::string excerptOf(const OutlinedDescription& outlined) {
    return "{\"keys\": {\"" + std::string(outlined.name) + "\": " + std::string(outlined.text) + "}}";
}

bool isMeant(const KeyDescription& description, const std::string& key) {
    if (description.store == KeyStore::Secure) return true;
    return description.isGlob() ? fitsGlob(key, description.key, LetterCase::Told) : description.key == key;
}

}  // namespace

std::vector<DescriptionFolder> standardDescriptionFolders() {
    return {{"/usr/share/sdconfig/keys.d", 0}, {"/etc/sdconfig/keys.d", 0}};
}

bool isDescriptionFileName(const std::string& name) {
    return name.size() > kSuffix.size() && name.front() != '.' &&
           name.compare(name.size() - kSuffix.size(), kSuffix.size(), kSuffix) == 0;
}

std::string readDescriptionFile(int file, std::string& text) {
    constexpr std::size_t kMost = kDescriptionFileBytesMax + 1;
    struct stat status {};
    if (::fstat(file, &status) != 0) return std::string("can't be read: ") + std::strerror(errno);
    text.resize(std::min(kMost, static_cast<std::size_t>(status.st_size) + 1));
    std::size_t size = 0;
    while (true) {
        const ssize_t count = ::read(file, &text[size], text.size() - size);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return std::string("can't be read: ") + std::strerror(errno);
        size += static_cast<std::size_t>(count);
        if (count == 0 || size == kMost) break;
        if (size == text.size()) text.resize(std::min(text.size() * 2, kMost));
    }
    text.resize(size);
    return size == kMost ? "is larger than 64 MiB" : "";
}

std::size_t Descriptions::FoldedHash::operator()(std::string_view key) const {
    std::size_t hash = 0xcbf29ce484222325;  // FNV-1a
    for (const char c : key) hash = (hash ^ static_cast<unsigned char>(folded(c))) * 0x100000001b3;
    return hash;
}

bool Descriptions::FoldedEqual::operator()(std::string_view one, std::string_view other) const {
    return one.size() == other.size() && compareFolded(one, other) == 0;
}

Descriptions::Descriptions(const std::vector<DescriptionFolder>& folders) {
    std::vector<TrustedOpening> open;
    std::map<std::string, std::vector<std::size_t>> names;  // and the folders that have them
    for (const DescriptionFolder& folder : folders) {
        TrustedOpening& opening = open.emplace_back(openTrusted(folder.path, folder.owner));
        std::vector<std::string> found;
        if (opening.file) opening.failure = listFiles(opening.file, found);
        if (!opening.distrust.empty())
            leaveOut(folder.path, opening.distrust, kTrust);
        else if (opening.failure != 0 && opening.failure != ENOENT && opening.failure != ENOTDIR)
            leaveOut(folder.path, std::string("can't be read: ") + std::strerror(opening.failure), "make it readable");
        for (std::string& name : found) names[std::move(name)].push_back(open.size() - 1);
    }
    if (names.size() > kFilesMax) {
        leaveOut("", "there are more than 10,000 files of descriptions", "describe more keys in one file");
        names.clear();
    }
    for (const auto& [name, having] : names) {
        for (auto at = having.rbegin(); at != having.rend(); ++at) {
            const DescriptionFolder& folder = folders[*at];
            const std::string path = folder.path + "/" + name;
            if (take(path, openTrustedIn(open[*at].file, folder.path, name, folder.owner))) break;
        }
    }
}

// Returns whether it takes the place of those of its name in earlier folders.
bool Descriptions::take(const std::string& path, const TrustedOpening& opening) {
    if (!opening.distrust.empty()) {
        leaveOut(path, opening.distrust, kTrust);
        return false;
    }
    if (opening.isNull) return true;
    std::string text;
    const std::string problem = opening.failure != 0 ? std::string("can't be read: ") + std::strerror(opening.failure)
                                                     : readDescriptionFile(opening.file.get(), text);
    if (!problem.empty())
        leaveOut(path, problem, "make it readable, or smaller");
    else if (!text.empty())
        add(path, std::move(text));
    return true;
}

void Descriptions::leaveOut(std::string file, std::string what, std::string remedy) {
    mLeftOut.push_back({std::move(file), {0, "", "", std::move(what), std::move(remedy)}});
}

void Descriptions::add(std::string file, std::string text) {
    if (mBytes + text.size() > kDescriptionFileBytesMax)
        return leaveOut(std::move(file), "has, with the files before it, more than 64 MiB", "describe fewer keys");
    File& added = mFiles.emplace_back(File{std::move(file), std::move(text), {}, {}});
    added.outline = outlineOf(added.text);
    const auto& all = added.outline.descriptions;
    const auto isOdd = [](const OutlinedDescription& one) { return !isPlainKey(one.name); };
    const auto odd = static_cast<std::size_t>(std::count_if(all.begin(), all.end(), isOdd));
    if (added.outline.fault) {
        mLeftOut.push_back({added.path, *added.outline.fault});
    } else if (mGlobs.size() + mEscaped.size() + odd > kGlobsMax) {
        leaveOut(added.path, "has, with the files before it, more than 1,000 globs or keys with backslashes",
                 "name keys as they are, or use fewer globs");
    } else {
        mBytes += added.text.size();
        mCount += all.size();
        for (std::size_t i = 0; i < all.size(); ++i)
            if (!isPlainKey(all[i].name)) addOdd(all[i], {mFiles.size() - 1, i});
        return;
    }
    mFiles.pop_back();
}

// A glob, or a key that is written with a backslash.
void Descriptions::addOdd(const OutlinedDescription& outlined, Place place) {
    auto name = nameOf(outlined);
    if (!name) return;  // whoever asks what is left out finds it
    if (name->find('*') == std::string::npos)
        mEscaped.emplace_back(std::move(*name), place);
    else if (unfitGlob(*name).empty())
        mGlobs.push_back({std::move(*name), place});
}

void Descriptions::forEachKey(const TakeKey& take) const {
    for (std::size_t file = 0; file < mFiles.size(); ++file) {
        const auto& all = mFiles[file].outline.descriptions;
        for (std::size_t i = 0; i < all.size(); ++i)
            if (isPlainKey(all[i].name)) take(all[i].name, {file, i});
    }
    for (const auto& [key, place] : mEscaped) take(key, place);
}

std::vector<Descriptions::Place> Descriptions::placesNamed(const std::string& key) {
    std::vector<Place> places;
    if (++mLookUps <= kWithoutIndex) {
        forEachKey([&](std::string_view name, Place place) {
            if (name.size() == key.size() && compareFolded(name, key) == 0) places.push_back(place);
        });
        return places;
    }
    if (mByKey.empty()) forEachKey([this](std::string_view name, Place place) { mByKey.emplace(name, place); });
    const auto [begin, end] = mByKey.equal_range(key);
    for (auto at = begin; at != end; ++at) places.push_back(at->second);
    return places;
}

// The one that counts first, then those that do where it is left out.
std::vector<Descriptions::Place> Descriptions::placesOf(const std::string& key) {
    const auto isBefore = [](const Place& one, const Place& other) {
        return one.file != other.file ? one.file > other.file : one.index < other.index;
    };
    std::vector<Place> places = placesNamed(key);
    std::sort(places.begin(), places.end(), isBefore);

    std::vector<Glob> globs;
    for (const Glob& glob : mGlobs)
        if (fitsGlob(key, glob.name, LetterCase::Ignored)) globs.push_back(glob);
    std::sort(globs.begin(), globs.end(), [&](const Glob& one, const Glob& other) {
        const std::size_t a = lettersOf(one.name);
        const std::size_t b = lettersOf(other.name);
        return a != b ? a > b : isBefore(one.place, other.place);
    });
    for (const Glob& glob : globs) places.push_back(glob.place);
    return places;
}

// Of a few the lines before them are counted, of more those of all at once.
int Descriptions::lineOf(File& file, std::size_t index) const {
    const auto& all = file.outline.descriptions;
    LineCounter counter(file.text);
    if (mLookUps <= kWithoutIndex) return counter.lineOf(all[index].name);
    if (file.lines.empty())
        for (const OutlinedDescription& one : all) file.lines.push_back(counter.lineOf(one.name));
    return file.lines[index];
}

std::optional<KeyDescription> Descriptions::read(Place place) {
    File& file = mFiles[place.file];
    const auto& all = file.outline.descriptions;
    const OutlinedDescription& outlined = all[place.index];
    std::vector<DescriptionFault> faults;
    auto description = readDescription(outlined, lineOf(file, place.index), faults);
    if (!faults.empty() && mTold.insert(outlined.name.data()).second)
        for (DescriptionFault& fault : faults) mLeftOut.push_back({file.path, std::move(fault)});
    return description;
}

std::optional<Descriptions::Found> Descriptions::find(const std::string& key, std::string* excerpt) {
    for (const Place place : placesOf(key)) {
        auto description = read(place);
        if (!description || !isMeant(*description, key)) continue;
        const File& file = mFiles[place.file];
        if (excerpt) *excerpt = excerptOf(file.outline.descriptions[place.index]);
        return Found{std::move(*description), file.path};
    }
    return std::nullopt;
}

std::vector<Descriptions::ReadFile> Descriptions::readFiles() const {
    std::vector<ReadFile> files;
    files.reserve(mFiles.size());
    for (const File& file : mFiles) files.push_back({file.path, readDescriptions(file.text)});
    return files;
}

std::vector<Descriptions::Found> Descriptions::all() {
    std::map<std::string, Found> found;  // by the key without letter case
    for (ReadFile& file : readFiles()) {
        for (DescriptionFault& fault : file.content.faults) mLeftOut.push_back({file.path, std::move(fault)});
        for (KeyDescription& one : file.content.descriptions) {
            std::string name = folded(one.key);
            found.insert_or_assign(std::move(name), Found{std::move(one), file.path});
        }
    }
    std::vector<Found> all;
    all.reserve(found.size());
    for (auto& [name, one] : found) all.push_back(std::move(one));
    return all;
}

std::vector<std::string> Descriptions::names() const {
    std::vector<std::string> names;
    forEachKey([&names](std::string_view name, Place) { names.emplace_back(name); });
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

std::string Descriptions::near(const std::string& key) const {
    std::vector<std::string_view> names;
    std::string_view same;
    forEachKey([&](std::string_view name, Place) {
        names.push_back(name);
        if (name.size() == key.size() && compareFolded(name, key) == 0 && same != key) same = name;
    });
    if (same == key) return "";  // its description is left out, and nothing else was meant
    return same.empty() ? nearest(key, names) : std::string(same);
}

}  // namespace sd
