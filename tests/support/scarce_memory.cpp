#include "tests/support/scarce_memory.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> sIsScarce{false};
std::atomic<bool> sLasts{false};
std::atomic<bool> sIsOfOthers{false};
std::atomic<std::uint64_t> sAt{0};
std::atomic<std::uint64_t> sAsked{0};
thread_local bool tIsOwner = false;

bool isRefused() {
    if (!sIsScarce || tIsOwner == sIsOfOthers) return false;
    const std::uint64_t asked = ++sAsked;
    return sLasts ? asked >= sAt : asked == sAt;
}

void* take(std::size_t size) noexcept {
    return isRefused() ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void* takeOrThrow(std::size_t size) {
    if (void* const memory = take(size)) return memory;
    throw std::bad_alloc();
}

}  // namespace

// NOLINTBEGIN(misc-new-delete-overloads)
void* operator new(std::size_t size) {
    return takeOrThrow(size);
}
void* operator new[](std::size_t size) {
    return takeOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return take(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return take(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
// NOLINTEND(misc-new-delete-overloads)

namespace test {

ScarceMemory::ScarceMemory(Of whose, std::uint64_t n, bool lasts) {
    tIsOwner = true;
    sIsOfOthers = whose == Of::Others;
    sLasts = lasts;
    sAt = n;
    sAsked = 0;
    sIsScarce = true;
}

ScarceMemory::~ScarceMemory() {
    sIsScarce = false;
    tIsOwner = false;
}

bool ScarceMemory::hasFailed() {
    return sAsked >= sAt;
}

}  // namespace test
