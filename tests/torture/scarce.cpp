// A library to preload: the n-th time that a process, or a child that it forked, asks for memory, a descriptor, a
// thread or a mapping, it gets none. $SCARCE: the file of tests/torture/scarce.h. Asks for no memory itself. SQLite's
// memory is among it: nobody gives it an allocator of its own, so that it asks malloc(). Out of reach is what the C
// library asks itself for: the stacks of threads, the files of the loader, the heap behind malloc(), the process that
// posix_spawn() makes. So is what is asked of the kernel by syscall(): the handle of a process, for one. Only programs
// that a wrapped key ring is opened by need these two.
#include "tests/torture/scarce.h"

#include <dirent.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <type_traits>

#include "tests/torture/interposed.h"

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

using torture::next;
using torture::Scarcity;

// The model asks for no memory.
__attribute__((tls_model("initial-exec"))) thread_local bool tLooksUpUsers = false;

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

// For who looks into a finding: where it was refused, at the end of that file.
void showPlace(Scarcity& scarcity) {
    const char* const path = ::getenv("SCARCE_TRACE");
    if (!path) return;
    scarcity.isCounting = 0;
    void* places[64];
    const long file = ::syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    ::backtrace_symbols_fd(places, ::backtrace(places, 64), static_cast<int>(file));
    ::close(static_cast<int>(file));
    scarcity.isCounting = 1;
}

// The file that the code is in, or kUsersLookUp.
template <std::size_t size>
void notePlace(char (&place)[size], const void* code) {
    Dl_info file{};
    file.dli_fname = torture::kUsersLookUp;
    if (tLooksUpUsers || ::dladdr(code, &file) != 0) std::strncpy(place, file.dli_fname, size - 1);
}

bool isRefused(Scarcity::Kind kind, const void* caller) {
    Scarcity* const scarcity = shared();
    if (!scarcity || scarcity->kind != kind || scarcity->isCounting == 0 || ++scarcity->asked != scarcity->at)
        return false;
    notePlace(scarcity->place, caller);
    showPlace(*scarcity);
    return true;
}

const void* fileOf(const void* code) {
    Dl_info file{};
    return ::dladdr(code, &file) != 0 ? file.dli_fbase : nullptr;
}

// Of whom it is that the process crashes: who called the C library, where that was in it. Behind ourselves the C
// library stands in any case, since it called us. The process ends by the same signal once this returns: it is not
// handled again.
void noteCrash(int signal) {
    void* places[64];
    const int count = ::backtrace(places, 64);
    int at = 0;
    for (const void* const skipped : {fileOf(places[0]), fileOf(reinterpret_cast<void*>(&::__libc_malloc))})
        while (at < count && fileOf(places[at]) == skipped) ++at;
    if (at < count) notePlace(shared()->crashPlace, places[at]);
    std::raise(signal);
}

[[gnu::constructor]] void watchForCrashes() {
    if (!shared()) return;
    struct sigaction action {};
    action.sa_handler = noteCrash;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal : {SIGSEGV, SIGABRT}) ::sigaction(signal, &action, nullptr);
}

// What `call` gives, or `none` with that error.
template <class Result, class Call>
Result unless(Scarcity::Kind kind, const void* caller, int error, Result none, Call&& call) {
    if (!isRefused(kind, caller)) return call();
    errno = error;
    return none;
}

template <class Call>
void* memory(const void* caller, Call&& call) {
    return unless<void*>(Scarcity::Memory, caller, ENOMEM, nullptr, call);
}

template <class Result, class Call>
Result descriptor(const void* caller, Call&& call) {
    if constexpr (std::is_pointer_v<Result>)
        return unless<Result>(Scarcity::Descriptor, caller, EMFILE, nullptr, call);
    else
        return unless<Result>(Scarcity::Descriptor, caller, EMFILE, -1, call);
}

}  // namespace

#define SCARCE extern "C" __attribute__((visibility("default")))
#define CALLER __builtin_return_address(0)

// The names are the C library's own.
// NOLINTBEGIN(readability-identifier-naming, readability-inconsistent-declaration-parameter-name)
// A function whose result is a descriptor, or has one.
// NOLINTBEGIN(bugprone-macro-parentheses): they are lists in parentheses
#define GIVES_DESCRIPTOR(Result, name, parameters, arguments)                                        \
    SCARCE Result name parameters {                                                                  \
        return descriptor<Result>(CALLER, [&] { return next<Result parameters>(#name) arguments; }); \
    }
// NOLINTEND(bugprone-macro-parentheses)

SCARCE void* malloc(size_t size) noexcept {
    return memory(CALLER, [&] { return __libc_malloc(size); });
}

SCARCE void* calloc(size_t count, size_t size) noexcept {
    return memory(CALLER, [&] { return __libc_calloc(count, size); });
}

SCARCE void* realloc(void* old, size_t size) noexcept {
    return memory(CALLER, [&] { return __libc_realloc(old, size); });
}

SCARCE void* memalign(size_t alignment, size_t size) noexcept {
    return memory(CALLER, [&] { return __libc_memalign(alignment, size); });
}

SCARCE void* aligned_alloc(size_t alignment, size_t size) noexcept {
    return memalign(alignment, size);
}

SCARCE int posix_memalign(void** result, size_t alignment, size_t size) noexcept {
    *result = memalign(alignment, size);
    return *result ? 0 : ENOMEM;
}

SCARCE int open(const char* path, int flags, ...) {
    TAKE_MODE(mode, flags);
    return descriptor<int>(CALLER, [&] { return next<int(const char*, int, ...)>("open")(path, flags, mode); });
}

SCARCE int openat(int folder, const char* path, int flags, ...) {
    TAKE_MODE(mode, flags);
    return descriptor<int>(CALLER,
                           [&] { return next<int(int, const char*, int, ...)>("openat")(folder, path, flags, mode); });
}

SCARCE int open64(const char* path, int flags, ...) __attribute__((alias("open")));
SCARCE int openat64(int folder, const char* path, int flags, ...) __attribute__((alias("openat")));

GIVES_DESCRIPTOR(FILE*, fopen, (const char* path, const char* mode), (path, mode))
GIVES_DESCRIPTOR(DIR*, opendir, (const char* path), (path))
GIVES_DESCRIPTOR(int, socket, (int domain, int type, int protocol) noexcept, (domain, type, protocol))
GIVES_DESCRIPTOR(int, socketpair, (int domain, int type, int protocol, int* pair) noexcept,
                 (domain, type, protocol, pair))
GIVES_DESCRIPTOR(int, accept4, (int fd, sockaddr* address, socklen_t* length, int flags), (fd, address, length, flags))
GIVES_DESCRIPTOR(int, epoll_create1, (int flags) noexcept, (flags))
GIVES_DESCRIPTOR(int, eventfd, (unsigned count, int flags) noexcept, (count, flags))
GIVES_DESCRIPTOR(int, timerfd_create, (clockid_t clock, int flags) noexcept, (clock, flags))
GIVES_DESCRIPTOR(int, inotify_init1, (int flags) noexcept, (flags))
GIVES_DESCRIPTOR(int, pipe, (int* pair) noexcept, (pair))
GIVES_DESCRIPTOR(int, pipe2, (int* pair, int flags) noexcept, (pair, flags))
GIVES_DESCRIPTOR(int, dup, (int fd) noexcept, (fd))

SCARCE FILE* fopen64(const char* path, const char* mode) __attribute__((alias("fopen")));

SCARCE int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    const auto call = [&] { return next<int(int, int, ...)>("fcntl")(fd, command, argument); };
    return command == F_DUPFD || command == F_DUPFD_CLOEXEC ? descriptor<int>(CALLER, call) : call();
}

SCARCE int fcntl64(int fd, int command, ...) __attribute__((alias("fcntl")));

SCARCE int getpwnam_r(const char* name, passwd* entry, char* room, size_t size, passwd** found) {
    using LookUp = int(const char*, passwd*, char*, size_t, passwd**);
    tLooksUpUsers = true;
    const int error = next<LookUp>("getpwnam_r")(name, entry, room, size, found);
    tLooksUpUsers = false;
    return error;
}

SCARCE int pthread_create(pthread_t* thread, const pthread_attr_t* how, void* (*run)(void*), void* argument) noexcept {
    using Create = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    return unless<int>(Scarcity::Thread, CALLER, EAGAIN, EAGAIN,
                       [&] { return next<Create>("pthread_create")(thread, how, run, argument); });
}

SCARCE pid_t fork() noexcept {
    return unless<pid_t>(Scarcity::Thread, CALLER, EAGAIN, -1, [] { return next<pid_t()>("fork")(); });
}

SCARCE void* mmap(void* at, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
    using Map = void*(void*, size_t, int, int, int, off_t);
    return unless<void*>(Scarcity::Mapping, CALLER, ENOMEM, MAP_FAILED,
                         [&] { return next<Map>("mmap")(at, size, protection, flags, fd, offset); });
}

SCARCE void* mmap64(void* at, size_t size, int protection, int flags, int fd, off_t offset) noexcept
    __attribute__((alias("mmap")));

SCARCE void* mremap(void* old, size_t size, size_t wanted, int flags, ...) noexcept {
    va_list arguments;
    va_start(arguments, flags);
    void* const at = (flags & MREMAP_FIXED) ? va_arg(arguments, void*) : nullptr;
    va_end(arguments);
    return unless<void*>(Scarcity::Mapping, CALLER, ENOMEM, MAP_FAILED, [&] {
        return next<void*(void*, size_t, size_t, int, ...)>("mremap")(old, size, wanted, flags, at);
    });
}
// NOLINTEND(readability-identifier-naming, readability-inconsistent-declaration-parameter-name)
