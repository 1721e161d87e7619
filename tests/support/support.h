// Pieces that tests of every room share.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace test {

// A fresh folder, removed with everything in it at the end. Its path is short enough for a socket's name.
class TempDir {
public:
    explicit TempDir(const std::string& prefix = "/tmp/sdtest-");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return mPath; }
    std::string operator/(const std::string& name) const { return mPath + "/" + name; }

private:
    std::string mPath;
};

// An environment variable set (or, with a null value, unset) for the life of the object.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value);
    ~ScopedEnv();

private:
    std::string mName;
    std::unique_ptr<std::string> mOld;
};

// A bus of its own: XDG_RUNTIME_DIR in a fresh folder.
class PrivateBus {
public:
    PrivateBus() : mEnv("XDG_RUNTIME_DIR", mFolder.path().c_str()) {}
    const TempDir& folder() const { return mFolder; }

private:
    TempDir mFolder;
    ScopedEnv mEnv;
};

// What callbacks were told, in order, on whatever thread.
class Heard {
public:
    void add(const std::string& text) {
        const std::lock_guard lock(mMutex);
        mTexts.push_back(text);
    }
    std::vector<std::string> all() {
        const std::lock_guard lock(mMutex);
        return mTexts;
    }

private:
    std::mutex mMutex;
    std::vector<std::string> mTexts;
};

struct LogLine {
    int level;
    std::string tag;
    std::string text;
};

// Takes every log line, whatever its level, for the life of the object. One at a time in a process.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    void clear();
    // How many lines hold `text`, of that level only unless it is 0.
    int count(const std::string& text, int level = 0) const;
    bool has(const std::string& text, int level = 0) const { return count(text, level) > 0; }

private:
    struct Lines;
    std::shared_ptr<Lines> mLines;  // shared with the sink, which another thread may still be running
};

// A scope whose allocations may leak: the SQLite layer drops some handles on purpose, and the leak checker would tell.
#if defined(__SANITIZE_ADDRESS__)
using DeliberateLeak = __lsan::ScopedDisabler;
#else
struct DeliberateLeak {
    DeliberateLeak() {}
};
#endif

// Whether `body` holds in a forked child, within 20 s.
bool inChild(const std::function<bool()>& body);

std::string readFile(const std::string& path);
// mode: what the file gets; without one it is as the umask has it.
void writeFile(const std::string& path, const std::string& content, std::optional<unsigned> mode = std::nullopt);
void writeScript(const std::string& path, const std::string& script);  // of the shell, which anybody may run
// Every file below the folder, with its mode and content.
std::map<std::string, std::string> contentsOf(const std::string& folder);

// Unix sockets with a name in the file system. Who makes one throws where that fails; who connects to one gets -1.
int socketAt(const std::string& path, int type);
int listenAt(const std::string& path);  // in a folder that is made where it is missing, and private; throws
bool connectSocket(int socket, const std::string& path);
int connectTo(const std::string& path);

// The rows that another program sees: runs `sql` on the file over a connection of its own. NULL reads as "NULL".
std::vector<std::vector<std::string>> query(const std::string& database, const std::string& sql);

// In digits, two for a byte.
template <class Bytes>
std::string hex(const Bytes& bytes) {
    std::string text;
    for (const auto one : bytes) {
        const auto byte = static_cast<unsigned char>(one);
        text.append({"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]});
    }
    return text;
}

// Waits until `condition` holds, looking every 2 ms; false when `limitMs` passed first.
bool waitUntil(const std::function<bool()>& condition, int limitMs = 20000);

}  // namespace test
