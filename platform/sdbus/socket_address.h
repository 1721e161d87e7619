// The address of a Unix socket in the file system.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <string>

namespace sdbus {

class SocketAddress {
public:
    static constexpr std::size_t kPathMax = sizeof(sockaddr_un::sun_path) - 1;

    bool set(const std::string& path) {
        if (path.size() > kPathMax) return false;
        mAddress.sun_family = AF_UNIX;
        std::memcpy(mAddress.sun_path, path.c_str(), path.size() + 1);
        return true;
    }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&mAddress); }
    socklen_t size() const { return sizeof(mAddress); }

private:
    sockaddr_un mAddress{};
};

}  // namespace sdbus
