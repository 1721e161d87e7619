#include "apps/sdconfig-seal/connection.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "base/wait_ready.h"

namespace seal {
namespace {

constexpr int kSocket = STDIN_FILENO;
constexpr off_t kTurnsOfUser = 4;

}  // namespace

bool findAsker(Asker& asker) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (::getsockopt(kSocket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
    asker = {peer.uid, peer.pid};
    return true;
}

const char* readRequest(FixedText<sd::security::seal::kMaxLine>& line, const sd::Deadline& deadline) {
    for (;;) {
        const std::size_t end = line.view().find('\n');
        if (end != std::string_view::npos) {
            if (end + 1 != line.view().size()) return "there is more than one request";
            line.cut(end);
            return nullptr;
        }
        if (line.roomSize() == 0) return "the request is too long";
        if (!sd::isReadyBy(deadline, kSocket, POLLIN)) return "no request came";
        const ssize_t count = ::recv(kSocket, line.room(), line.roomSize(), MSG_DONTWAIT);
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (count <= 0) return "the connection ended before the request did";
        line.grow(static_cast<std::size_t>(count));
    }
}

// A socket has room for one answer.
bool answer(std::string_view line) {
    return ::send(kSocket, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(line.size());
}

// A turn is a byte of the file that is locked, and nothing is ever written there: the kernel gives it back with the
// process, however that ends.
Turn::Turn(const char* folder, uid_t user) {
    if (!folder) {
        mIsTaken = true;
        return;
    }
    FixedText<512> path;
    path.add(folder).add("/turns");
    mFile.reset(::open(path.text(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    for (off_t i = 0; i < kTurnsOfUser && !mIsTaken; ++i) {
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        lock.l_start = static_cast<off_t>(user) * kTurnsOfUser + i;
        lock.l_len = 1;
        mIsTaken = ::fcntl(mFile.get(), F_OFD_SETLK, &lock) == 0;
    }
}

}  // namespace seal
