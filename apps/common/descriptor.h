// A file descriptor, closed with its object.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <utility>

namespace apps {

class Descriptor {
public:
    explicit Descriptor(int value = -1) : mValue(value) {}
    Descriptor(Descriptor&& other) noexcept : mValue(std::exchange(other.mValue, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(mValue, other.mValue);
        return *this;
    }
    ~Descriptor() {
        if (mValue >= 0) ::close(mValue);
    }
    int get() const { return mValue; }

private:
    int mValue;
};

// Makes what was created, renamed and removed in the folder last.
inline bool syncFolder(const std::string& path) {
    const Descriptor folder(::open(path.empty() ? "." : path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder.get() >= 0 && ::fsync(folder.get()) == 0;
}

}  // namespace apps
