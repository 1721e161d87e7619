#include "src/sdconfig_impl_property.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include "base/data_paths.h"
#include "platform/velmarlog/log_line.h"
#include "platform/velmarlog/log_secret.h"
#include "src/sdconfig_helpers.h"
#include "src/sdconfig_key_classes.h"

namespace sd {

namespace {

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "src/sdconfig_impl";

constexpr int kSlowPropertyMs = 301;
constexpr size_t kLineBuffer = 1024;
constexpr char kLastFile[] = "/velmar/etc/build.prop";

int sAbsentFileLevel = 7;

// Of a file that could not be read. `level`: of the line where it is there.
int levelFor(const std::string& path, int level = 7) {
    return ::access(path.c_str(), F_OK) != 0 && errno == ENOENT ? std::min(level, sAbsentFileLevel) : level;
}

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

// Only a regular file: a directory has no lines, and a pipe in its place would hold the service up.
File openRegularFile(const std::string& path) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (descriptor < 0) return nullptr;
    struct stat status {};
    if (::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode))
        if (std::FILE* file = ::fdopen(descriptor, "r")) return File(file);
    ::close(descriptor);
    return nullptr;
}

bool isBlank(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

struct Line {
    std::string key;
    std::string value;
};

std::optional<Line> parseLine(std::string line) {
    if (!line.empty() && line.back() == '\n') line.pop_back();
    const size_t equals = line.find('=');
    if (equals == std::string::npos) return std::nullopt;

    size_t keyEnd = equals;
    while (keyEnd > 1 && isBlank(line[keyEnd - 1])) --keyEnd;
    size_t valueBegin = equals + 1;
    while (valueBegin < line.size() && isBlank(line[valueBegin])) ++valueBegin;
    return Line{line.substr(0, keyEnd), line.substr(valueBegin)};
}

// Hands over each definition, with its line's number, until `take` has enough and says so. False when `path` is no file
// that can be read.
template <class Take>
bool readLines(const std::string& path, Take take) {
    const File file = openRegularFile(path);
    if (!file) {
        LOG(levelFor(path), AT "can not find filename %s", HERE_AS("fileOperate"), path.c_str());
        return false;
    }
    char line[kLineBuffer];
    bool isNew = true;  // and not the rest of a long one
    for (int number = 0; std::fgets(line, sizeof line, file.get());) {
        if (isNew) ++number;
        isNew = std::strchr(line, '\n') != nullptr;
        const auto definition = parseLine(line);
        if (definition && take(*definition, number)) return true;
    }
    if (std::ferror(file.get())) LOG(7, AT "can not read %s to its end", HERE_AS("fileOperate"), path.c_str());
    return true;
}

bool isReadOnly(const std::string& key) {
    return key.compare(0, 3, "ro.") == 0;
}

}  // namespace

SDPropertyInf* SDPropertyInf::GetInstance() {
    // Never destroyed: it is made by the service's first call, and would go at exit before that service ends.
    static std::atomic<SDPropertyInf*> sInstance{nullptr};
    if (SDPropertyInf* const made = sInstance.load(std::memory_order_acquire)) return made;
    // Of two threads that read the files one is too late. No lock: a child that is forked meanwhile would wait for
    // ever.
    auto own = std::make_unique<SDPropertyInf>();
    SDPropertyInf* first = nullptr;
    return sInstance.compare_exchange_strong(first, own.get()) ? own.release() : first;
}

SDPropertyInf::SDPropertyInf() {
    LOG(5, AT "init property data", HERE);
    mBuildFile = dataPaths().velmar;
    if (!initProperties()) LOG(levelFor(kLastFile), AT "failed to init properties", HERE);
}

void SDPropertyInf::SetAbsentFileLevel(int level) {
    sAbsentFileLevel = level;
}

bool SDPropertyInf::initProperties() {
    if (!mBuildFile.empty()) {
        mBuildFile += "/../etc/build.prop";
        if (!readPropertyFile(mBuildFile))
            LOG(levelFor(mBuildFile, 6), AT "failed to init properties from %s", HERE, mBuildFile.c_str());
    }
    readPropertyFile("/etc/build.prop");
    return readPropertyFile(kLastFile);
}

bool SDPropertyInf::readPropertyFile(std::string path) {
    std::string unused;
    const bool read = fileOperate(path, true, unused, "");
    if (!read) LOG(levelFor(path), AT "readPropertyFile failed", HERE);
    return read;
}

bool SDPropertyInf::fileOperate(std::string path, bool load, std::string& value, std::string key) {
    return readLines(path, [&](const Line& line, int /*number*/) {
        if (load)
            SetProperty(line.key, line.value);
        else if (line.key == key)
            value = line.value;
        return !load && line.key == key;
    });
}

bool SDPropertyInf::readDefinitions(const std::string& path, std::vector<Definition>& definitions) {
    return readLines(path, [&](const Line& line, int number) {
        definitions.push_back({line.key, line.value, number});
        return false;
    });
}

std::string SDPropertyInf::GetProperty(const std::string& key) {
    const Stopwatch watch;
    if (isSpecialKeyInBuildProp(key)) {
        std::string value;
        if (!fileOperate(mBuildFile, false, value, key)) LOG(levelFor(mBuildFile), AT "fileOperate failed", HERE);
        if (const int ms = watch.elapsedMs(); ms >= kSlowPropertyMs)
            LOG(6, AT "GetProperty in prop %s takes %d ms", HERE, key.c_str(), ms);
        return value;
    }
    if (const auto cached = mCache.find(key); cached != mCache.end()) return cached->second;
    if (const int ms = watch.elapsedMs(); ms >= kSlowPropertyMs)
        LOG(6, AT "GetProperty in cache %s takes %d ms", HERE, key.c_str(), ms);
    return "";
}

bool SDPropertyInf::SetProperty(const std::string& key, const std::string& value) {
    if (isReadOnly(key) && !GetProperty(key).empty()) {
        LOG(6, AT "invalid set readyonly %s=%s", HERE, key.c_str(), SECRET(value));
        return false;
    }
    if (key.size() > kKeyBytesMax || value.size() > kValueBytesMax) {
        LOG(7, AT "a property is longer than what is kept", HERE);
        return false;
    }
    mCache[key] = value;
    return true;
}

bool SDPropertyInf::DeleteProperty(const std::string& key) {
    if (isReadOnly(key)) {
        LOG(6, AT "invalid delete readonly %s", HERE, key.c_str());
        return false;
    }
    return mCache.erase(key) != 0;
}

std::map<std::string, std::string> SDPropertyInf::ListProperty() {
    return {};
}

}  // namespace sd
