#include "tests/torture/service_life.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "platform/velmarlog/velmarlog.h"

namespace torture {
namespace {

constexpr std::chrono::seconds kStartLimit{20};
constexpr int kEndLimitMs = 20000;
constexpr int kMomentMs = 2;

}  // namespace

int perform(const char* program, const std::function<int()>& play) {
    velmarLogSetLevel(8);
    try {
        return play();
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s: %s\n", program, failure.what());
        return 2;
    }
}

ServiceLife::ServiceLife() {
    ::setenv("XDG_RUNTIME_DIR", makeFolder("run").c_str(), 1);
    for (const char* const name : {"HOME", "XDG_DATA_HOME"}) ::setenv(name, place().c_str(), 1);
    ::setenv("NOTIFY_SOCKET", (place() + "/notify").c_str(), 1);
    mNotify = sd::UniqueFd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, (place() + "/notify").c_str(), sizeof address.sun_path - 1);
    if (::bind(mNotify.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw Failed(std::string("the socket for \"ready\": ") + std::strerror(errno));
}

std::string ServiceLife::makeFolder(const std::string& name) const {
    std::string path = place() + "/" + name;
    std::filesystem::create_directory(path);
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    return path;
}

bool ServiceLife::start(const std::vector<std::string>& command, const test::Environment& variables) {
    mService.reset();  // what a check that failed left
    char text[256];
    while (::recv(mNotify.get(), text, sizeof text, MSG_DONTWAIT) > 0) continue;  // of an earlier one
    mService.emplace(test::Process::start(command, variables));
    const auto limit = std::chrono::steady_clock::now() + kStartLimit;
    while (std::chrono::steady_clock::now() < limit) {
        const bool hasEnded = endsWithin(0);  // and has told before what it told
        pollfd told{mNotify.get(), POLLIN, 0};
        (void)::poll(&told, 1, kMomentMs);
        const auto length =
            static_cast<std::size_t>(std::max<ssize_t>(::recv(mNotify.get(), text, sizeof text, MSG_DONTWAIT), 0));
        if (std::string_view(text, length).find("READY=1") != std::string_view::npos) return true;
        if (hasEnded) return false;
    }
    throw Failed("the service neither starts nor ends: " + said());
}

int ServiceLife::end(int signal) {
    if (signal != 0) mService->kill(signal);
    const int code = mService->wait(kEndLimitMs);
    if (code == test::Process::kRunning) throw Failed("the service does not end: " + said());
    return code;
}

std::string ServiceLife::said() const {
    const std::string text = log();
    return text.size() > 6000 ? "..." + text.substr(text.size() - 6000) : text;
}

}  // namespace torture
