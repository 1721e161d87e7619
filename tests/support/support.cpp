#include "tests/support/support.h"

#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "platform/velmarlog/velmarlog.h"

#if defined(__SANITIZE_THREAD__)
// Lets a forked child of threads start one.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
    return "die_after_fork=0";
}
#endif

namespace test {

TempDir::TempDir(const std::string& prefix) : mPath(prefix + "XXXXXX") {
    if (!::mkdtemp(mPath.data())) throw std::runtime_error("no folder " + mPath + " can be made");
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : mName(name) {
    if (const char* old = std::getenv(name)) mOld = std::make_unique<std::string>(old);
    value ? ::setenv(name, value, 1) : ::unsetenv(name);
}

ScopedEnv::~ScopedEnv() {
    mOld ? ::setenv(mName.c_str(), mOld->c_str(), 1) : ::unsetenv(mName.c_str());
}

struct LogCapture::Lines {
    mutable std::mutex mutex;
    std::vector<LogLine> all;
};

LogCapture::LogCapture() : mLines(std::make_shared<Lines>()) {
    velmarLogSetLevel(0);
    velmarLogSetSink([lines = mLines](int level, const char* tag, const std::string& text) {
        const std::lock_guard lock(lines->mutex);
        lines->all.push_back({level, tag, text});
    });
}

LogCapture::~LogCapture() {
    velmarLogSetSink({});
    velmarLogSetLevel(6);
}

std::vector<LogLine> LogCapture::lines() const {
    const std::lock_guard lock(mLines->mutex);
    return mLines->all;
}

void LogCapture::clear() {
    const std::lock_guard lock(mLines->mutex);
    mLines->all.clear();
}

int LogCapture::count(const std::string& text, int level) const {
    int found = 0;
    for (const LogLine& line : lines())
        if ((level == 0 || line.level == level) && line.text.find(text) != std::string::npos) ++found;
    return found;
}

bool inChild(const std::function<bool()>& body) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(20);
        ::_exit(body() ? 0 : 1);
    }
    int status = -1;
    return ::waitpid(child, &status, 0) == child && status == 0;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

void writeFile(const std::string& path, const std::string& content, std::optional<unsigned> mode) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out.flush() || (mode && ::chmod(path.c_str(), *mode) != 0)) throw std::runtime_error("cannot write " + path);
}

void writeScript(const std::string& path, const std::string& script) {
    writeFile(path, "#!/bin/sh\n" + script + "\n", 0755);
}

std::map<std::string, std::string> contentsOf(const std::string& folder) {
    std::map<std::string, std::string> all;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        struct stat status {};
        ::lstat(entry.path().c_str(), &status);
        all[entry.path()] = std::to_string(status.st_mode) + (entry.is_regular_file() ? readFile(entry.path()) : "");
    }
    return all;
}

namespace {

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

}  // namespace

int socketAt(const std::string& path, int type) {
    const sockaddr_un address = addressOf(path);
    const int made = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    if (::bind(made, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return made;
    ::close(made);
    throw std::runtime_error("no socket can be made at " + path);
}

int listenAt(const std::string& path) {
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    std::filesystem::create_directories(folder);
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all);
    const int made = socketAt(path, SOCK_STREAM);
    if (::listen(made, 100) != 0) throw std::runtime_error("cannot listen at " + path);
    return made;
}

bool connectSocket(int socket, const std::string& path) {
    const sockaddr_un address = addressOf(path);
    return ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

int connectTo(const std::string& path) {
    const int made = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connectSocket(made, path)) return made;
    ::close(made);
    return -1;
}

std::vector<std::vector<std::string>> query(const std::string& database, const std::string& sql) {
    sqlite3* db = nullptr;
    std::vector<std::vector<std::string>> rows;
    const auto addRow = [](void* context, int columns, char** values, char**) {
        auto& all = *static_cast<std::vector<std::vector<std::string>>*>(context);
        all.emplace_back();
        for (int i = 0; i < columns; ++i) all.back().push_back(values[i] ? values[i] : "NULL");
        return 0;
    };
    const bool done = sqlite3_open(database.c_str(), &db) == SQLITE_OK && sqlite3_busy_timeout(db, 5000) == SQLITE_OK &&
                      sqlite3_exec(db, sql.c_str(), addRow, &rows, nullptr) == SQLITE_OK;
    const std::string error = sqlite3_errmsg(db);
    sqlite3_close(db);
    if (!done) throw std::runtime_error(sql + ": " + error);
    return rows;
}

bool waitUntil(const std::function<bool()>& condition, int limitMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace test
