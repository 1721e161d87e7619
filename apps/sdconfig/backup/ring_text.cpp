#include "apps/sdconfig/backup/ring_text.h"
#include "apps/common/descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "apps/sdconfig/files/whole_file.h"

namespace cli {

namespace {

constexpr std::size_t kMostBytes = std::size_t{96} << 10;  // of a wrapped one

}  // namespace

std::optional<SecretText> readRingText(const std::string& path) {
    const apps::Descriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (file.get() < 0 || ::fstat(file.get(), &status) != 0) return std::nullopt;
    const auto size = static_cast<std::size_t>(status.st_size);
    if (!S_ISREG(status.st_mode) || size > kMostBytes) {
        errno = EFBIG;
        return std::nullopt;
    }
    std::string text(size, '\0');
    const ssize_t count = ::read(file.get(), text.data(), size);
    if (count < 0) return std::nullopt;
    text.resize(static_cast<std::size_t>(count));
    return SecretText(std::move(text));
}

bool isWrappedRing(const std::string& path) {
    constexpr std::string_view kName = "sdsecurity-wrapped-keys ";
    const std::optional<SecretText> ring = readRingText(path);
    return ring && ring->get().compare(0, kName.size(), kName) == 0;
}

}  // namespace cli
