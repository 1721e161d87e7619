// A file descriptor, closed with its object.
#pragma once

#include <unistd.h>

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

}  // namespace apps
