#include "platform/sdsecurity/secret_memory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <mutex>
#include <new>

namespace sd::security {
namespace {

// Whole rings have pages of their own, which go with them; keys share some, which stay.
constexpr std::size_t kLargestShared = 512;

std::size_t wholePages(std::size_t size) {
    static const auto sPage = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    return (size + sPage - 1) / sPage * sPage;
}

void* lockedPages(std::size_t size) {
    void* const pages = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) throw std::bad_alloc();
    (void)::madvise(pages, size, MADV_DONTDUMP);
    (void)::mlock(pages, size);
    return pages;
}

// Blocks of a power of two each, of which those that were given back are taken first. Where there is no page more, it
// is as it was: the C++ library's pools, which were here, are not.
class SharedPages {
public:
    void* take(std::size_t size) {
        const std::size_t kind = kindOf(size);
        const std::lock_guard lock(mMutex);
        if (Free* const block = mFree.at(kind)) {
            mFree.at(kind) = block->next;
            return block;
        }
        const std::size_t bytes = kSmallest << kind;
        if (mLeft < bytes) {
            const std::size_t room = wholePages(kLargestShared);
            mRoom = static_cast<char*>(lockedPages(room));
            mLeft = room;
        }
        mLeft -= bytes;
        return mRoom + mLeft;
    }

    void giveBack(void* bytes, std::size_t size) {
        const std::size_t kind = kindOf(size);
        const std::lock_guard lock(mMutex);
        mFree.at(kind) = new (bytes) Free{mFree.at(kind)};
    }

private:
    struct Free {
        Free* next;
    };

    static constexpr std::size_t kSmallest = 16;  // which is what any object is aligned to
    static constexpr std::size_t kKinds = 6;      // to kLargestShared

    static std::size_t kindOf(std::size_t size) {
        std::size_t kind = 0;
        while (kSmallest << kind < size) ++kind;
        return kind;
    }

    std::mutex mMutex;
    std::array<Free*, kKinds> mFree{};  // guarded by mMutex, as what follows
    char* mRoom = nullptr;
    std::size_t mLeft = 0;  // of it, from its beginning
};

// Never destroyed: static destructors may still seal.
SharedPages& sharedPages() {
    static SharedPages& sPages = *new SharedPages;
    return sPages;
}

}  // namespace

void* takeSecretMemory(std::size_t size) {
    return size > kLargestShared ? lockedPages(wholePages(size)) : sharedPages().take(size);
}

void giveBackSecretMemory(void* bytes, std::size_t size) {
    ::explicit_bzero(bytes, size);
    if (size > kLargestShared)
        ::munmap(bytes, wholePages(size));
    else
        sharedPages().giveBack(bytes, size);
}

}  // namespace sd::security
