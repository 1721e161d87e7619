#include "platform/sdsecurity/secret_memory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <memory_resource>
#include <mutex>
#include <new>

namespace sd::security {
namespace {

// Whole rings have pages of their own, which go with them; keys share some, which stay.
constexpr std::size_t kLargestShared = 512;

class LockedPages : public std::pmr::memory_resource {
    static std::size_t wholePages(std::size_t size) {
        static const auto sPage = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
        return (size + sPage - 1) / sPage * sPage;
    }
    void* do_allocate(std::size_t size, std::size_t /*alignment*/) override {
        size = wholePages(size);
        void* const pages = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (pages == MAP_FAILED) throw std::bad_alloc();
        (void)::madvise(pages, size, MADV_DONTDUMP);
        (void)::mlock(pages, size);
        return pages;
    }
    void do_deallocate(void* pages, std::size_t size, std::size_t /*alignment*/) override {
        ::munmap(pages, wholePages(size));
    }
    bool do_is_equal(const memory_resource& other) const noexcept override { return this == &other; }
};

struct SecretMemory {
    LockedPages pages;
    std::mutex mutex;  // guards what follows
    std::pmr::monotonic_buffer_resource room{&pages};
    std::pmr::unsynchronized_pool_resource blocks{{0, kLargestShared}, &room};
};

// Never destroyed: static destructors may still seal.
SecretMemory& secretMemory() {
    static SecretMemory& sMemory = *new SecretMemory;
    return sMemory;
}

}  // namespace

void* takeSecretMemory(std::size_t size) {
    SecretMemory& memory = secretMemory();
    if (size > kLargestShared) return memory.pages.allocate(size);
    const std::lock_guard lock(memory.mutex);
    return memory.blocks.allocate(size);
}

void giveBackSecretMemory(void* bytes, std::size_t size) {
    ::explicit_bzero(bytes, size);
    SecretMemory& memory = secretMemory();
    if (size > kLargestShared) return memory.pages.deallocate(bytes, size);
    const std::lock_guard lock(memory.mutex);
    memory.blocks.deallocate(bytes, size);
}

}  // namespace sd::security
