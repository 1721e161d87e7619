// A library to preload: the n-th time that a process asks for memory, a descriptor or a thread, it gets none.
// $SCARCE: the file of tests/torture/scarce.h. Asks for no memory itself.
#include "tests/torture/scarce.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

extern "C" {
// The C library's own allocator, by the names under which it stays within reach.
// NOLINTBEGIN(bugprone-reserved-identifier)
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
// NOLINTEND(bugprone-reserved-identifier)
}

namespace {

using torture::Scarcity;

// Null where nothing is to be scarce.
Scarcity* shared() {
    static Scarcity* sShared = nullptr;
    static bool sLooked = false;
    if (sLooked) return sShared;
    sLooked = true;
    const char* const path = ::getenv("SCARCE");
    const auto fd = static_cast<int>(path ? ::syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC) : -1);
    if (fd < 0) return nullptr;
    void* const mapped = ::mmap(nullptr, sizeof(Scarcity), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (mapped != MAP_FAILED) sShared = static_cast<Scarcity*>(mapped);
    return sShared;
}

// For who looks into a finding: where it was refused, on standard error.
void showPlace(Scarcity& scarcity) {
    if (!::getenv("SCARCE_TRACE")) return;
    scarcity.isCounting = 0;
    void* places[64];
    ::backtrace_symbols_fd(places, ::backtrace(places, 64), STDERR_FILENO);
    scarcity.isCounting = 1;
}

bool isRefused(Scarcity::Kind kind, const void* caller) {
    Scarcity* const scarcity = shared();
    if (!scarcity || scarcity->kind != kind || scarcity->isCounting == 0 || ++scarcity->asked != scarcity->at)
        return false;
    Dl_info place{};
    if (::dladdr(caller, &place) != 0) std::strncpy(scarcity->place, place.dli_fname, sizeof scarcity->place - 1);
    showPlace(*scarcity);
    return true;
}

template <class Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

void* none() {
    errno = ENOMEM;
    return nullptr;
}

template <class Call>
int descriptor(Call&& call) {
    if (!isRefused(Scarcity::Descriptor, nullptr)) return call();
    errno = EMFILE;
    return -1;
}

mode_t modeOf(int flags, va_list arguments) {
    return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(arguments, mode_t) : 0;
}

}  // namespace

#define SCARCE extern "C" __attribute__((visibility("default")))

// The names are the C library's own.
// NOLINTBEGIN(readability-identifier-naming, readability-inconsistent-declaration-parameter-name)
SCARCE void* malloc(size_t size) noexcept {
    return isRefused(Scarcity::Memory, __builtin_return_address(0)) ? none() : __libc_malloc(size);
}

SCARCE void* calloc(size_t count, size_t size) noexcept {
    return isRefused(Scarcity::Memory, __builtin_return_address(0)) ? none() : __libc_calloc(count, size);
}

SCARCE void* realloc(void* old, size_t size) noexcept {
    return isRefused(Scarcity::Memory, __builtin_return_address(0)) ? none() : __libc_realloc(old, size);
}

SCARCE void* memalign(size_t alignment, size_t size) noexcept {
    return isRefused(Scarcity::Memory, __builtin_return_address(0)) ? none() : __libc_memalign(alignment, size);
}

SCARCE void* aligned_alloc(size_t alignment, size_t size) noexcept {
    return memalign(alignment, size);
}

SCARCE int posix_memalign(void** result, size_t alignment, size_t size) noexcept {
    *result = memalign(alignment, size);
    return *result ? 0 : ENOMEM;
}

SCARCE int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return descriptor([&] { return next<int(const char*, int, ...)>("open")(path, flags, mode); });
}

SCARCE int openat(int folder, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return descriptor([&] { return next<int(int, const char*, int, ...)>("openat")(folder, path, flags, mode); });
}

SCARCE int open64(const char* path, int flags, ...) __attribute__((alias("open")));
SCARCE int openat64(int folder, const char* path, int flags, ...) __attribute__((alias("openat")));

SCARCE int socket(int domain, int type, int protocol) noexcept {
    return descriptor([&] { return next<int(int, int, int)>("socket")(domain, type, protocol); });
}

SCARCE int socketpair(int domain, int type, int protocol, int* pair) noexcept {
    return descriptor([&] { return next<int(int, int, int, int*)>("socketpair")(domain, type, protocol, pair); });
}

SCARCE int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    return descriptor(
        [&] { return next<int(int, sockaddr*, socklen_t*, int)>("accept4")(fd, address, length, flags); });
}

SCARCE int epoll_create1(int flags) noexcept {
    return descriptor([&] { return next<int(int)>("epoll_create1")(flags); });
}

SCARCE int eventfd(unsigned count, int flags) noexcept {
    return descriptor([&] { return next<int(unsigned, int)>("eventfd")(count, flags); });
}

SCARCE int timerfd_create(clockid_t clock, int flags) noexcept {
    return descriptor([&] { return next<int(clockid_t, int)>("timerfd_create")(clock, flags); });
}

SCARCE int inotify_init1(int flags) noexcept {
    return descriptor([&] { return next<int(int)>("inotify_init1")(flags); });
}

SCARCE int pipe2(int* pair, int flags) noexcept {
    return descriptor([&] { return next<int(int*, int)>("pipe2")(pair, flags); });
}

SCARCE int dup(int fd) noexcept {
    return descriptor([&] { return next<int(int)>("dup")(fd); });
}

SCARCE int pthread_create(pthread_t* thread, const pthread_attr_t* how, void* (*run)(void*), void* argument) noexcept {
    if (isRefused(Scarcity::Thread, nullptr)) return EAGAIN;
    using Create = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    return next<Create>("pthread_create")(thread, how, run, argument);
}
// NOLINTEND(readability-identifier-naming, readability-inconsistent-declaration-parameter-name)
