#include "tests/support/scarce_memory.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::uint64_t> sAsked{0}, sFrom{0}, sTo{0};
std::uint64_t sStep = 0;
bool sHasFailedInStep = false;
std::atomic<bool> sIsScarce{false}, sIsOfOthers{false};
thread_local bool tIsOwner = false;

}  // namespace

void* operator new(std::size_t size, const std::nothrow_t& /*told*/) noexcept {
    return test::ScarceMemory::isRefused() ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void* operator new(std::size_t size) {
    void* const memory = ::operator new(size, std::nothrow);
    return memory ? memory : throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace test {

ScarceMemory::ScarceMemory(Of whose, std::uint64_t n, bool lasts) {
    tIsOwner = true;
    sIsOfOthers = whose == Of::Others;
    sAsked = 0;
    sTo = lasts ? UINT64_MAX : n;
    sFrom = n;
    sIsScarce = true;
}

ScarceMemory::~ScarceMemory() {
    sIsScarce = false;
    tIsOwner = false;
    sHasFailedInStep = sHasFailedInStep || (sFrom == sStep && hasFailed());
}

void ScarceMemory::beginStep(std::uint64_t n) {
    sStep = n;
    sHasFailedInStep = false;
}

bool ScarceMemory::hasFailedInStep() {
    return sHasFailedInStep;
}

bool ScarceMemory::hasFailed() {
    return sAsked >= sFrom;
}

bool ScarceMemory::isRefused() {
    if (!sIsScarce || tIsOwner == sIsOfOthers) return false;
    const std::uint64_t asked = ++sAsked;
    return asked >= sFrom && asked <= sTo;
}

}  // namespace test
