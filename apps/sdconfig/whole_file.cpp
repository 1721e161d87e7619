#include "apps/sdconfig/whole_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace cli {

namespace {

class Descriptor {
public:
    explicit Descriptor(int descriptor) : mDescriptor(descriptor) {}
    ~Descriptor() {
        if (mDescriptor > STDERR_FILENO) ::close(mDescriptor);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return mDescriptor; }

private:
    const int mDescriptor;
};

std::string systemProblem(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

bool writeAll(int descriptor, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t written = ::write(descriptor, text.data() + done, text.size() - done);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return false;
        done += static_cast<std::size_t>(written);
    }
    return ::fsync(descriptor) == 0;
}

}  // namespace

std::string readWhole(const std::string& path, std::size_t mostBytes, std::string& text) {
    const Descriptor file(path == "-" ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (file.get() < 0) return systemProblem("it can't be read");
    std::array<char, 65536> buffer;
    for (;;) {
        const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return systemProblem("it can't be read");
        if (count == 0) return "";
        text.append(buffer.data(), static_cast<std::size_t>(count));
        if (text.size() > mostBytes) return "it is longer than " + std::to_string(mostBytes >> 20) + " MiB";
    }
}

std::string writeWhole(const std::string& path, const std::string& text) {
    std::error_code failure;
    const std::string target = std::filesystem::weakly_canonical(path, failure);  // what a link stands for
    if (failure) return failure.message();
    struct stat status {};
    if (::stat(target.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) return "it is there and is no regular file";

    std::string unfinished = target + ".XXXXXX";
    const Descriptor file(::mkostemp(unfinished.data(), O_CLOEXEC));  // mode 0600
    if (file.get() < 0) return systemProblem("it can't be written");
    if (writeAll(file.get(), text) && std::rename(unfinished.c_str(), target.c_str()) == 0) return "";
    std::string problem = systemProblem("it can't be written");
    ::unlink(unfinished.c_str());
    return problem;
}

}  // namespace cli
